#ifndef KEST_KERNEL_FRAME_LOG_CAPTURE_H_
#define KEST_KERNEL_FRAME_LOG_CAPTURE_H_

/// \file
/// The log lines of calls as text.

#include <kest/kernel_frame/log_sink.h>

#include <cstdio>
#include <string>

namespace util {

/// Collects the log lines that calls of this thread print while it lives, instead of printing them; for the one who
/// turns a status into an error. Captures may nest, the innermost collects. Other threads' lines go where they went
/// before.
///
/// Header only: each module has its own hook, hung before that of the module loaded before it. A module that has used
/// it must stay loaded.
class __attribute__((visibility("hidden"))) LogCapture {
public:
    LogCapture() : outer_(current) {
        Next();
        current = this;
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    ~LogCapture() { current = outer_; }

    std::string lines;  ///< the lines of this capture so far, each as it would have been printed

private:
    /// Hangs the hook at the first call. What is behind it; a line that another thread prints meanwhile waits to know.
    static LogSink Next() {
        static const LogSink next = SetLogSink(Take);
        return next;
    }

    static void Take(const char* line) {
        if (current != nullptr) {
            current->lines += line;
        } else if (const LogSink next = Next()) {
            next(line);
        } else {
            std::fputs(line, stdout);
        }
    }

    inline static thread_local LogCapture* current = nullptr;
    LogCapture* outer_;
};

}  // namespace util

#endif  // KEST_KERNEL_FRAME_LOG_CAPTURE_H_

#include <kest/kernel_frame/log.h>

#include <kest/kernel_frame/log_sink.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>

namespace util {
namespace {

std::atomic<LogSink> logSink{nullptr};

void SendLine(LogSink sink, const char* level, const char* function, int line, const char* format, va_list arguments) {
    char text[8192];
    const int length = std::snprintf(text, sizeof text, "[%s][%s][%d] ", level, function, line);
    std::vsnprintf(text + length, sizeof text - static_cast<size_t>(length), format, arguments);
    sink(text);
}

}  // namespace

void Log(const char* level, const char* function, int line, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    if (const LogSink sink = logSink.load()) {
        SendLine(sink, level, function, line, format, arguments);
    } else {
        flockfile(stdout);
        std::printf("[%s][%s][%d] ", level, function, line);
        std::vprintf(format, arguments);
        funlockfile(stdout);
    }
    va_end(arguments);
}

LogSink SetLogSink(LogSink sink) {
    return logSink.exchange(sink);
}

}  // namespace util

#ifndef KEST_KERNEL_FRAME_LOG_SINK_H_
#define KEST_KERNEL_FRAME_LOG_SINK_H_

/// \file
/// Where log lines go.

#include <kest/kernel_frame/export.h>

namespace util {

/// Takes one log line, "[ERROR][function][line] message", on the thread that logs. The text is the call's own, ends as
/// the message does, and is cut behind 8191 characters. It must not throw, and may be called from several threads.
using LogSink = void (*)(const char* line);

/// Sends the log lines of the whole process to `sink`, null for standard output. Returns the sink before; one that
/// wants the lines of its own calls alone hands the others on to that, or prints them if it is null.
KEST_EXPORT LogSink SetLogSink(LogSink sink);

}  // namespace util

#endif  // KEST_KERNEL_FRAME_LOG_SINK_H_

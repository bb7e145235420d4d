#ifndef KEST_KERNEL_FRAME_LOG_H_
#define KEST_KERNEL_FRAME_LOG_H_

namespace util {

/// Prints "[level][function][line] message" to standard output, whole even when several threads print at once. The
/// message keeps its own final newline, or its lack of one; nothing is flushed.
void Log(const char* level, const char* function, int line, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

}  // namespace util

// The name in the line is that of the function that holds the statement.
#define LOG_ERROR(...) util::Log("ERROR", __func__, __LINE__, __VA_ARGS__)

#endif  // KEST_KERNEL_FRAME_LOG_H_

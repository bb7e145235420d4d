#ifndef KEST_KERNEL_FRAME_LOG_H_
#define KEST_KERNEL_FRAME_LOG_H_

namespace util {

/// Prints "[ERROR][function][line] message" to standard output, whole even when several threads fail at once. The
/// message keeps its own final newline, or its lack of one; nothing is flushed.
void LogError(const char* function, int line, const char* format, ...) __attribute__((format(printf, 3, 4)));

}  // namespace util

// The name in the line is that of the function that holds the statement.
#define LOG_ERROR(...) util::LogError(__func__, __LINE__, __VA_ARGS__)

#endif  // KEST_KERNEL_FRAME_LOG_H_

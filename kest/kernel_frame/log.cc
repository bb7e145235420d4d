#include <kest/kernel_frame/log.h>

#include <cstdarg>
#include <cstdio>

namespace util {

void LogError(const char* function, int line, const char* format, ...) {
    flockfile(stdout);
    std::printf("[ERROR][%s][%d] ", function, line);
    va_list arguments;
    va_start(arguments, format);
    std::vprintf(format, arguments);
    va_end(arguments);
    funlockfile(stdout);
}

}  // namespace util

#include <kest/kernel_frame/log.h>

#include <cstdarg>
#include <cstdio>

namespace util {

void Log(const char* level, const char* function, int line, const char* format, ...) {
    flockfile(stdout);
    std::printf("[%s][%s][%d] ", level, function, line);
    va_list arguments;
    va_start(arguments, format);
    std::vprintf(format, arguments);
    va_end(arguments);
    funlockfile(stdout);
}

}  // namespace util

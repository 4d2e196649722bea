#include <device_access/libuio.h>

#include "internal/errno_guard.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

// Defined by client programs that want diagnostics, or by none. A hidden reference would be bound
// to nothing when the library is linked, so this one has default visibility.
extern "C" __attribute__((weak, visibility("default"))) char libuio_log;

void libuio_pr(int level, const char *levelStr, unsigned int line_num, const char *func_name,
               const char *fmt, ...)
{
    if (!&libuio_log)
        return;
    const device_access::errno_guard keep;
    char line[512];
    constexpr int text_limit = sizeof line - 2; // room for the newline and the terminator
    int length = std::snprintf(line, text_limit, "%s:%u:%s(): ", "lib/device_access/libuio",
                               line_num, func_name);
    length = std::clamp(length, 0, text_limit - 1);

    va_list args;
    va_start(args, fmt);
    const int room = text_limit - length;
    const int added = std::vsnprintf(line + length, static_cast<size_t>(room), fmt, args);
    va_end(args);
    length += std::clamp(added, 0, room - 1);
    line[length] = '\n';
    line[length + 1] = '\0';

    std::FILE *stream = level <= 5 ? stdout : stderr;
    std::fprintf(stream, "log[%s]: %s", levelStr, line);
    std::fflush(stream);
}

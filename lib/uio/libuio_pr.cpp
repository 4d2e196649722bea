// The diagnostic lines of libuio, for clients that ask for them.
#include <device_access/libuio.h>

#include "lib/base/errno_guard.h"
#include "lib/base/print.h"

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
    device_access::diagnostic_line line;
    va_list args;
    va_start(args, fmt);
    device_access::format_diagnostic(line, "lib/device_access/libuio", line_num, func_name, fmt,
                                     args);
    va_end(args);

    std::FILE *stream = level <= 5 ? stdout : stderr;
    std::fprintf(stream, "log[%s]: %s", levelStr, line);
    std::fflush(stream);
}

// Lines on the process's output streams.
#include "lib/base/print.h"

#include "lib/base/errno_guard.h"

#include <algorithm>
#include <cstdio>

namespace device_access
{

void print_error(const char *fmt, ...)
{
    const errno_guard keep;
    va_list args;
    va_start(args, fmt);
    std::vfprintf(stderr, fmt, args);
    va_end(args);
}

void print_output(const char *fmt, ...)
{
    const errno_guard keep;
    va_list args;
    va_start(args, fmt);
    std::vfprintf(stdout, fmt, args);
    va_end(args);
}

const char *format_diagnostic(diagnostic_line &line, const char *unit, unsigned int line_num,
                              const char *func_name, const char *fmt, va_list args)
{
    constexpr int text_limit = sizeof line - 2; // room for the newline and the terminator
    int length = std::snprintf(line, text_limit, "%s:%u:%s(): ", unit, line_num, func_name);
    length = std::clamp(length, 0, text_limit - 1);
    const int room = text_limit - length;
    const int added = std::vsnprintf(line + length, static_cast<size_t>(room), fmt, args);
    length += std::clamp(added, 0, room - 1);
    line[length] = '\n';
    line[length + 1] = '\0';
    return line;
}

} // namespace device_access

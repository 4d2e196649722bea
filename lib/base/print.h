// Lines on the process's output streams. Printing never changes errno.
#pragma once

#include <cstdarg>

namespace device_access
{

[[gnu::format(printf, 1, 2)]] void print_error(const char *fmt, ...);  // standard error
[[gnu::format(printf, 1, 2)]] void print_output(const char *fmt, ...); // standard output
[[gnu::format(printf, 1, 0)]] void vprint_error(const char *fmt, va_list args);

// Says on standard error why something fails, and gives the result that says so.
template <typename Result>
[[gnu::format(printf, 2, 3)]] Result refuse(Result result, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    vprint_error(fmt, args);
    va_end(args);
    return result;
}

} // namespace device_access

#include "lib/base/print.h"

#include "lib/base/errno_guard.h"

#include <cstdio>

namespace device_access
{

void vprint_error(const char *fmt, va_list args)
{
    const errno_guard keep;
    std::vfprintf(stderr, fmt, args);
}

void print_error(const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    vprint_error(fmt, args);
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

} // namespace device_access

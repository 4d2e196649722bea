#include "messages.h"

#include "errno_guard.h"

#include <cstdarg>
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

} // namespace device_access

// Lines on the process's output streams. Printing never changes errno.
#pragma once

namespace device_access
{

[[gnu::format(printf, 1, 2)]] void print_error(const char *fmt, ...);  // standard error
[[gnu::format(printf, 1, 2)]] void print_output(const char *fmt, ...); // standard output

} // namespace device_access

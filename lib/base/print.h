// Lines on the process's output streams. Printing never changes errno.
#pragma once

#include <cstdarg>

namespace device_access
{

[[gnu::format(printf, 1, 2)]] void print_error(const char *fmt, ...);  // standard error
[[gnu::format(printf, 1, 2)]] void print_output(const char *fmt, ...); // standard output

// The form that the UIO and the PCI diagnostics share: where a line comes from, then its text.
using diagnostic_line = char[512];

// Writes "UNIT:LINE_NUM:FUNC_NAME(): MESSAGE\n", the message cut to fit, and returns it.
[[gnu::format(printf, 5, 0)]] const char *format_diagnostic(diagnostic_line &line, const char *unit,
                                                            unsigned int line_num,
                                                            const char *func_name, const char *fmt,
                                                            va_list args);

} // namespace device_access

// How a call fails, in every family: one statement that says why, sets errno where the failing step
// has not, and gives the call's result.
#pragma once

#include <cerrno>
#include <cstring>

#include <sys/types.h>

namespace device_access
{

// Fails with an errno of one's own, as in: return fail(-1, EINVAL);
template <typename Result>
Result fail(Result result, int error)
{
    errno = error;
    return result;
}

inline const char *error_text()
{
    return std::strerror(errno);
}

// Whether a read or a write moved anything; that it came to an end counts as an error.
inline bool has_moved(ssize_t length)
{
    return length == 0 ? fail(false, EIO) : length > 0;
}

} // namespace device_access

// Prints a line, then gives the result: return REFUSE(print_error, -1, "no %s\n", name);
#define REFUSE(print, result, ...) (print(__VA_ARGS__), result)

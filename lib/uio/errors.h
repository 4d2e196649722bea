// How the libuio calls fail.
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstring>

#include <sys/types.h>

namespace device_access
{

inline const char *error_text()
{
    return std::strerror(errno);
}

// Whether a read or a write moved anything; that it came to an end counts as an error.
inline bool has_moved(ssize_t length)
{
    if (length == 0)
        errno = EIO;
    return length > 0;
}

inline int failure(int error)
{
    errno = error;
    return -1;
}

inline int invalid_number()
{
    return failure(EINVAL);
}

inline std::nullptr_t invalid_pointer()
{
    errno = EINVAL;
    return nullptr;
}

inline std::nullptr_t no_memory()
{
    errno = ENOMEM;
    return nullptr;
}

} // namespace device_access

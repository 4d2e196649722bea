// How the libuio calls fail.
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstring>

namespace device_access
{

inline const char *error_text()
{
    return std::strerror(errno);
}

inline std::nullptr_t invalid_pointer()
{
    errno = EINVAL;
    return nullptr;
}

inline int invalid_number()
{
    errno = EINVAL;
    return -1;
}

} // namespace device_access

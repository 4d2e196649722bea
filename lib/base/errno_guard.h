// Clean-up after a failed step must not change the error that the caller is about to see.
#pragma once

#include <cerrno>

namespace device_access
{

// Restores errno, as it was when the guard was made, when the scope ends.
class errno_guard
{
public:
    errno_guard() : saved_(errno) {}
    ~errno_guard() { errno = saved_; }
    errno_guard(const errno_guard &) = delete;
    errno_guard &operator=(const errno_guard &) = delete;

private:
    int saved_;
};

} // namespace device_access

// Asks the C library for the time.
#include "lib/base/clock.h"

#include "lib/base/errno_guard.h"

#include <cerrno>
#include <ctime>

int64_t device_access::seconds_since_epoch()
{
    if constexpr (sizeof(time_t) == sizeof(int64_t))
        return std::time(nullptr);
    const errno_guard guard;
    errno = 0;
    const time_t now = std::time(nullptr);
    return now == -1 && errno == EOVERFLOW ? wide_seconds_since_epoch() : int64_t{now};
}

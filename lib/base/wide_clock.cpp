// Compiled with a time_t of 64 bits: one of 32 cannot tell the time after January 2038.
#include "lib/base/clock.h"

#include <ctime>

int64_t device_access::wide_seconds_since_epoch()
{
    return std::time(nullptr);
}

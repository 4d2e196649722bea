// The time of day, also where time_t has 32 bits and the time does not fit.
#pragma once

#include <cstdint>

namespace device_access
{

// In seconds since 1970. What time() gives counts, whoever has put it in place of the C library's.
int64_t seconds_since_epoch();

// The same in 64 bits from the C library itself.
int64_t wide_seconds_since_epoch();

} // namespace device_access

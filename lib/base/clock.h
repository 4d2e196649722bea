// The time of day in 64 bits, where time_t has only 32 too.
#pragma once

#include <cstdint>

namespace device_access
{

int64_t seconds_since_epoch();

} // namespace device_access

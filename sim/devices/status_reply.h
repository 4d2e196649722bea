// What fstat(2) and its like say of a character device.
#pragma once

#include "sim/devices/asking_process.h"

#include <string>

namespace chassis_sim
{

// Writes the status of a device's node to an address in the client, in the layout of its
// architecture; the result of the call is then 0.
void reply_status(const asked_call &call, uint64_t address, const std::string &node);

// The same for statx(2).
void reply_extended_status(const asked_call &call, uint64_t address, const std::string &node);

} // namespace chassis_sim

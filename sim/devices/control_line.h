// Lines that a client writes to a file of the chassis, such as /dev/chassis, and each is obeyed.
#pragma once

#include "sim/devices/event_loop.h"

#include <functional>
#include <string>

namespace chassis_sim
{

// Does what a line says, and returns what there is to tell of it; throws a failure when that cannot
// be done.
using obey_line = std::function<std::string(const std::string &)>;

// A client's end of a new line. Who reads it too is told what became of each; for others that is
// said on standard error.
owned_fd open_control_line(event_loop &loop, bool client_reads, obey_line obey);

} // namespace chassis_sim

// Runs the command of a chassis.
#pragma once

#include <string>
#include <vector>

namespace chassis_sim
{

// Runs a command, waits until it and all that it has started have ended, and returns its exit
// status as a shell tells it. A SIGTERM or SIGHUP of this process goes to all of them, and who has
// not ended two seconds later is killed; so is everything when this process is.
int run_command(const std::vector<std::string> &command);

} // namespace chassis_sim

// Runs the command of a chassis.
#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

namespace chassis_sim
{

// Runs a command, waits until it and all that it has started have ended, and returns its exit
// status as a shell tells it; then it ends the helpers, which are children of this process. A
// SIGTERM or SIGHUP of this process goes to all of them, as does a SIGINT that does not come from
// the terminal, and who has not ended two seconds later is killed; so is everything when this
// process is.
int run_command(const std::vector<std::string> &command, const std::vector<pid_t> &helpers);

} // namespace chassis_sim

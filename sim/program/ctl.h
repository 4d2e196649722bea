// The command "chassis-sim ctl".
#pragma once

#include <string>
#include <vector>

namespace chassis_sim
{

// Does what the words say, from inside the chassis; returns the exit status.
int control_chassis(const std::vector<std::string> &words);

} // namespace chassis_sim

// How a client has control lines obeyed.
#pragma once

#include <string>

namespace chassis_sim
{

// Has one control line obeyed; throws a failure when that cannot be done.
void control(const std::string &line);

} // namespace chassis_sim

// How a client has control lines obeyed.
#pragma once

#include <string>

namespace chassis_sim
{

// Have one control line obeyed; the first returns what it tells. Both throw a failure when that
// cannot be done.
std::string answer_to(const std::string &line);
void control(const std::string &line);

} // namespace chassis_sim

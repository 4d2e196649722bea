// What control lines say, and what is done then.
#pragma once

#include "sim/devices/devices.h"

#include <string>

namespace chassis_sim
{

// Does what a line of /dev/chassis says; throws a failure when that cannot be done.
//   interrupt NAME       its interrupt occurs
//   plug NAME            it appears: in /sys/class/uio, then its node
//   remove NAME          it leaves its bus: its entry in /sys/class/uio and its node go, the
//   removal
//                        notice comes, and what is open fails as it does without a driver
//   link ID STATE        the link of the port at the PCI address is "up", "training" or "down"
//   answer-read NAME N   reads of its node return N; "answer-write" likewise
// "plug" and "remove" take a PCI address too.
void obey(devices &all, const std::string &line);

} // namespace chassis_sim

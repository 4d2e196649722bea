// What control lines say, and what is done then.
#pragma once

#include "sim/devices/devices.h"
#include "sim/devices/register_bus.h"

#include <string>

namespace chassis_sim
{

// What control lines are about.
struct controlled {
    devices &all;
    window_table &windows;
    register_bus &bus;
};

// Where "log" leaves the accesses to registers so far, a line of JSON for each.
inline constexpr char access_log[] = "/.chassis/accesses";

// Does what a line of /dev/chassis says, and returns what there is to tell of it; throws a failure
// when that cannot be done.
//   interrupt NAME       its interrupt occurs
//   plug NAME            it appears: in /sys/class/uio, then its node
//   remove NAME          it leaves its bus: its entry in /sys/class/uio and its node go, the
//   removal
//                        notice comes, and what is open fails as it does without a driver
//   link ID STATE        the link of the port at the PCI address is "up", "training" or "down"
//   answer-read NAME N   reads of its node return N; "answer-write" likewise
//   get REGISTER         tells its value, which no access is needed for
//   set REGISTER N       gives it one, as the hardware would
//   log                  writes the accesses so far to a file
// "plug" and "remove" take a PCI address too; a register is WINDOW.REGISTER or
// WINDOW.REGISTER.FIELD.
std::string obey(const controlled &what, const std::string &line);

} // namespace chassis_sim

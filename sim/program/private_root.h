// The mount namespace that a chassis lives in.
#pragma once

namespace chassis_sim
{

// Moves the calling process, which must have one thread, into a private mount namespace (and, for
// an ordinary user, a user namespace) whose root shows the machine's own files but for /sys, /dev,
// /var and /flash, which are fresh and writable, and /sbin, whose programs may be replaced. /dev
// holds the usual memory devices and terminals. Nothing outside the process and its children sees
// any of it. Where no such namespace can be made, says so in one line and ends the program.
void enter_private_root();

} // namespace chassis_sim

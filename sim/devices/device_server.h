// A process that answers for the devices of a chassis.
#pragma once

#include "sim/parts/nodes.h"

#include <sys/types.h>

namespace chassis_sim
{

// Answers, in a process of its own, what the kernel cannot in a private root: opening the nodes of
// simulated devices, and interrupts and removals on the descriptors so opened. The opener gets
// descriptors of real memory and real sockets: maps of a UIO node, waiting for its interrupts in
// whatever way, and reads and writes of storage, are the kernel's own. Works on the system calls
// themselves (seccomp user notification), so for 64-bit, 32-bit and statically linked programs
// alike. The process lives as long as one that it answers.
//
// Descriptors of UIO nodes have high numbers: the last quarter of those that the limit on open
// files allows, and of 1024 where it allows more.
//
// While it runs, lines written to /dev/chassis control its devices (see control_verbs.h). Who
// opened it for reading too, gets a line for each: "ok" when it is done, or what is wrong with it;
// for others that is said on standard error.
class device_server : public chassis_nodes
{
public:
    // From here on the calling process and its children see the devices added. Returns the server's
    // process, a child of this one.
    pid_t start();
};

} // namespace chassis_sim

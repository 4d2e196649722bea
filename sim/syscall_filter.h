#pragma once

#include <optional>

#include <linux/seccomp.h>

namespace chassis_sim
{

// The system calls that the device server is asked about, whatever their number on the caller's
// architecture.
enum class intercepted { open, openat, mknod, mknodat, read, write, poll, ppoll };

// Has the kernel ask about the calls of this process and its children from now on; reads and writes
// only on descriptors from first_fd. Returns the descriptor on which it asks.
int install_syscall_filter(unsigned int first_fd);

std::optional<intercepted> which_call(const seccomp_data &data);

} // namespace chassis_sim

// Which system calls are asked about, and on which arguments.
#pragma once

#include <optional>

#include <linux/seccomp.h>

namespace chassis_sim
{

// The system calls that the device server is asked about, whatever their number on the caller's
// architecture and whichever of several like ones it is.
enum class intercepted {
    open,
    openat,
    openat2,
    mknod,
    mknodat,
    mmap,
    wait, // for descriptors to become ready: poll, select and their kin
    // The following only on descriptors of the chassis's devices, which have high numbers.
    read, // of one buffer
    write,
    read_at,
    write_at,
    status,          // fstat
    status_at,       // of a path from a descriptor on
    status_extended, // statx
    seek,
    duplicate,
    control, // fcntl
    close,
    epoll, // epoll_ctl
    any,   // others that work on it
    trace, // ptrace
};

// Has the kernel ask about the calls of this process and its children from now on; those on a
// descriptor only from first_fd on. Returns the descriptor on which it asks.
int install_syscall_filter(unsigned int first_fd);

std::optional<intercepted> which_call(const seccomp_data &data);

} // namespace chassis_sim

// The memory of an NVRAM block, and its locks.
#include "sim/devices/storage_device.h"

#include "sim/devices/memory.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>

namespace chassis_sim
{

storage_device::storage_device(const storage_node &described)
    : storage_node(described),
      memory_(make_memory("chassis-storage:" + name(), contents.size(), contents)),
      link_(own_link(memory_))
{
    if (!may_grow)
        must(::fcntl(memory_.get(), F_ADD_SEALS, F_SEAL_GROW), "keep storage from growing");
}

owned_fd storage_device::open(int flags) const
{
    owned_fd opening = reopen(memory_);
    // O_EXCL keeps every other opening out for as long as the device is open.
    const int lock = (flags & O_EXCL) ? LOCK_EX : LOCK_SH;
    if (::flock(opening.get(), lock | LOCK_NB) != 0) {
        opening.reset();
        errno = EBUSY;
    }
    return opening;
}

} // namespace chassis_sim

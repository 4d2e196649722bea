// The memory of a PCI function, mapped through its resource files.
#include <device_access/pci_sysfs.h>

#include <device_access/pci_config.h>

#include "lib/base/errno_guard.h"
#include "lib/base/errors.h"
#include "lib/base/unique_fd.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <utility>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

using namespace device_access;

namespace
{

constexpr int bar_count = 6;
constexpr uint32_t first_bar_register = 0x10;
constexpr uint32_t bar_is_io = 0x01;

// I/O windows have at most 256 bytes, and memory windows below 128 are never mapped.
constexpr off_t largest_io = 256;
constexpr off_t smallest_memory = 128;

// The size if BAR n of that size is memory to map, 0 with ENOENT if it is not, -1 on failure.
off_t sysfs_pci_mmio_check(off_t size, int n, const sysfs_pci_identity_t *ident)
{
    if (size > largest_io)
        return size;
    if (size >= smallest_memory) {
        if (n < 0 || n >= bar_count)
            return fail(-1, EINVAL);
        void *config = pci_config_open(ident);
        if (!config)
            return -1;
        const uint32_t bar =
            pci_config_read8(first_bar_register + 4 * static_cast<uint32_t>(n), config);
        pci_config_close(config);
        if (bar == 0xffffffff)
            return -1;
        if ((bar & bar_is_io) == 0)
            return size;
    }
    return fail(0, ENOENT);
}

// The size of BAR n's memory, 0 if there is none, -1 on failure. With fd, a size above 0 comes with
// the opened resource file.
off_t sysfs_pci_mmio_size(unique_fd *fd, int n, const sysfs_pci_identity_t *ident)
{
    char name[11];
    std::snprintf(name, sizeof name, "resource%d", n);
    char path[98];
    if (!sysfs_pci_abspath(path, sizeof path, name, ident))
        return -1;
    struct stat status;
    if (fd) {
        fd->reset(::open(path, O_RDWR | O_CLOEXEC));
        // A check that failed counts as well: what cannot be asked is taken for memory.
        if (*fd && ::fstat(fd->get(), &status) == 0 &&
            sysfs_pci_mmio_check(status.st_size, n, ident) != 0)
            return status.st_size;
        fd->reset();
    } else if (::stat(path, &status) == 0) {
        return sysfs_pci_mmio_check(status.st_size, n, ident);
    }
    return errno == ENOENT ? 0 : -1;
}

// Maps BAR n if it is memory; false, with errno, on failure.
bool map_bar(void *&address, size_t &length, int n, const sysfs_pci_identity_t *ident)
{
    unique_fd fd;
    const off_t size = sysfs_pci_mmio_size(&fd, n, ident);
    if (size <= 0)
        return size == 0;
    if (!std::in_range<size_t>(size)) {
        address = MAP_FAILED;
        return fail(false, ENOMEM);
    }
    length = static_cast<size_t>(size);
    address = ::mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
    return address != MAP_FAILED;
}

} // namespace

int sysfs_pci_mmap(void **resource, uint32_t umask, const sysfs_pci_identity_t *pci_ident)
{
    size_t length[bar_count] = {};
    std::fill_n(resource, bar_count, nullptr);
    for (int n = 0; n < bar_count; ++n) {
        if (umask >> n & 1 || map_bar(resource[n], length[n], n, pci_ident))
            continue;
        const errno_guard keep;
        while (--n >= 0)
            if (length[n])
                ::munmap(resource[n], length[n]);
        return -1;
    }
    return 0;
}

void sysfs_pci_munmap(void **resource, const sysfs_pci_identity_t *pci_ident)
{
    for (int n = 0; n < bar_count; ++n) {
        if (!resource[n])
            continue;
        const off_t size = sysfs_pci_mmio_size(nullptr, n, pci_ident);
        if (size > 0 && std::in_range<size_t>(size))
            ::munmap(resource[n], static_cast<size_t>(size));
        resource[n] = nullptr;
    }
}

// Registers of a PCI function's configuration space, through its sysfs file "config".
#include <device_access/pci_config.h>

#include "lib/base/errno_guard.h"
#include "lib/base/errors.h"
#include "lib/base/unique_fd.h"

#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

using namespace device_access;

namespace
{

void *pci_config_fd_to_handle(int fd)
{
    return reinterpret_cast<void *>(static_cast<intptr_t>(fd));
}

int pci_config_handle_to_fd(void *handle)
{
    return static_cast<int>(reinterpret_cast<intptr_t>(handle));
}

// Whether an access may be made; its result, if not, is -1.
bool is_valid_access(uint32_t offset, size_t count, int fd)
{
    if (offset % count == 0 && fd >= 1)
        return true;
    return fail(false, EINVAL);
}

int access_result(ssize_t moved, size_t count)
{
    if (moved < 0 || static_cast<size_t>(moved) != count)
        return -1;
    errno = 0;
    return 0;
}

int pci_config_write(const void *val, uint32_t offset, size_t count, void *handle)
{
    const int fd = pci_config_handle_to_fd(handle);
    if (!is_valid_access(offset, count, fd))
        return -1;
    return access_result(::pwrite(fd, val, count, off_t{offset}), count);
}

int pci_config_read(void *val, uint32_t offset, size_t count, void *handle)
{
    const int fd = pci_config_handle_to_fd(handle);
    if (!is_valid_access(offset, count, fd))
        return -1;
    return access_result(::pread(fd, val, count, off_t{offset}), count);
}

template <typename T>
uint32_t read_register(uint32_t offset, void *handle)
{
    T value;
    return pci_config_read(&value, offset, sizeof value, handle) == 0 ? value : 0xffffffff;
}

template <typename T>
int change_register(T clear, T set, uint32_t offset, void *handle)
{
    T value;
    if (pci_config_read(&value, offset, sizeof value, handle) != 0)
        return -1;
    value = static_cast<T>((value & ~clear) | set);
    return pci_config_write(&value, offset, sizeof value, handle);
}

} // namespace

void *pci_config_open(const sysfs_pci_identity_t *pci_ident)
{
    unique_fd fd(sysfs_pci_open("config", O_RDWR, pci_ident));
    // A process without standard input may be given descriptor 0, which no handle can carry.
    if (fd.get() == 0)
        fd.reset(::fcntl(0, F_DUPFD, 1));
    return fd ? pci_config_fd_to_handle(fd.release()) : nullptr;
}

void pci_config_close(void *handle)
{
    const int fd = pci_config_handle_to_fd(handle);
    if (fd <= 0) {
        errno = EINVAL;
        return;
    }
    const errno_guard keep;
    ::close(fd);
}

int pci_config_write8(uint8_t val, uint32_t offset, void *handle)
{
    return pci_config_write(&val, offset, sizeof val, handle);
}

int pci_config_write16(uint16_t val, uint32_t offset, void *handle)
{
    return pci_config_write(&val, offset, sizeof val, handle);
}

int pci_config_write32(uint32_t val, uint32_t offset, void *handle)
{
    return pci_config_write(&val, offset, sizeof val, handle);
}

uint32_t pci_config_read8(uint32_t offset, void *handle)
{
    return read_register<uint8_t>(offset, handle);
}

uint32_t pci_config_read16(uint32_t offset, void *handle)
{
    return read_register<uint16_t>(offset, handle);
}

uint32_t pci_config_read32(uint32_t offset, void *handle)
{
    return read_register<uint32_t>(offset, handle);
}

int pci_config_bitset8(uint8_t mask, uint32_t offset, void *handle)
{
    return change_register<uint8_t>(0, mask, offset, handle);
}

int pci_config_bitset16(uint16_t mask, uint32_t offset, void *handle)
{
    return change_register<uint16_t>(0, mask, offset, handle);
}

int pci_config_bitset32(uint32_t mask, uint32_t offset, void *handle)
{
    return change_register<uint32_t>(0, mask, offset, handle);
}

int pci_config_bitclr8(uint8_t mask, uint32_t offset, void *handle)
{
    return change_register<uint8_t>(mask, 0, offset, handle);
}

int pci_config_bitclr16(uint16_t mask, uint32_t offset, void *handle)
{
    return change_register<uint16_t>(mask, 0, offset, handle);
}

int pci_config_bitclr32(uint32_t mask, uint32_t offset, void *handle)
{
    return change_register<uint32_t>(mask, 0, offset, handle);
}

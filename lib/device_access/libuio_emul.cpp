#include <device_access/libuio_emul.h>

#include <cerrno>
#include <cstring>

uint32_t libuio_is_emul(const char *name)
{
    return std::strncmp(name, "sysfs_pci:", 10) == 0;
}

libuio_dev_t *libuio_emul_open_timed(const char *, const struct timespec *)
{
    errno = EINVAL;
    return nullptr;
}

int libuio_emul_mmap(libuio_dev_t *, uint64_t)
{
    errno = EINVAL;
    return -1;
}

int libuio_emul_device_enable(libuio_dev_t *, int32_t)
{
    errno = EINVAL;
    return -1;
}

// Writes attribute files of a PCI function, a text or a number.
#include <device_access/pci_sysfs.h>

#include "lib/base/errors.h"
#include "lib/base/unique_fd.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

using namespace device_access;

namespace
{

// The text of one number to be written.
struct sysfs_pci_xbuf_s {
    char str[20];
};
using sysfs_pci_xbuf_t = sysfs_pci_xbuf_s;

const char *numeric_to_str(sysfs_pci_xbuf_t &xbuf, int64_t value)
{
    const auto pattern = static_cast<unsigned long long>(value);
    if (pattern <= 9)
        std::snprintf(xbuf.str, sizeof xbuf.str, "%c\n", '0' + static_cast<int>(pattern));
    else
        std::snprintf(xbuf.str, sizeof xbuf.str, "0x%llx\n", pattern);
    return xbuf.str;
}

} // namespace

int sysfs_pci_fstore(const char *attr_value, int fd)
{
    if (!attr_value || !attr_value[0])
        return fail(-1, EINVAL);
    const size_t length = std::strlen(attr_value);
    const ssize_t written = ::pwrite(fd, attr_value, length, 0);
    return written >= 0 && static_cast<size_t>(written) == length ? 0 : -1;
}

int sysfs_pci_store(const char *attr_value, const char *attr_name,
                    const sysfs_pci_identity_t *pci_ident)
{
    const unique_fd fd(sysfs_pci_open(attr_name, O_WRONLY | O_CLOEXEC, pci_ident));
    return fd ? sysfs_pci_fstore(attr_value, fd.get()) : -1;
}

int sysfs_pci_fstore_num(int64_t value, int fd)
{
    sysfs_pci_xbuf_t xbuf;
    return sysfs_pci_fstore(numeric_to_str(xbuf, value), fd);
}

int sysfs_pci_store_num(int64_t value, const char *attr_name, const sysfs_pci_identity_t *pci_ident)
{
    sysfs_pci_xbuf_t xbuf;
    return sysfs_pci_store(numeric_to_str(xbuf, value), attr_name, pci_ident);
}

// Paths of a PCI function's attribute files; tests and opens them.
#include <device_access/pci_sysfs.h>

#include "lib/base/errors.h"
#include "lib/base/pci_root.h"
#include "lib/base/unique_malloc.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

using namespace device_access;

namespace
{

constexpr char empty_str[] = "";

unique_malloc<char> attribute_path(const char *attr_name, const sysfs_pci_identity_t *pci_ident)
{
    if (!attr_name || !attr_name[0])
        return fail(nullptr, EINVAL);
    return unique_malloc<char>(sysfs_pci_abspath(nullptr, 0, attr_name, pci_ident));
}

} // namespace

char *sysfs_pci_abspath(char *path, size_t max, const char *attr_name,
                        const sysfs_pci_identity_t *pci_ident)
{
    if (!pci_ident)
        return fail(nullptr, -EINVAL); // the sign has always been there, and callers know it
    const char *separator = attr_name ? "/" : empty_str;
    if (!attr_name)
        attr_name = empty_str;

    unique_malloc<char> block;
    size_t limit = max;
    if (!path) {
        limit = std::strlen(attr_name) + 103;
        block = allocate_text(limit, max);
        if (!block)
            return nullptr;
        path = block.get();
    }
    const int length =
        std::snprintf(path, limit, "%s/%.*s%s%s", pci_root, static_cast<int>(sizeof pci_ident->str),
                      pci_ident->str, separator, attr_name);
    if (length < 0 || static_cast<size_t>(length) >= limit)
        return fail(nullptr, ENAMETOOLONG);
    static_cast<void>(block.release());
    return path;
}

int sysfs_pci_access(const char *attr_name, int access_mode, const sysfs_pci_identity_t *pci_ident)
{
    const unique_malloc<char> path = attribute_path(attr_name, pci_ident);
    return path ? ::access(path.get(), access_mode) : -1;
}

int sysfs_pci_open(const char *attr_name, int open_flags, const sysfs_pci_identity_t *pci_ident)
{
    const unique_malloc<char> path = attribute_path(attr_name, pci_ident);
    return path ? ::open(path.get(), open_flags) : -1;
}

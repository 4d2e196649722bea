// Lists of the identities of PCI functions: all, or those below a bridge.
#include <device_access/pci_sysfs.h>

#include "lib/base/dir_list.h"
#include "lib/base/errors.h"
#include "lib/base/pci_root.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

using namespace device_access;

namespace
{

// Whether a name is an identity, "dddd:bb:ss.f".
int sysfs_pci_list_filter(const dirent *entry)
{
    static constexpr char shape[] = "xxxx:xx:xx.7";
    const char *name = entry->d_name;
    if (std::strlen(name) != sizeof shape - 1)
        return 0;
    for (size_t i = 0; shape[i]; ++i) {
        const bool fits = shape[i] == 'x' ? std::isxdigit(static_cast<unsigned char>(name[i])) != 0
                          : shape[i] == '7' ? name[i] >= '0' && name[i] <= '7'
                                            : name[i] == shape[i];
        if (!fits)
            return 0;
    }
    return 1;
}

sysfs_pci_identity_t *sysfs_pci_make_list(const char *abspath)
{
    const dir_list entries(abspath, sysfs_pci_list_filter);
    if (entries.count() < 0)
        return nullptr;
    // One more than there are: the all-zero end.
    auto *list = static_cast<sysfs_pci_identity_t *>(
        std::calloc(static_cast<size_t>(entries.count()) + 1, sizeof(sysfs_pci_identity_t)));
    if (!list)
        return fail(nullptr, ENOMEM);
    for (int i = 0; i < entries.count(); ++i)
        std::memcpy(list[i].str, entries.name(i), sizeof list[i].str - 1);
    return list;
}

} // namespace

sysfs_pci_identity_t *sysfs_pci_list(void)
{
    return sysfs_pci_make_list(pci_root);
}

sysfs_pci_identity_t *sysfs_pci_children_list(const sysfs_pci_identity_t *pci_ident)
{
    char path[34]; // the directory of an identity and its terminator
    if (!sysfs_pci_abspath(path, sizeof path, nullptr, pci_ident))
        return nullptr;
    return sysfs_pci_make_list(path);
}

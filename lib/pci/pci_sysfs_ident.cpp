// The numbers in the identity of a PCI function.
#include <device_access/pci_sysfs.h>

#include <algorithm>
#include <cctype>

static_assert(sizeof(sysfs_pci_identity_t) == 16);

namespace
{

int character_value(char character)
{
    const int lower = std::tolower(static_cast<unsigned char>(character));
    const int digit = lower - '0';
    return digit >= 0 && digit <= 9 ? digit : lower - 107;
}

} // namespace

int sysfs_pci_identity_atox(int s, int e, const sysfs_pci_identity_t *ident)
{
    if (!ident)
        return 0;
    const int end = std::min(e, static_cast<int>(sizeof ident->str));
    unsigned int result = 0; // unsigned, so that a long range wraps around
    for (int i = std::max(s, 0); i < end; ++i)
        result = result * 16 + static_cast<unsigned int>(character_value(ident->str[i]));
    return static_cast<int>(result);
}

int sysfs_pci_identity_domain(const sysfs_pci_identity_t *ident)
{
    return sysfs_pci_identity_atox(0, 4, ident);
}

int sysfs_pci_identity_bus(const sysfs_pci_identity_t *ident)
{
    return sysfs_pci_identity_atox(5, 7, ident);
}

int sysfs_pci_identity_slot(const sysfs_pci_identity_t *ident)
{
    return sysfs_pci_identity_atox(8, 10, ident);
}

int sysfs_pci_identity_function(const sysfs_pci_identity_t *ident)
{
    return sysfs_pci_identity_atox(11, 12, ident);
}

int sysfs_pci_identity_devfn(const sysfs_pci_identity_t *ident)
{
    return ((sysfs_pci_identity_slot(ident) * 8) & 0xff) | (sysfs_pci_identity_function(ident) & 7);
}

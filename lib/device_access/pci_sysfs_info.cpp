#include <device_access/pci_sysfs.h>

#include <cstring>

namespace
{

uint16_t sysfs_pci_info_get16(const char *attr_name, const sysfs_pci_identity_t *pci_ident)
{
    int64_t value;
    if (sysfs_pci_show_nums(&value, 1, attr_name, pci_ident) == 1 && value < 0x10000)
        return static_cast<uint16_t>(value);
    return 0xffff;
}

} // namespace

int sysfs_pci_dev_fill(com_pci_dev_t *pci_dev, const sysfs_pci_identity_t *pci_ident)
{
    std::memset(pci_dev, 0, sizeof *pci_dev);
    pci_dev->vendor = sysfs_pci_info_get16("vendor", pci_ident);
    pci_dev->device = sysfs_pci_info_get16("device", pci_ident);
    pci_dev->subsystem_vendor = sysfs_pci_info_get16("subsystem_vendor", pci_ident);
    pci_dev->subsystem_device = sysfs_pci_info_get16("subsystem_device", pci_ident);
    pci_dev->devfn = static_cast<uint8_t>(sysfs_pci_identity_devfn(pci_ident));
    sysfs_pci_abspath(pci_dev->sys_fs, sizeof pci_dev->sys_fs, nullptr, pci_ident);
    return 0;
}

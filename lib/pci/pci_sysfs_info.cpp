// The record of one PCI function.
#include <device_access/pci_sysfs.h>

#include "lib/pci/device_directory.h"

#include <cstring>

using namespace device_access;

namespace
{

constexpr uint16_t unknown = 0xffff;

uint16_t sysfs_pci_info_get16(const char *attr_name, device_directory &dir)
{
    const unique_fd file = dir.open_attribute(attr_name);
    int64_t value;
    if (file && sysfs_pci_fshow_nums(&value, 1, file.get()) == 1 && value <= unknown)
        return static_cast<uint16_t>(value);
    return unknown;
}

} // namespace

int sysfs_pci_dev_fill(com_pci_dev_t *pci_dev, const sysfs_pci_identity_t *pci_ident)
{
    std::memset(pci_dev, 0, sizeof *pci_dev);
    pci_dev->vendor = pci_dev->device = unknown;
    pci_dev->subsystem_vendor = pci_dev->subsystem_device = unknown;
    if (sysfs_pci_abspath(pci_dev->sys_fs, sizeof pci_dev->sys_fs, nullptr, pci_ident)) {
        device_directory dir(pci_dev->sys_fs);
        pci_dev->vendor = sysfs_pci_info_get16("vendor", dir);
        pci_dev->device = sysfs_pci_info_get16("device", dir);
        pci_dev->subsystem_vendor = sysfs_pci_info_get16("subsystem_vendor", dir);
        pci_dev->subsystem_device = sysfs_pci_info_get16("subsystem_device", dir);
    }
    pci_dev->devfn = static_cast<uint8_t>(sysfs_pci_identity_devfn(pci_ident));
    return 0;
}

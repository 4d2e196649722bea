// PCI functions named on the command line.
#pragma once

#include <device_access/pci_sysfs.h>

#include <cstdint>
#include <string>
#include <vector>

namespace devaccess
{

// From "dddd:bb:ss.f"; the domain may be left out, and is then 0.
sysfs_pci_identity_t pci_device(const std::string &text);

struct pci_resource {
    int bar;
    uint64_t base;
    uint64_t size;
    uint64_t flags;
};

// The base address registers in use.
std::vector<pci_resource> pci_resources(const sysfs_pci_identity_t &device);

} // namespace devaccess

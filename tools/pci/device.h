// PCI functions named on the command line.
#pragma once

#include "tools/base/machine_source.h"

#include <device_access/pci_sysfs.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace devaccess
{

inline constexpr char pci_directory[] = "/sys/bus/pci/devices/";
inline constexpr char list_hint[] = "'devaccess pci list' shows the devices";

// From "dddd:bb:ss.f"; the domain may be left out, and is then 0.
std::optional<sysfs_pci_identity_t> parse_pci_device(const std::string &text);
sysfs_pci_identity_t pci_device(const std::string &text);

// Those of a machine, or those right below a bridge of it.
std::vector<sysfs_pci_identity_t> pci_devices(const machine_source &machine,
                                              const sysfs_pci_identity_t *bridge = nullptr);

// Of a function that an archive lacks.
[[noreturn]] void fail_to_find(const std::string &id, const machine_source &machine);

// Names of the slots, by the address of what is in them, "0000:03:00".
std::map<std::string, std::string> physical_slots(const machine_source &machine = this_machine());

// The total of a file with the kernel's counters of errors, "aer_dev_fatal" of a function's.
std::optional<uint64_t> total_errors(const std::string &counters);

struct pci_resource {
    int bar;
    uint64_t base;
    uint64_t size;  // 0: unknown
    uint64_t flags; // the kernel's

    enum : uint64_t { io = 0x100, memory = 0x200, prefetch = 0x2000, memory_64 = 0x100000 };
    std::string kind() const; // "64-bit prefetchable memory"
};

// The base address registers in use.
std::vector<pci_resource> pci_resources(const sysfs_pci_identity_t &device);
std::vector<pci_resource> pci_resources(const sysfs_pci_identity_t &device,
                                        const machine_source &machine);

// Base address registers that a file "resource" of a function's has, and the kernel found no
// address for.
std::vector<int> unassigned_bars(const std::string &resources);

} // namespace devaccess

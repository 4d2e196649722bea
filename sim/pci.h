#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace chassis_sim
{

// A base address register's window: one line of the "resource" file and, when it has a size, a file
// "resourceN" of that many bytes.
struct pci_window {
    uint64_t start = 0;
    uint64_t size = 0;
    uint64_t flags =
        0x40200; // memory, 32 bits (the kernel's IORESOURCE_MEM and its size alignment)
};

struct pci_function {
    std::string id;     // "0000:03:00.0"
    std::string parent; // id of the bridge above; empty: the function is on the root bus
    uint16_t vendor = 0x1d0f;
    uint16_t device = 0x0001;
    uint16_t subsystem_vendor = 0x1d0f;
    uint16_t subsystem_device = 0x0001;
    std::vector<uint8_t> config = std::vector<uint8_t>(256); // ids are filled in when zero
    std::vector<pci_window> windows;                         // BARs 0 to 5
};

// "/sys/bus/pci/devices/ID", the link to the function's directory below /sys/devices. A child's
// directory lies inside its parent's.
std::string pci_link(const std::string &id);

// Builds the sysfs directory of a function as the kernel shows it.
void add_pci(const pci_function &function);

// The function and what is below it leave the bus.
void remove_pci(const std::string &id);

} // namespace chassis_sim

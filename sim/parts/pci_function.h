// A PCI function by its parts, and the functions that every chassis has.
#pragma once

#include "register_map/register_map.h"
#include "sim/parts/config_builder.h"

#include <cstdint>
#include <string>
#include <vector>

namespace chassis_sim
{

// The kernel's resource flags.
inline constexpr uint64_t resource_io = 0x100;
inline constexpr uint64_t resource_prefetch = 0x2000;
inline constexpr uint64_t resource_64_bits = 0x100000;

// A number in a configuration space or a window.
struct register_value {
    uint32_t offset = 0;
    uint32_t value = 0;
    uint32_t width = 4; // in bytes
};

// A base address register's window: one line of the "resource" file and, when it has a size, a file
// "resourceN" of that many bytes.
struct pci_window {
    uint64_t start = 0;
    uint64_t size = 0;
    uint64_t flags =
        0x40200; // memory, 32 bits (the kernel's IORESOURCE_MEM and its size alignment)
    std::vector<register_map::reg> registers = {};
    std::string register_map = {}; // the file of more, until it is read
};

struct pci_function {
    std::string id;     // "0000:03:00.0"
    std::string parent; // id of the bridge above; empty: the function is on the root bus
    uint16_t vendor = 0xf0ca;
    uint16_t device = 0x0001;
    uint16_t subsystem_vendor = 0xf0ca;
    uint16_t subsystem_device = 0x0001;
    uint32_t class_code = 0x058000; // memory controller
    uint8_t header_type = 0;
    uint32_t config_size = 256;
    std::vector<std::string> capabilities = {}; // in their order: "pm", "msi", "pcie"
    pcie_capability pcie = {};
    std::vector<register_value> config_registers = {}; // over what the parts say
    std::vector<pci_window> windows = {};              // BARs 0 to 5
    // The whole configuration space, in place of what the parts make; ids, class and BARs are
    // filled in where it is zero.
    config_space config = {};
};

// The configuration space as the machine shows it.
config_space configuration_of(const pci_function &function);

// What every chassis has: a host bridge, an endpoint without PCI Express, a device with two
// functions, and a root port with a hot-plug slot and a device behind it.
inline constexpr char pci_root_port[] = "0000:00:1c.0";
inline constexpr char pci_slot_device[] = "0000:03:00.0";
std::vector<pci_function> chassis_functions();

} // namespace chassis_sim

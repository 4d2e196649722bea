// The registers and fields of configuration space: one table that decodes, names and compares.
#pragma once

#include <cstdint>
#include <span>

namespace devaccess
{

// A part of a register. Of one bit, without values, it is a flag. Else the values say how to read
// its number: words that count from 0, "fast|medium|slow", or a text around one of
//   %   the number            %+  one more than it     %w  the watts of a power limit
//   %a  the bits in their place, an address or offset
struct pci_field {
    const char *name;
    uint32_t mask;
    const char *values = nullptr;
};

// When a register is there, by what the capability's first register says.
enum class pci_presence : uint8_t {
    always,
    msi_32,
    msi_64,
    msi_mask_32,
    msi_mask_64,
    exp_link,
    exp_slot,
    root,
    exp_version_2,
    exp_slot_2,
};

struct pci_register {
    const char *name;
    uint16_t offset;
    uint8_t width;
    std::span<const pci_field> fields = {};
    pci_presence presence = pci_presence::always;
};

struct pci_capability_kind {
    bool extended;
    uint16_t id;
    const char *name; // "CAP_EXP"
    const char *title;
    std::span<const pci_register> registers = {};
};

// Of the header: of every function, and of those with header types 0 and 1.
extern const std::span<const pci_register> pci_header_registers;
extern const std::span<const pci_register> pci_device_registers;
extern const std::span<const pci_register> pci_bridge_registers;
extern const std::span<const pci_capability_kind> pci_capability_kinds;

} // namespace devaccess

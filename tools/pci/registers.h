// The registers and fields of configuration space: one table that decodes, names and compares.
#pragma once

#include <cstdint>
#include <span>

namespace devaccess
{

// How the bits of a field are read.
enum class field_reading : uint8_t {
    flag,     // one bit
    words,    // a word for each number
    number,   // after a prefix, if there is one
    plus_one, // a number that is one more
    in_place, // an address or offset: the bits where they are
    watts,    // of a power limit
};

struct field_meaning {
    constexpr field_meaning(field_reading read, const char *prefix = "") : how(read), text(prefix)
    {
    }
    // Words, which count from 0: "fast|medium|slow".
    constexpr field_meaning(const char *words) : how(field_reading::words), text(words) {}

    field_reading how;
    const char *text;
};

// A part of a register.
struct pci_field {
    const char *name;
    uint32_t mask;
    field_meaning meaning = field_reading::flag;
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

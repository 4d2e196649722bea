// Configuration spaces, of devices or of what a file has kept of them, and what they mean.
#pragma once

#include "tools/base/output.h"
#include "tools/pci/device.h"
#include "tools/pci/registers.h"

#include <device_access/pci_config.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace devaccess
{

class config_space
{
public:
    // Reading asks for no right to write: without special rights the kernel shows 64 bytes.
    explicit config_space(const sysfs_pci_identity_t &device, bool for_writing = false);
    // What a file has of one, which ends where the largest do.
    config_space(std::string id, std::string bytes);

    const std::string &id() const { return id_; }
    bool is_device() const { return file_ != nullptr; }

    // Nothing when the register cannot be read; errno is then ENODATA when it lies beyond the end.
    std::optional<uint32_t> try_read(uint32_t offset, unsigned width) const;
    uint32_t read(uint32_t offset, unsigned width) const;
    void write(uint32_t offset, unsigned width, uint32_t value) const;

    // As much of it as the kernel shows.
    std::string all_bytes() const;

private:
    [[noreturn]] void fail_on(const char *verb, uint32_t offset, unsigned width) const;

    std::string id_;
    std::string bytes_;
    struct closing {
        void operator()(const int *descriptor) const;
    };
    std::unique_ptr<const int, closing> file_; // nullptr: what a file has kept
    std::unique_ptr<void, decltype(&pci_config_close)> writable_ = {nullptr, pci_config_close};
};

//--- registers ------------------------------------------------------------------------------------

struct register_place {
    std::string name; // empty: it has none
    uint32_t offset;
    unsigned width;
    std::span<const pci_field> fields = {};

    uint32_t highest() const { return ~0u >> (32 - width); }
};

// A capability in one of the two lists.
struct found_capability {
    bool extended;
    uint32_t offset;
    uint32_t id;
    const pci_capability_kind *kind; // nullptr: unknown
    std::vector<register_place> registers;

    std::string name() const;
};

// The lists' entries, until they end or, because one is broken, lead where they have been.
struct capability_list {
    std::vector<found_capability> found;
    bool complete = true;
};
capability_list capabilities_of(const config_space &config);

std::vector<register_place> header_registers(const config_space &config);

// The register of a header that this text names, or in a capability: "0x10", "COMMAND",
// "EXP_LNKSTA", "CAP_EXP+0x12". A width of 0 is that of the name, or 32.
register_place find_register(const config_space &config, const std::string &text, unsigned width);
std::vector<std::string> register_names();

// The base address registers in use, whose sizes only the device knows.
std::vector<pci_resource> config_resources(const config_space &config);

// For programs, and for people: "Speed=8GT/s, Width=x4, Train-".
field_value fields_of(const register_place &place, uint32_t value);
std::string fields_as_text(const register_place &place, uint32_t value);

// The register with what it holds; where it is written, with what it held, if known.
record register_row(const register_place &place, uint32_t value);
record written_row(const register_place &place, std::optional<uint32_t> before, uint32_t value);

} // namespace devaccess

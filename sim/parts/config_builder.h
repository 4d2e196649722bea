// The bytes of a PCI function's configuration space.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace chassis_sim
{

using config_space = std::vector<uint8_t>;

// Where a configuration space has its registers.
inline constexpr size_t status_register = 0x06;
inline constexpr size_t header_type_register = 0x0e;
inline constexpr size_t first_bar_register = 0x10;
inline constexpr size_t bus_registers = 0x18; // primary, secondary and subordinate
inline constexpr size_t capability_pointer = 0x34;
inline constexpr size_t link_capability_register = 0x0c; // of the PCI Express capability
inline constexpr size_t link_status_register = 0x12;

// The PCI Express capability of a port or a device.
struct pcie_capability {
    enum : uint16_t {
        endpoint = 0x0,
        root_port = 0x4,
        downstream_port = 0x6,
        // Link status: width and speed are those of a link of four lanes at 2.5 GT/s.
        link_up = 0x2041,       // active
        link_training = 0x0841, // not active yet
        link_down = 0x0001,
    };
    uint16_t type = endpoint;
    bool slot = false;
    bool hotplug = false;
    bool reports_active = true; // whether the port can tell that its data link is active
    uint16_t link_status = link_up;
};

// Builds a configuration space, 256 or 4096 bytes in the standard layout. The ids and the base
// address registers come from the function that it is given to.
class config_builder
{
public:
    explicit config_builder(uint8_t header_type = 0, size_t size = 256);

    config_builder &put8(size_t offset, uint8_t value);
    config_builder &put16(size_t offset, uint16_t value);
    config_builder &put32(size_t offset, uint32_t value);

    // Append an entry to the capability list and return its offset. The first is at 0x40.
    uint8_t capability(uint8_t id, size_t size);
    uint8_t power_management();
    uint8_t msi();
    uint8_t pcie(const pcie_capability &description);

    const config_space &bytes() const { return bytes_; }

private:
    config_space bytes_;
    size_t link_;        // the byte that will point to the next entry
    size_t next_ = 0x40; // where that will be
};

bool is_bridge(const config_space &config);

// Where the PCI Express capability is; 0: there is none.
size_t pcie_position(const config_space &config);

} // namespace chassis_sim

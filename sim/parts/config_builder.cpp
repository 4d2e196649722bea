// Lays out a configuration space: its header, and its list of capabilities.
#include "sim/parts/config_builder.h"

namespace chassis_sim
{

config_builder::config_builder(uint8_t header_type, size_t size)
    : bytes_(size), link_((header_type & 0x7f) == 2 ? 0x14 : 0x34)
{
    put8(header_type_register, header_type);
}

config_builder &config_builder::put8(size_t offset, uint8_t value)
{
    bytes_.at(offset) = value;
    return *this;
}

config_builder &config_builder::put16(size_t offset, uint16_t value)
{
    return put8(offset, static_cast<uint8_t>(value))
        .put8(offset + 1, static_cast<uint8_t>(value >> 8));
}

config_builder &config_builder::put32(size_t offset, uint32_t value)
{
    return put16(offset, static_cast<uint16_t>(value))
        .put16(offset + 2, static_cast<uint16_t>(value >> 16));
}

uint8_t config_builder::capability(uint8_t id, size_t size)
{
    const auto offset = static_cast<uint8_t>(next_);
    put8(status_register, 0x10); // there is a list
    put8(link_, offset);
    put8(offset, id);
    link_ = next_ + 1;
    next_ += (size + 3) / 4 * 4;
    return offset;
}

uint8_t config_builder::power_management()
{
    const uint8_t offset = capability(0x01, 8);
    put16(offset + 2u, 0x0003); // version 1.2
    return offset;
}

uint8_t config_builder::msi()
{
    const uint8_t offset = capability(0x05, 14);
    put16(offset + 2u, 0x0080); // 64-bit addresses
    return offset;
}

uint8_t config_builder::pcie(const pcie_capability &description)
{
    const uint8_t offset = capability(0x10, 0x3c);
    put16(offset + 0x02u,
          static_cast<uint16_t>(0x0002 | description.type << 4 | (description.slot ? 0x100 : 0)));
    put32(offset + 0x0cu, 0x41u | (description.reports_active ? 0x100000u : 0));
    put16(offset + link_status_register, description.link_status);
    put32(offset + 0x14u, description.hotplug ? 0x40 : 0);
    return offset;
}

bool is_bridge(const config_space &config)
{
    return config.size() > header_type_register && (config[header_type_register] & 0x7f) == 1;
}

size_t pcie_position(const config_space &config)
{
    size_t position = config.size() < 256 ? 0 : config[capability_pointer];
    for (int i = 0; i < 48 && position >= 0x40 && position + link_status_register < 256; ++i) {
        if (config[position] == 0x10)
            return position;
        position = config[position + 1];
    }
    return 0;
}

} // namespace chassis_sim

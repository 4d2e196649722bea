// Makes a function's configuration space of its parts.
#include "sim/parts/pci_function.h"

#include "sim/base/failure.h"

#include <algorithm>

namespace chassis_sim
{
namespace
{

uint32_t bar_register(const pci_window &window)
{
    const auto start = static_cast<uint32_t>(window.start);
    if (window.flags & resource_io)
        return start | 0x1;
    return start | (window.flags & resource_64_bits ? 0x4u : 0) |
           (window.flags & resource_prefetch ? 0x8u : 0);
}

config_space built_config(const pci_function &function)
{
    config_builder config(function.header_type, function.config_size);
    for (const std::string &capability : function.capabilities) {
        if (capability == "pm")
            config.power_management();
        else if (capability == "msi")
            config.msi();
        else if (capability == "pcie")
            config.pcie(function.pcie);
        else
            throw failure("there is no capability '" + capability + "'");
    }
    for (const register_value &change : function.config_registers)
        for (uint32_t i = 0; i < std::min(change.width, 4u); ++i)
            config.put8(size_t{change.offset} + i, static_cast<uint8_t>(change.value >> 8 * i));
    return config.bytes();
}

} // namespace

config_space configuration_of(const pci_function &function)
{
    config_space config = function.config.empty() ? built_config(function) : function.config;
    const auto fill = [&config](size_t offset, uint32_t value, size_t width) {
        if (config.size() < offset + width ||
            std::any_of(&config[offset], &config[offset] + width, [](int byte) { return byte; }))
            return;
        for (size_t i = 0; i < width; ++i)
            config[offset + i] = static_cast<uint8_t>(value >> 8 * i);
    };
    fill(0x00, function.vendor, 2);
    fill(0x02, function.device, 2);
    fill(0x09, function.class_code, 3);
    for (size_t bar = 0; bar < std::min<size_t>(function.windows.size(), 6); ++bar)
        if (function.windows[bar].size != 0)
            fill(first_bar_register + 4 * bar, bar_register(function.windows[bar]), 4);
    if (!is_bridge(config)) {
        fill(0x2c, function.subsystem_vendor, 2);
        fill(0x2e, function.subsystem_device, 2);
    }
    return config;
}

std::vector<pci_function> chassis_functions()
{
    pci_function host, endpoint, first, second, port, card;
    host.id = "0000:00:00.0";
    host.class_code = 0x060000;

    endpoint.id = "0000:00:19.0";
    endpoint.device = 0x0002;
    endpoint.class_code = 0x020000;
    endpoint.capabilities = {"pm", "msi"};
    endpoint.windows = {{0xf1000000, 0x20000}};

    first.id = "0000:00:1f.0";
    first.device = 0x0003;
    first.class_code = 0x060100;
    first.header_type = 0x80;
    first.capabilities = {"pm"};
    second = first;
    second.id = "0000:00:1f.3";
    second.device = 0x0004;
    second.class_code = 0x0c0500;

    port.id = pci_root_port;
    port.device = 0x0010;
    port.class_code = 0x060400;
    port.header_type = 1;
    port.config_size = 4096;
    port.capabilities = {"pm", "pcie"};
    port.pcie.type = pcie_capability::root_port;
    port.pcie.slot = port.pcie.hotplug = true;

    card.id = pci_slot_device;
    card.parent = pci_root_port;
    card.device = 0x0020;
    card.config_size = 4096;
    card.capabilities = {"pm", "msi", "pcie"};
    card.windows = {
        {0xf0000000, 0x10000}, {0x2000, 0x100, 0x40101}, {0x4'0000'0000, 0x100000, 0x14220c}};
    return {host, endpoint, first, second, port, card};
}

} // namespace chassis_sim

// Lists the PCI functions of the machine: ids, class, hot-plug slots, capabilities. Reads only.
#include <device_access/device_access.hpp>

#include <cstdio>

namespace
{

using device_access::pci_config;

// The entries in their order; a list that is longer than 48 runs in a circle.
void print_capabilities(const pci_config &config)
{
    constexpr uint16_t has_list = 0x10; // of the status register
    if ((config.read<uint16_t>(0x06).value_or(0) & has_list) == 0)
        return;
    uint32_t at = config.read<uint8_t>(0x34).value_or(0) & 0xfc;
    for (int left = 48; at != 0 && left > 0; --left) {
        const auto entry = config.read<uint16_t>(at);
        if (!entry)
            return;
        std::printf("  [%02x] capability 0x%02x\n", at, *entry & 0xff);
        at = *entry >> 8 & 0xfc;
    }
}

void print(const device_access::pci_id &function)
{
    com_pci_dev_t ids;
    sysfs_pci_dev_fill(&ids, &function);
    std::printf("%s  %04x:%04x", function.str, ids.vendor, ids.device);
    const auto config = pci_config::open(function);
    if (!config) {
        std::printf("  %s: %s\n", config.error().call, config.error().reason());
        return;
    }
    std::printf("  class %06x%s\n", config->read<uint32_t>(0x08).value_or(0) >> 8,
                config->has_hotplug_slot() ? ", hot-plug slot" : "");
    print_capabilities(*config);
}

} // namespace

int main()
{
    const auto functions = device_access::pci_functions::all();
    if (!functions) {
        std::fprintf(stderr, "%s: %s\n", functions.error().call, functions.error().reason());
        return 1;
    }
    for (const device_access::pci_id &function : *functions)
        print(function);
}

// Lists the PCI functions of the machine: ids, class, hot-plug slots, capabilities. Reads only.
#include <device_access/device_access.hpp>

#include <cstdio>

namespace
{

void print(const device_access::pci_id &function)
{
    com_pci_dev_t ids;
    sysfs_pci_dev_fill(&ids, &function);
    std::printf("%s  %04x:%04x", function.str, ids.vendor, ids.device);
    const auto config = device_access::pci_config::open(function);
    if (!config) {
        std::printf("  %s: %s\n", config.error().call, config.error().reason());
        return;
    }
    std::printf("  class %06x%s\n", config->read<uint32_t>(0x08).value_or(0) >> 8,
                config->has_hotplug_slot() ? ", hot-plug slot" : "");
    device_access::capabilities list(*config);
    for (const auto [id, offset] : list)
        std::printf("  [%02x] capability 0x%02x\n", offset, id);
    if (list.failed())
        std::printf("  the rest cannot be read\n");
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

// Lists the PCI functions of the machine: ids, class, hot-plug slots, capabilities. Reads only.
#include <device_access/pci_config.hpp>

#include <cstdio>

namespace
{

using namespace device_access;

int fail(const failure &failed)
{
    std::fprintf(stderr, "%s: %s\n", failed.call, failed.reason());
    return 1;
}

void print(const pci_id &function)
{
    const com_pci_dev_t ids = pci_device_ids(function);
    std::printf("%s  %04x:%04x", function.str, ids.vendor, ids.device);
    const auto config = pci_config::open(function);
    if (!config) {
        std::printf("  %s: %s\n", config.error().call, config.error().reason());
        return;
    }
    std::printf("  class %06x%s\n", config->read<uint32_t>(0x08).value_or(0) >> 8,
                config->has_hotplug_slot() ? ", hot-plug slot" : "");
    const pci_capabilities list = config->capabilities();
    for (const auto &[id, offset] : list)
        std::printf("  [%02x] capability 0x%02x\n", offset, id);
    if (list.failed())
        std::printf("  the rest cannot be read\n");
}

} // namespace

int main()
{
    const auto functions = pci_functions::all();
    if (!functions)
        return fail(functions.error());
    for (const pci_id &function : *functions)
        print(function);
}

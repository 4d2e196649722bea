// Brings up what is behind a hot-plug port: finds the port, waits for its link, and maps and uses
// the memory of the devices behind it.
#include <device_access/device_access.hpp>

#include <algorithm>
#include <cstdio>

namespace
{

using namespace device_access;

bool has_slot(const pci_id &function)
{
    const auto config = pci_config::open(function);
    return config && config->has_hotplug_slot();
}

void use(const pci_id &device)
{
    std::printf("behind it: %s\n", device.str);
    if (sysfs_pci_store_num(1, "enable", &device) != 0)
        std::perror("  cannot be enabled");
    const auto memory = pci_memory::map(device);
    if (!memory)
        return std::perror("  cannot be mapped");
    for (unsigned number = 0; number < pci_memory::bars; ++number) {
        const auto registers = memory->bar(number);
        if (!registers)
            continue;
        registers->write<uint32_t>(0, 0xc0ffee00u + number);
        std::printf("  BAR %u, %zu bytes; its first register reads 0x%x\n", number,
                    registers->size(), registers->read<uint32_t>(0));
    }
}

} // namespace

int main()
{
    const auto functions = pci_functions::all();
    if (!functions) {
        std::perror("no functions");
        return 1;
    }
    const pci_id *const port = std::find_if(functions->begin(), functions->end(), has_slot);
    if (port == functions->end()) {
        std::fprintf(stderr, "no port with a hot-plug slot\n");
        return 1;
    }
    if (const int link = pcie_config_wait_link_up(port); link != 0) {
        std::fprintf(stderr, "the link of %s is not up: %s\n", port->str,
                     pcie_config_link_strerror(link < 0 ? errno : link));
        return 1;
    }
    const auto children = pci_functions::below(*port);
    if (children)
        for (const pci_id &device : *children)
            use(device);
}

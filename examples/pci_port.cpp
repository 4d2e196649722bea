// Brings up what is behind a hot-plug port: finds the port, waits for its link, and maps and uses
// the memory of the devices behind it.
#include <device_access/pci_config.hpp>

#include <algorithm>
#include <cstdio>

namespace
{

using namespace device_access;
using namespace std::chrono_literals;

int fail(const failure &failed)
{
    std::fprintf(stderr, "%s: %s\n", failed.call, failed.reason());
    return 1;
}

bool has_slot(const pci_id &function)
{
    const auto config = pci_config::open(function);
    return config && config->has_hotplug_slot();
}

void use(const pci_id &device)
{
    std::printf("below it: %s\n", device.str);
    const auto memory = pci_attributes(device).write_number("enable", 1).and_then([&] {
        return pci_memory::map(device);
    });
    if (!memory) {
        fail(memory.error());
        return;
    }
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
    if (!functions)
        return fail(functions.error());
    const auto port = std::ranges::find_if(*functions, has_slot);
    if (port == functions->end()) {
        std::fprintf(stderr, "no port with a hot-plug slot\n");
        return 1;
    }
    if (const auto link = wait_link_up_for(*port, 500ms); !link) {
        std::fprintf(stderr, "the link of %s is not up: %s\n", port->str,
                     link_reason(link.error()));
        return 1;
    }
    const auto children = pci_functions::below(*port);
    if (!children)
        return fail(children.error());
    std::ranges::for_each(*children, use);
}

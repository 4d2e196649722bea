#include "sim/chassis.h"

#include <chrono>
#include <cstdio>
#include <functional>
#include <thread>

namespace chassis_sim
{
namespace
{

// A register block with three windows: two pages, and, behind the number that the longer one takes,
// a third.
uio_description register_block(const chassis_description &description)
{
    uio_description block;
    block.maps = {{"map0", "0x0000000000001000\n"},
                  {"map1", "0x0000000000002000\n"},
                  {"map3", "0x0000000000001000\n"}};
    block.plugged = description.uio_appears_ms == 0;
    block.irq_delay_ms = description.uio_irq_delay_ms;
    return block;
}

// The NVRAM blocks. They are searched from nvram0 on until a number is missing, so their numbers
// leave no gap.
void add_nvram_blocks(device_server &devices, const chassis_description &description)
{
    nvram_description pod;
    pod.contents = description.pod.nvram;
    if (description.nvram_truncated)
        pod.unreachable = pod.contents.size() / 2;
    add_nvram(devices, pod);
    add_post_logs(devices, description.post, 1);
}

void add_further_pci_devices(unsigned int count)
{
    constexpr unsigned int first_bus = 0x20;
    constexpr unsigned int slots = 32;
    config_builder config;
    config.power_management();
    config.msi();
    for (unsigned int i = 0; i < count; ++i) {
        char id[32];
        std::snprintf(id, sizeof id, "0000:%02x:%02x.0", first_bus + i / slots, i % slots);
        pci_function device;
        device.id = id;
        device.device = 0x0040;
        device.config = config.bytes();
        device.windows = {{0xa0000000 + uint64_t{i} * 0x1000, 0x1000}};
        add_pci(device);
    }
}

void schedule(int after_ms, const std::function<void()> &work)
{
    background([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(after_ms));
        work();
    });
}

void build_tree(const chassis_description &description)
{
    make_directory("/var/log");
    for (const file_image &file : description.pod.files)
        write_file(file.path, file.contents, 0666);
    add_chassis_pci(description.link_trains_ms == 0 ? pcie_capability::link_up
                                                    : pcie_capability::link_training);
    add_further_pci_devices(description.pci_devices);
    add_chassis_hotswap(description.behind_bridge_ms);
}

void schedule_events(const chassis_description &description)
{
    if (description.uio_appears_ms > 0)
        schedule(description.uio_appears_ms, [] { control("plug uio0"); });
    if (description.uio_removed_ms >= 0)
        schedule(description.uio_removed_ms, [] { control("remove uio0"); });
    if (description.link_trains_ms > 0)
        schedule(description.link_trains_ms, [] { set_root_port_link(pcie_capability::link_up); });
}

} // namespace

void build_chassis(const chassis_description &description)
{
    enter_private_root();
    build_tree(description);
    device_server devices;
    add_uio(devices, register_block(description));
    add_nvram_blocks(devices, description);
    devices.start();
    schedule_events(description);
}

} // namespace chassis_sim

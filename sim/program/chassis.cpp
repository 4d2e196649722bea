// Builds a chassis of its parts.
#include "sim/program/chassis.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace chassis_sim
{
namespace
{

namespace fs = std::filesystem;

constexpr size_t largest_image = 16 << 20;

std::string read_image(const fs::path &path)
{
    std::error_code error;
    // Of what is no file, the size may be endless.
    const bool is_image =
        fs::is_regular_file(path, error) && fs::file_size(path, error) <= largest_image;
    std::string bytes = is_image ? file_text(path.string()) : "";
    if (bytes.empty())
        throw failure("cannot read a log image from " + path.string());
    return bytes;
}

pod_logs described_pod_logs(const chassis_description &description)
{
    static const std::map<std::string, chassis_model> models = {
        {"n20", chassis_model::n20}, {"n10", chassis_model::n10}, {"n4", chassis_model::n4}};
    const auto &logs = description.logs;
    if (!models.contains(logs.chassis))
        throw failure("there is no chassis '" + logs.chassis + "'");
    pod_logs made = logs.pod == "empty" ? pod_logs() : sample_pod_logs(models.at(logs.chassis));
    if (logs.pod != "empty" && logs.pod != "sample")
        made.nvram = read_image(logs.pod);
    for (const auto &[card, state] : logs.states) {
        const auto file =
            std::find_if(made.files.begin(), made.files.end(),
                         [&, &card = card](const file_image &f) { return f.card == card; });
        if (card != "RPSW1" && file == made.files.end())
            throw failure("/logs/states/" + card + " is of a card that this chassis has no log of");
        bring_into_state(card == "RPSW1" ? made.nvram : file->contents, card, state);
    }
    return made;
}

std::vector<nvram_image> described_post_logs(const std::string &which)
{
    auto made = images(sample_post_logs());
    for (nvram_image &log : made) {
        if (which == "empty")
            log.contents.assign(log.contents.size(), '\0');
        else if (which != "sample")
            log.contents = read_image(fs::path(which) / log.name);
    }
    return made;
}

// The NVRAM blocks. They are searched from nvram0 on until a number is missing, so their numbers
// leave no gap.
void add_nvram_blocks(device_server &devices, const std::string &pod,
                      const std::vector<nvram_image> &post, uint32_t unreachable)
{
    nvram_description block;
    block.contents = pod;
    block.unreachable = std::min<size_t>(unreachable, pod.size());
    add_nvram(devices, block);
    add_post_logs(devices, post, 1);
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

} // namespace

void write_tree(const chassis_description &description)
{
    make_directory("/var/log");
    for (const auto &eeprom : description.eeproms)
        write_file(eeprom.path, std::string(eeprom.size, '\xff'), 0666);
    for (const pci_function &function : description.functions)
        add_pci(function);
    for (const auto &slot : description.slots)
        add_pci_slot(slot.name, slot.address);
    add_further_pci_devices(description.pci_devices);
    for (const fpga_card &card : description.fpga_cards)
        add_fpga_card(card);
    for (const auto &bridge : description.hotswap_bridges)
        write_hotswap_bridge(bridge.id, bridge.behind);
    replace_modprobe();
}

namespace
{

void add_bars(device_server &devices, const pci_function &function)
{
    for (size_t bar = 0; bar < function.windows.size(); ++bar) {
        const pci_window &window = function.windows[bar];
        if (!window.registers.empty())
            devices.add(bar_node{function.id, bar, window.size, window.registers});
    }
}

void add_devices(device_server &devices, const chassis_description &description,
                 const recorded_trace *trace)
{
    for (uio_description device : description.uio) {
        if (trace && trace->has_device("uio" + std::to_string(device.number)))
            device.irq_delay_ms = -1; // the trace has its interrupts
        add_uio(devices, device);
    }
    for (const pci_function &function : description.functions)
        add_bars(devices, function);
    for (const auto &bridge : description.hotswap_bridges)
        add_bars(devices, bridge.behind);
    for (const memory_range &range : description.memory)
        devices.add(range);
    for (const call_fault &fault : description.faults)
        devices.add(fault);
    for (const timed_line &line : description.timeline)
        devices.add(line);
}

} // namespace

void play_trace(device_server &devices, recorded_trace *trace)
{
    devices.play(trace);
    for (const std::string &window : trace ? trace->windows() : std::set<std::string>()) {
        const size_t dot = window.rfind(".bar");
        const std::string id = window.substr(0, dot);
        const size_t bar =
            dot == window.npos ? 0 : std::strtoul(window.c_str() + dot + 4, nullptr, 10);
        const bool is_known =
            std::any_of(devices.bars().begin(), devices.bars().end(),
                        [&](const bar_node &known) { return known.id == id && known.bar == bar; });
        std::error_code none;
        const auto size = fs::file_size(pci_link(id) + "/resource" + std::to_string(bar), none);
        if (dot != window.npos && !is_known && !none)
            devices.add(bar_node{id, bar, size, {}});
    }
}

uio_description chassis_register_block()
{
    uio_description block;
    block.maps = {{"map0", "0x0000000000001000\n"},
                  {"map1", "0x0000000000002000\n"},
                  {"map3", "0x0000000000001000\n"}};
    block.irq_delay_ms = 100;
    return block;
}

std::vector<pid_t> build_chassis(const chassis_description &description, recorded_trace *trace)
{
    const pod_logs pod = described_pod_logs(description);
    const std::vector<nvram_image> post = described_post_logs(description.logs.post);
    enter_private_root();
    stay_in_root_file_system();
    write_tree(description);
    for (const file_image &file : pod.files)
        write_file(file.path, file.contents, 0666);
    std::vector<pid_t> helpers;
    for (const auto &bridge : description.hotswap_bridges)
        helpers.push_back(run_hotswap_bridge(bridge.id, bridge.behind.id, bridge.appears_ms));
    device_server devices;
    add_devices(devices, description, trace);
    play_trace(devices, trace);
    add_nvram_blocks(devices, pod.nvram, post, description.logs.unreachable);
    helpers.push_back(devices.start());
    return helpers;
}

} // namespace chassis_sim

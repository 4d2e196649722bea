// Writes what the hot-swap drivers show, and does what their attributes ask for.
#include "sim/parts/hotswap.h"

#include "sim/base/files.h"
#include "sim/base/process.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <thread>

#include <fcntl.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace chassis_sim
{
namespace
{

namespace fs = std::filesystem;

void add_bridge(const std::string &id)
{
    pci_function bridge;
    bridge.id = id;
    bridge.config = config_builder(1).bytes();
    bridge.class_code = 0x060400;
    add_pci(bridge);
}

} // namespace

void add_hotswap_name(const std::string &slot, const std::string &address)
{
    const std::string file = "/dev/dynattr/rpsw/hotswap/byname/" + slot;
    write_file(file, "");
    const int result = ::setxattr(file.c_str(), "user.com.velmora.zmt.attr_value", address.data(),
                                  address.size(), 0);
    if (result != 0 && errno == EOPNOTSUPP)
        std::fprintf(stderr,
                     "chassis-sim: no hot-swap name of slot %s: extended attributes in a "
                     "tmpfs take Linux 6.6\n",
                     slot.c_str());
    else
        must(result, "set the extended attribute of " + file);
}

void add_fpga_card(const fpga_card &card)
{
    add_bridge(card.port);
    pci_function fpga;
    fpga.id = card.id;
    fpga.parent = card.port;
    fpga.device = 0x00f0;
    uint64_t start = 0x90000000;
    for (const uint64_t size : card.bar_sizes) {
        fpga.windows.push_back({start, size});
        start += size;
    }
    add_pci(fpga);
    write_window(card.id, 0, {0x28, uint32_t{card.code} << 16 | 0xab0000cd});
    add_hotswap_name(card.slot, card.port);
}

void write_hotswap_bridge(const std::string &id, const pci_function &behind)
{
    add_bridge(id);
    pci_function child = behind;
    child.parent = id;
    add_pci(child);
    unplug_pci(child.id);
    write_file(pci_link(id) + "/bridge_enable", "0\n");
}

pid_t run_hotswap_bridge(const std::string &id, const std::string &behind, int appears_ms)
{
    const std::string attribute = pci_link(id) + "/bridge_enable";
    // Of the ways to see that a file was written, the one of which a user may have any number.
    const owned_fd directory(
        must(::open(pci_link(id).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC), "open " + id));
    sigset_t changes;
    ::sigemptyset(&changes);
    ::sigaddset(&changes, SIGIO);
    sigset_t before;
    ::sigprocmask(SIG_BLOCK, &changes, &before);
    const pid_t pid = background([&] {
        must(::fcntl(directory.get(), F_NOTIFY, DN_MODIFY | DN_MULTISHOT), "watch " + attribute);
        for (bool enabled = false;; ::sigwaitinfo(&changes, nullptr)) {
            if (enabled == (std::ifstream(attribute).get() == '1'))
                continue;
            enabled = !enabled;
            try {
                if (!enabled) {
                    unplug_pci(behind);
                } else if (appears_ms >= 0) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(appears_ms));
                    plug_pci(behind);
                }
            } catch (const std::exception &error) { // somebody has changed the tree
                complain(error.what());
            }
        }
    });
    ::sigprocmask(SIG_SETMASK, &before, nullptr);
    return pid;
}

pid_t add_hotswap_bridge(const std::string &id, const pci_function &behind, int appears_ms)
{
    write_hotswap_bridge(id, behind);
    return run_hotswap_bridge(id, behind.id, appears_ms);
}

fpga_card chassis_fpga_card()
{
    constexpr uint8_t vostra2 = 18;
    return {"alsw1",
            "0000:00:1d.0",
            "0000:05:00.0",
            vostra2,
            {0x40000, 0x80000, 0x80000, 0x200000, 0x8000000}};
}

pci_function chassis_bridge_card()
{
    pci_function card;
    card.id = "0000:06:00.0";
    card.device = 0x0030;
    card.windows = {{0xf2000000, 0x4000}};
    return card;
}

void add_chassis_hotswap(int appears_ms)
{
    add_fpga_card(chassis_fpga_card());
    add_hotswap_bridge(hotswap_bridge, chassis_bridge_card(), appears_ms);
    replace_modprobe();
}

void replace_modprobe(const std::string &ending)
{
    const std::string program = "/sbin/modprobe";
    fs::remove(program); // a link to the machine's own
    write_file(program,
               "#!/bin/sh\n{ printf '[%s]' \"$0\" \"$@\"; echo; } >>" + std::string(modprobe_log) +
                   "\n" + ending + "\n",
               0755);
}

} // namespace chassis_sim

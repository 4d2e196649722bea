// The hot-swap name service, cards with FPGAs, and bridges that are enabled by an attribute.
#pragma once

#include "sim/parts/pci_tree.h"

#include <cstdint>
#include <string>
#include <vector>

#include <sys/types.h>

namespace chassis_sim
{

// The hot-swap name service says that the card in a slot sits behind the port with this PCI
// address, or whatever else the text is.
void add_hotswap_name(const std::string &slot, const std::string &address);

// A card with an FPGA, behind a hot-swap port that serves its slot.
struct fpga_card {
    std::string slot;                // "alsw1"
    std::string port;                // "0000:00:03.0"
    std::string id;                  // "0000:05:00.0", the device behind the port
    uint8_t code = 0;                // what the FPGA says it is
    std::vector<uint64_t> bar_sizes; // of its resources, in bytes, from BAR 0 on
};
void add_fpga_card(const fpga_card &card);

// A bridge whose "bridge_enable" attribute turns what is behind it on and off, as the kernel module
// for hot-swap bridges provides it. The device appears, complete, appears_ms after "1" is written
// (-1: never) and leaves when "0" is. Returns the process that sees to it, a child of this one.
pid_t add_hotswap_bridge(const std::string &id, const pci_function &behind, int appears_ms);

// The same in two steps: what sysfs shows, and the process.
void write_hotswap_bridge(const std::string &id, const pci_function &behind);
pid_t run_hotswap_bridge(const std::string &id, const std::string &behind, int appears_ms);

// What every chassis has: an FPGA of slot alsw1, and a bridge behind which a device appears, as
// add_hotswap_bridge says.
inline constexpr char hotswap_bridge[] = "0000:00:1e.0";
fpga_card chassis_fpga_card();
pci_function chassis_bridge_card();
void add_chassis_hotswap(int appears_ms = 20);

// Replaces /sbin/modprobe by a program that adds its words, "[/sbin/modprobe][-s]...", as a line to
// modprobe_log and goes on with the shell commands of the ending.
inline constexpr char modprobe_log[] = "/var/log/modprobe";
void replace_modprobe(const std::string &ending = "exit 0");

} // namespace chassis_sim

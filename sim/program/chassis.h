// The simulated chassis: a private root with the tree that the library expects, and the real
// kernel behind it. A test builds one at the start of its process, of the parts it needs;
// chassis-sim builds a whole one and runs a command inside.
#pragma once

#include "sim/base/files.h"
#include "sim/base/process.h"
#include "sim/devices/control_client.h"
#include "sim/devices/device_server.h"
#include "sim/parts/hotswap.h"
#include "sim/parts/nvram.h"
#include "sim/parts/pci_tree.h"
#include "sim/parts/pod_log.h"
#include "sim/parts/post_log.h"
#include "sim/parts/uio.h"
#include "sim/program/private_root.h"

#include <map>
#include <string>
#include <vector>

namespace chassis_sim
{

uio_description chassis_register_block();

// A whole chassis; at first, the built-in one. Times are in milliseconds.
struct chassis_description {
    std::vector<pci_function> functions = chassis_functions();
    struct slot {
        std::string name;
        std::string address;
    };
    std::vector<slot> slots = {{"3", "0000:03:00"}};
    std::vector<fpga_card> fpga_cards = {chassis_fpga_card()};
    struct bridge {
        std::string id;
        pci_function behind;
        int appears_ms = 20; // from its enabling to the device behind it; -1: never
    };
    std::vector<bridge> hotswap_bridges = {{hotswap_bridge, chassis_bridge_card()}};
    std::vector<uio_description> uio = {chassis_register_block()};
    struct log_settings {
        std::string chassis = "n20";
        std::string pod = "sample";                // or "empty", or a file
        std::string post = "sample";               // or "empty", or a directory
        std::map<std::string, std::string> states; // of cards' POD logs
        uint32_t unreachable = 0;                  // bytes at the end of the NVRAM of the POD log
    } logs;
    struct eeprom {
        std::string path;
        uint32_t size = 8192;
    };
    std::vector<eeprom> eeproms;      // blank ones
    std::vector<memory_range> memory; // that /dev/mem shows, by their addresses
    std::vector<call_fault> faults;
    std::vector<timed_line> timeline;
    unsigned int pci_devices = 0; // PCI devices beside those described
};

inline constexpr unsigned int most_pci_devices = 7168;

// Builds the chassis around the calling process, which must have one thread. Returns the processes
// that serve it, which are children of this one. trace: what the devices do; NULL: as described.
std::vector<pid_t> build_chassis(const chassis_description &description,
                                 recorded_trace *trace = nullptr);

// Has the devices answer as the trace has it, also those whose registers do nothing else. NULL:
// none is played.
void play_trace(device_server &devices, recorded_trace *trace);

// Writes the files of a chassis into the private root that the process is in.
void write_tree(const chassis_description &description);

} // namespace chassis_sim

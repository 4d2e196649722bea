// NVRAM blocks, as sysfs shows them.
#pragma once

#include "sim/parts/nodes.h"

#include <cstdint>
#include <string>

namespace chassis_sim
{

// An NVRAM block of the kernel class "zmt_nvram".
struct nvram_description {
    unsigned int number = 0; // N of nvramN
    std::string name = "nvlog-pod";
    std::string contents = std::string(16384, '\0'); // the bytes of the device; sets its size
    size_t unreachable = 0; // bytes at its end that cannot be read or written
    uint32_t base_address = 0xF0000000;
    std::string mode = "rw";
};

std::string nvram_class_dir(unsigned int number);

// Builds the block's sysfs directory and adds its node, "/dev/NAME", to those of the chassis. Who
// wants the node makes it with mknod, as on the chassis.
void add_nvram(chassis_nodes &nodes, const nvram_description &description);

} // namespace chassis_sim

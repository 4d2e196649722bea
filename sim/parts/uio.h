#pragma once

#include "sim/devices/device_server.h"

#include <string>
#include <vector>

namespace chassis_sim
{

struct uio_map {
    std::string name; // "map0"
    std::string size; // text of its "size" file, e.g. "0x0000000000001000\n"
    std::string addr = "0x00000000f8000000\n";
    std::string offset = "0x0\n";
    std::string label = "registers\n"; // its "name"
};

struct uio_description {
    unsigned int number = 0; // N of uioN
    std::vector<uio_map> maps = {{"map0", "0x0000000000001000\n"}};
    std::string node; // empty: "/dev/uioN"
    // The bus device has a "uio_maps" attribute. Poll reports nothing on it until the removal,
    // which the library relies on; today's kernels call it readable all the time.
    bool removal_notice = true;
    bool plugged = true;
    bool irq_control = true;
    int irq_delay_ms = -1;
    std::vector<preset_register> registers;
    std::vector<register_answer> answers;
};

// Where the sysfs directory of uioN, and that of the device on its bus, are.
std::string uio_class_dir(unsigned int number);
std::string uio_device_dir(unsigned int number);

// Builds the sysfs directories of a UIO device and gives its node to the server, which must not be
// started yet.
void add_uio(device_server &server, const uio_description &description);

} // namespace chassis_sim

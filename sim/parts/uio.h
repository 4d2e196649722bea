// UIO devices, as sysfs shows them.
#pragma once

#include "sim/parts/nodes.h"

#include <optional>
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
    std::vector<register_map::reg> registers = {};
    std::string register_map = {}; // the file of more, until it is read
};

struct uio_description {
    unsigned int number = 0;        // N of uioN
    std::string label = "regblock"; // its "name"
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

// The window that sysfs shows in a directory of this name and with this "size"; none, when it is no
// window's.
std::optional<uio_map_range> map_range(const std::string &name, const std::string &size);

// Where the sysfs directory of uioN, and that of the device on its bus, are.
std::string uio_class_dir(unsigned int number);
std::string uio_device_dir(unsigned int number);

// Builds the sysfs directories of a UIO device and adds its node to those of the chassis.
void add_uio(chassis_nodes &nodes, const uio_description &description);

} // namespace chassis_sim

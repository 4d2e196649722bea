// Writes the sysfs directories of NVRAM blocks.
#include "sim/parts/nvram.h"

#include "sim/base/files.h"

#include <cstdio>

namespace chassis_sim
{
namespace
{

// Device numbers below are those of UIO devices.
constexpr unsigned int first_device_index = 64;

std::string hex(size_t number)
{
    char text[20];
    std::snprintf(text, sizeof text, "%zx", number);
    return text;
}

} // namespace

std::string nvram_class_dir(unsigned int number)
{
    return "/sys/class/zmt_nvram/nvram" + std::to_string(number);
}

void add_nvram(chassis_nodes &nodes, const nvram_description &description)
{
    const std::string link = nvram_class_dir(description.number);
    const std::string dir =
        "/sys/devices/virtual/zmt_nvram/nvram" + std::to_string(description.number) + "/";
    const device_number number = simulated_device_number(first_device_index + description.number);
    write_file(dir + "name", description.name + "\n");
    write_file(dir + "dev",
               std::to_string(number.major) + ":" + std::to_string(number.minor) + "\n");
    write_file(dir + "baseaddr", "0x" + hex(description.base_address) + "\n");
    write_file(dir + "size", "0x" + hex(description.contents.size()) + "\n");
    write_file(dir + "mode", description.mode + "\n");
    write_file(dir + "uevent", "DEVNAME=" + description.name + "\n");
    make_relative_symlink(dir + "subsystem", "/sys/class/zmt_nvram");
    make_relative_symlink(link, dir.substr(0, dir.size() - 1));
    const size_t reachable = description.contents.size() - description.unreachable;
    nodes.add(storage_node{"/dev/" + description.name, description.contents.substr(0, reachable),
                           description.unreachable == 0, number});
}

} // namespace chassis_sim

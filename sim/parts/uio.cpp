#include "sim/parts/uio.h"

#include "sim/base/support.h"

#include <filesystem>

namespace chassis_sim
{

namespace fs = std::filesystem;

std::string uio_class_dir(unsigned int number)
{
    return "/sys/class/uio/uio" + std::to_string(number);
}

std::string uio_device_dir(unsigned int number)
{
    return "/sys/devices/platform/regblock." + std::to_string(number);
}

void add_uio(device_server &server, const uio_description &description)
{
    const std::string name = "uio" + std::to_string(description.number);
    const std::string device_dir = uio_device_dir(description.number);
    const std::string class_dir = device_dir + "/uio/" + name;
    const device_number number = simulated_device_number(description.number);

    const std::string bus = "/sys/bus/platform";
    const std::string driver = bus + "/drivers/regblock";
    const std::string bus_name = fs::path(device_dir).filename().string();
    const std::string numbers = std::to_string(number.major) + ":" + std::to_string(number.minor);
    const std::string files[][2] = {
        {device_dir + "/uevent", "DRIVER=regblock\nMODALIAS=platform:regblock\n"},
        {device_dir + "/modalias", "platform:regblock\n"},
        {device_dir + "/driver_override", "(null)\n"},
        {device_dir + "/power/control", "auto\n"},
        {class_dir + "/power/control", "auto\n"},
        {class_dir + "/dev", numbers + "\n"},
        {class_dir + "/name", "regblock\n"},
        {class_dir + "/version", "1.0\n"},
        {class_dir + "/event", "0\n"},
        {class_dir + "/uevent", "MAJOR=" + std::to_string(number.major) + "\nMINOR=" +
                                    std::to_string(number.minor) + "\nDEVNAME=" + name + "\n"},
    };
    for (const auto &[path, text] : files)
        write_file(path, text);
    make_directory(class_dir + "/maps");
    for (const uio_map &map : description.maps) {
        const std::string dir = class_dir + "/maps/" + map.name;
        write_file(dir + "/name", map.label);
        write_file(dir + "/addr", map.addr);
        write_file(dir + "/offset", map.offset);
        write_file(dir + "/size", map.size);
    }
    make_relative_symlink(class_dir + "/device", device_dir);
    make_relative_symlink(class_dir + "/subsystem", "/sys/class/uio");
    make_directory(driver);
    make_relative_symlink(device_dir + "/driver", driver);
    make_relative_symlink(device_dir + "/subsystem", bus);

    uio_node node;
    node.name = name;
    node.device_dir = device_dir;
    node.event_attr = class_dir + "/event";
    node.links = {{uio_class_dir(description.number), class_dir},
                  {bus + "/devices/" + bus_name, device_dir},
                  {driver + "/" + bus_name, device_dir},
                  {"/sys/dev/char/" + numbers, class_dir}};
    for (const auto &[path, target] : node.links)
        if (!fs::exists(path))
            make_relative_symlink(path, target);
    node.node = description.node.empty() ? "/dev/" + name : description.node;
    if (description.removal_notice) {
        node.removal_attr = device_dir + "/uio_maps";
        write_file(node.removal_attr, "maps\n");
    }
    node.number = number;
    node.plugged = description.plugged;
    node.irq_control = description.irq_control;
    node.irq_delay_ms = description.irq_delay_ms;
    node.registers = description.registers;
    node.answers = description.answers;
    server.add(node);
}

} // namespace chassis_sim

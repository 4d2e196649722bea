#include "sim/uio.h"

#include "sim/support.h"

namespace chassis_sim
{

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

    write_file(device_dir + "/uevent", "DRIVER=regblock\n");
    write_file(class_dir + "/dev",
               std::to_string(number.major) + ":" + std::to_string(number.minor) + "\n");
    make_symlink(class_dir + "/device", device_dir);
    for (const uio_map &map : description.maps)
        write_file(class_dir + "/maps/" + map.name + "/size", map.size);
    make_symlink(uio_class_dir(description.number), class_dir);

    uio_node node;
    node.name = name;
    node.device_dir = device_dir;
    node.node = description.node.empty() ? "/dev/" + name : description.node;
    if (description.removal_notice) {
        node.removal_attr = device_dir + "/uio_maps";
        write_file(node.removal_attr, "maps\n");
    }
    node.number = number;
    node.plugged = description.plugged;
    node.irq_control = description.irq_control;
    node.irq_delay_ms = description.irq_delay_ms;
    server.add(node);
}

} // namespace chassis_sim

// Writes the sysfs directories of UIO devices.
#include "sim/parts/uio.h"

#include "sim/base/files.h"

#include <cstdlib>
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

std::optional<uio_map_range> map_range(const std::string &name, const std::string &size)
{
    constexpr char prefix[] = "map";
    char *end = nullptr;
    const char *const digits = name.c_str() + sizeof prefix - 1;
    if (!name.starts_with(prefix) || *digits < '0' || *digits > '9')
        return std::nullopt;
    const unsigned long number = std::strtoul(digits, &end, 10);
    const uint64_t bytes = std::strtoull(size.c_str(), nullptr, 0);
    if (*end != '\0' || number > UINT16_MAX || bytes == 0 || bytes > longest_uio_map)
        return std::nullopt;
    return uio_map_range{static_cast<unsigned int>(number), bytes, {}};
}

namespace
{

struct uio_paths {
    explicit uio_paths(const uio_description &of)
        : name("uio" + std::to_string(of.number)), device_dir(uio_device_dir(of.number)),
          class_dir(device_dir + "/uio/" + name),
          bus_name(fs::path(device_dir).filename().string()),
          driver("/sys/bus/platform/drivers/regblock")
    {
    }
    std::string name, device_dir, class_dir, bus_name, driver;
};

void write_attributes(const uio_paths &at, const std::string &label, const std::string &numbers)
{
    const size_t colon = numbers.find(':');
    const std::string files[][2] = {
        {at.device_dir + "/uevent", "DRIVER=regblock\nMODALIAS=platform:regblock\n"},
        {at.device_dir + "/modalias", "platform:regblock\n"},
        {at.device_dir + "/driver_override", "(null)\n"},
        {at.device_dir + "/power/control", "auto\n"},
        {at.class_dir + "/power/control", "auto\n"},
        {at.class_dir + "/dev", numbers + "\n"},
        {at.class_dir + "/name", label + "\n"},
        {at.class_dir + "/version", "1.0\n"},
        {at.class_dir + "/event", "0\n"},
        {at.class_dir + "/uevent", "MAJOR=" + numbers.substr(0, colon) + "\nMINOR=" +
                                       numbers.substr(colon + 1) + "\nDEVNAME=" + at.name + "\n"},
    };
    for (const auto &[path, text] : files)
        write_file(path, text);
}

void write_maps(const uio_paths &at, const std::vector<uio_map> &maps)
{
    make_directory(at.class_dir + "/maps");
    for (const uio_map &map : maps) {
        const std::string dir = at.class_dir + "/maps/" + map.name;
        write_file(dir + "/name", map.label);
        write_file(dir + "/addr", map.addr);
        write_file(dir + "/offset", map.offset);
        write_file(dir + "/size", map.size);
    }
}

void make_links(const uio_paths &at)
{
    make_relative_symlink(at.class_dir + "/device", at.device_dir);
    make_relative_symlink(at.class_dir + "/subsystem", "/sys/class/uio");
    make_directory(at.driver);
    make_relative_symlink(at.device_dir + "/driver", at.driver);
    make_relative_symlink(at.device_dir + "/subsystem", "/sys/bus/platform");
}

uio_node node_of(const uio_description &description, const uio_paths &at)
{
    uio_node node;
    node.name = at.name;
    node.device_dir = at.device_dir;
    node.event_attr = at.class_dir + "/event";
    node.node = description.node.empty() ? "/dev/" + at.name : description.node;
    for (const uio_map &map : description.maps)
        if (auto range = map_range(map.name, map.size)) {
            range->registers = map.registers;
            node.maps.push_back(*range);
        }
    if (description.removal_notice)
        node.removal_attr = at.device_dir + "/uio_maps";
    node.plugged = description.plugged;
    node.irq_control = description.irq_control;
    node.irq_delay_ms = description.irq_delay_ms;
    node.registers = description.registers;
    node.answers = description.answers;
    return node;
}

} // namespace

void add_uio(chassis_nodes &nodes, const uio_description &description)
{
    const uio_paths at(description);
    uio_node node = node_of(description, at);
    node.number = simulated_device_number(description.number);
    const std::string numbers =
        std::to_string(node.number.major) + ":" + std::to_string(node.number.minor);
    write_attributes(at, description.label, numbers);
    write_maps(at, description.maps);
    make_links(at);
    if (!node.removal_attr.empty())
        write_file(node.removal_attr, "maps\n");
    node.links = {{uio_class_dir(description.number), at.class_dir},
                  {"/sys/bus/platform/devices/" + at.bus_name, at.device_dir},
                  {at.driver + "/" + at.bus_name, at.device_dir},
                  {"/sys/dev/char/" + numbers, at.class_dir}};
    for (const auto &[path, target] : node.links)
        if (!fs::exists(path))
            make_relative_symlink(path, target);
    nodes.add(node);
}

} // namespace chassis_sim

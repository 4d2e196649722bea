// Finds the register maps of traced devices.
#include "tools/trace/windows.h"

#include "tools/base/errors.h"
#include "tools/base/output.h"

#include <fstream>

#include <fmt/format.h>

namespace devaccess
{
namespace
{

std::shared_ptr<const named_registers> read_map(const std::string &file)
{
    try {
        return std::make_shared<const named_registers>(named_registers{register_map::read(file)});
    } catch (const std::exception &error) {
        throw failure("read the register map", error.what(),
                      "'devaccess map check " + file + "' tells more");
    }
}

// What a device may be called in the names of maps.
std::vector<std::string> names_in_files(const std::string &device)
{
    if (!device.starts_with("uio"))
        return register_map::names_of_pci("/sys/bus/pci/devices/" + device);
    std::string name;
    std::getline(std::ifstream("/sys/class/uio/" + device + "/name"), name);
    return {name};
}

} // namespace

const register_map::reg *traced_window::register_at(uint64_t offset, unsigned width,
                                                    bool is_write) const
{
    if (!names || map == configuration_space || device.empty() || offset < base)
        return nullptr;
    const auto number = static_cast<uint32_t>(map == no_map ? 0 : map);
    return names->index.at(number, offset - base, 8 * width, is_write);
}

std::string traced_window::text() const
{
    if (device.empty())
        return "-";
    if (map == configuration_space)
        return device + " config";
    return map == no_map ? device : fmt::format("{} map {}", device, map);
}

traced_windows::traced_windows(const std::string &map_file)
{
    if (!map_file.empty())
        given_ = read_map(map_file);
}

traced_window &traced_windows::get(const std::string &device, int32_t map)
{
    const auto [found, is_new] = windows_.try_emplace({device, map});
    traced_window &window = found->second;
    if (is_new) {
        window.device = device;
        window.map = map;
        window.names = given_ ? given_ : names_of(device);
        if (window.names && device == "mem")
            window.base = window.names->map.address.value_or(0);
    }
    return window;
}

std::shared_ptr<const named_registers> traced_windows::names_of(const std::string &device)
{
    const std::string file =
        device.empty() || device == "mem" ? "" : register_map::file_for(names_in_files(device));
    if (file.empty())
        return nullptr;
    const auto [found, is_new] = by_file_.try_emplace(file);
    if (is_new) {
        try {
            found->second = read_map(file);
        } catch (const failure &wrong) { // the trace goes on without names
            note(wrong.what());
        }
    }
    return found->second;
}

std::vector<std::string> traced_windows::without_accesses() const
{
    std::map<std::string, bool> mapped; // and accessed
    for (const auto &[key, window] : windows_)
        if (window.is_mapped || window.accesses != 0)
            mapped[window.device] |= window.accesses != 0 && window.map != configuration_space;
    std::vector<std::string> found;
    for (const auto &[device, was_accessed] : mapped)
        if (!was_accessed && !device.empty())
            found.push_back(device);
    return found;
}

} // namespace devaccess

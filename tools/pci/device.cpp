// Parses, lists and describes PCI functions.
#include "tools/pci/device.h"

#include "tools/base/captured_call.h"
#include "tools/base/errors.h"
#include "tools/base/output.h"

#include <device_access/device_access.hpp>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <sstream>
#include <string_view>

#include <fmt/format.h>

namespace devaccess
{
namespace
{

// Takes a hexadecimal number and the mark after it, '\0' for the end, off the text.
std::optional<unsigned> take_number(std::string_view &text, ptrdiff_t most_digits, char mark)
{
    unsigned number = 0;
    const char *const last = text.data() + text.size();
    const auto [end, error] = std::from_chars(text.data(), last, number, 16);
    const ptrdiff_t digits = end - text.data();
    if (digits == 0 || digits > most_digits || (end == last ? '\0' : *end) != mark)
        return std::nullopt;
    text.remove_prefix(static_cast<size_t>(std::min(digits + 1, last - text.data())));
    return number;
}

} // namespace

std::optional<sysfs_pci_identity_t> parse_pci_device(const std::string &text)
{
    std::string_view rest = text;
    const bool has_domain = std::count(text.begin(), text.end(), ':') == 2;
    const auto domain = has_domain ? take_number(rest, 4, ':') : 0;
    const auto bus = take_number(rest, 2, ':');
    const auto slot = take_number(rest, 2, '.');
    const auto function = take_number(rest, 1, '\0');
    if (!domain || !bus || !slot || !function || *slot > 0x1f || *function > 7)
        return std::nullopt;
    sysfs_pci_identity_t device = {};
    fmt::format_to_n(device.str, sizeof device.str - 1, "{:04x}:{:02x}:{:02x}.{}", *domain, *bus,
                     *slot, *function);
    return device;
}

sysfs_pci_identity_t pci_device(const std::string &text)
{
    if (const auto device = parse_pci_device(text))
        return *device;
    throw usage_error("'" + text + "' names no PCI function; write 0000:03:00.0 or 03:00.0");
}

namespace
{

std::vector<sysfs_pci_identity_t> present_devices(const sysfs_pci_identity_t *bridge)
{
    using device_access::pci_functions;
    std::vector<sysfs_pci_identity_t> devices;
    const auto listed = ask([&] {
        const auto found = bridge ? pci_functions::below(*bridge) : pci_functions::all();
        if (found)
            devices.assign(found->begin(), found->end());
        return found.has_value();
    });
    if (!listed.result && bridge)
        fail("list the devices below " + std::string(bridge->str), listed, list_hint);
    if (!listed.result)
        fail("list PCI devices", listed, "is /sys mounted?");
    return devices;
}

} // namespace

std::vector<sysfs_pci_identity_t> pci_devices(const machine_source &machine,
                                              const sysfs_pci_identity_t *bridge)
{
    if (!machine.is_archive())
        return present_devices(bridge);
    const std::string directory = pci_directory + std::string(bridge ? bridge->str : "");
    if (bridge && machine.real_path(directory).empty())
        fail_to_find(bridge->str, machine);
    std::vector<sysfs_pci_identity_t> devices;
    for (const std::string &name : machine.names_in(directory))
        if (const auto device = parse_pci_device(name))
            devices.push_back(*device);
    return devices;
}

void fail_to_find(const std::string &id, const machine_source &machine)
{
    throw failure(fmt::format("find {} in {}", id, machine.archive()), "it is not there",
                  "'devaccess pci list" + machine.option() + "' shows the devices");
}

std::map<std::string, std::string> physical_slots(const machine_source &machine)
{
    const std::string all = "/sys/bus/pci/slots/";
    std::map<std::string, std::string> slots;
    for (const std::string &name : machine.names_in(all))
        slots.emplace(machine.line(all + name + "/address"), printable(name));
    return slots;
}

std::optional<uint64_t> total_errors(const std::string &counters)
{
    std::istringstream words(counters);
    for (std::string word; words >> word;) {
        uint64_t total = 0;
        if (word.starts_with("TOTAL_ERR_") && words >> total)
            return total;
    }
    return std::nullopt;
}

std::string pci_resource::kind() const
{
    if (flags & io)
        return "I/O ports";
    return fmt::format("{}-bit {}memory", flags & memory_64 ? 64 : 32,
                       flags & prefetch ? "prefetchable " : "");
}

std::vector<pci_resource> pci_resources(const sysfs_pci_identity_t &device)
{
    constexpr int bars = 6;
    int64_t numbers[bars][3] = {};
    const ssize_t count = sysfs_pci_show_nums(numbers[0], size_t{bars} * 3, "resource", &device);
    std::vector<pci_resource> resources;
    for (int bar = 0; bar < count / 3; ++bar) {
        const auto *line = reinterpret_cast<const uint64_t *>(numbers[bar]);
        if (line[1] != 0 && line[1] >= line[0])
            resources.push_back({bar, line[0], line[1] - line[0] + 1, line[2]});
    }
    return resources;
}

namespace
{

struct resource_line {
    uint64_t start, end, flags;
};

// Those of the base address registers.
std::vector<resource_line> resource_lines(const std::string &text)
{
    std::vector<resource_line> found;
    std::istringstream lines(text);
    for (std::string line; found.size() < 6 && std::getline(lines, line);) {
        char *rest = line.data();
        resource_line numbers = {};
        for (uint64_t *number : {&numbers.start, &numbers.end, &numbers.flags})
            *number = std::strtoull(rest, &rest, 0);
        found.push_back(numbers);
    }
    return found;
}

} // namespace

std::vector<pci_resource> pci_resources(const sysfs_pci_identity_t &device,
                                        const machine_source &machine)
{
    if (!machine.is_archive())
        return pci_resources(device);
    std::vector<pci_resource> resources;
    int bar = 0;
    for (const resource_line &line : resource_lines(
             machine.read(std::string(pci_directory) + device.str + "/resource").value_or(""))) {
        if (line.end != 0 && line.end >= line.start)
            resources.push_back({bar, line.start, line.end - line.start + 1, line.flags});
        ++bar;
    }
    return resources;
}

std::vector<int> unassigned_bars(const std::string &resources)
{
    constexpr uint64_t is_unset = 0x20000000; // the kernel's flag
    std::vector<int> bars;
    int bar = 0;
    for (const resource_line &line : resource_lines(resources)) {
        const bool is_used = line.flags & (pci_resource::io | pci_resource::memory);
        if (is_used && ((line.start == 0 && line.end != 0) || (line.flags & is_unset) != 0))
            bars.push_back(bar);
        ++bar;
    }
    return bars;
}

} // namespace devaccess

#include "pci_device.h"

#include "library.h"

#include <regex>

#include <fmt/format.h>

namespace devaccess
{
namespace
{

// "dddd:", which may be missing, "bb:ss.f"; numbers may be shorter.
const std::regex form("(?:([0-9a-f]{1,4}):)?([0-9a-f]{1,2}):([01]?[0-9a-f])\\.([0-7])",
                      std::regex::icase);

unsigned number_in(const std::string &digits)
{
    return digits.empty() ? 0 : static_cast<unsigned>(std::stoul(digits, nullptr, 16));
}

} // namespace

sysfs_pci_identity_t pci_device(const std::string &text)
{
    std::smatch parts;
    if (!std::regex_match(text, parts, form))
        throw usage_error("'" + text + "' names no PCI function; write 0000:03:00.0 or 03:00.0");
    sysfs_pci_identity_t device = {};
    fmt::format_to_n(device.str, sizeof device.str - 1, "{:04x}:{:02x}:{:02x}.{}",
                     number_in(parts[1]), number_in(parts[2]), number_in(parts[3]), parts[4].str());
    return device;
}

std::vector<pci_resource> pci_resources(const sysfs_pci_identity_t &device)
{
    constexpr int bars = 6;
    int64_t numbers[bars * 3] = {};
    const ssize_t count = sysfs_pci_show_nums(numbers, bars * 3, "resource", &device);
    std::vector<pci_resource> resources;
    for (int bar = 0; (bar + 1) * 3 <= count; ++bar) {
        const auto *line = reinterpret_cast<const uint64_t *>(numbers + bar * 3);
        if (line[1] != 0 && line[1] >= line[0])
            resources.push_back({bar, line[0], line[1] - line[0] + 1, line[2]});
    }
    return resources;
}

} // namespace devaccess

#include "pci_device.h"

#include "library.h"

#include <cctype>
#include <cstring>

namespace devaccess
{
namespace
{

// In the pattern, h stands for a hexadecimal digit and o for an octal one.
bool matches(const std::string &text, const char *pattern)
{
    if (text.size() != std::strlen(pattern))
        return false;
    for (size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        const bool good = pattern[i] == 'h'   ? std::isxdigit(c) != 0
                          : pattern[i] == 'o' ? c >= '0' && c <= '7'
                                              : c == pattern[i];
        if (!good)
            return false;
    }
    return true;
}

} // namespace

sysfs_pci_identity_t pci_device(const std::string &text)
{
    std::string name = matches(text, "hh:hh.o") ? std::string("0000:").append(text) : text;
    if (!matches(name, "hhhh:hh:hh.o"))
        throw usage_error("'" + text + "' names no PCI function; write 0000:03:00.0 or 03:00.0");
    sysfs_pci_identity_t device = {};
    for (size_t i = 0; i < name.size(); ++i)
        device.str[i] = static_cast<char>(std::tolower(static_cast<unsigned char>(name[i])));
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

// Finds registers by names and offsets, and maps by what devices say of themselves.
#include "register_map/lookup.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <strings.h>

namespace register_map
{

namespace fs = std::filesystem;

std::vector<field_value> fields_of(const reg &one, uint32_t offset, unsigned bits, uint64_t value)
{
    std::vector<field_value> found;
    if (offset < one.offset || offset - one.offset >= one.width() || bits == 0)
        return found;
    const unsigned first = 8 * (offset - one.offset);
    const unsigned last = first + std::min(bits, 64 - first) - 1;
    for (const field &part : one.fields)
        if (part.lsb >= first && part.msb <= last) {
            const uint64_t number = part.of(value << first);
            found.push_back({&part, number, part.word(number)});
        }
    return found;
}

index::index(const map &names) : map_(names)
{
    for (const reg &one : names.registers) {
        if (!one.name.empty())
            by_name_.emplace(one.name, &one);
        by_place_.emplace(std::pair(one.window, uint64_t{one.offset}), &one);
    }
}

namespace
{

bool alike(const std::string &one, const std::string &other)
{
    return ::strcasecmp(one.c_str(), other.c_str()) == 0;
}

// The one of this name, or the only one that is written otherwise; NULL: none, or several.
template <typename Named>
const Named *find_alike(const std::vector<Named> &all, const std::string &name)
{
    const Named *found = nullptr;
    for (const Named &one : all) {
        if (one.name == name)
            return &one;
        if (alike(one.name, name)) {
            if (found)
                return nullptr;
            found = &one;
        }
    }
    return found;
}

} // namespace

const reg *index::find_register(const std::string &name) const
{
    const auto exactly = by_name_.find(name);
    return exactly != by_name_.end() ? exactly->second : find_alike(map_.registers, name);
}

std::optional<place> index::find(std::string_view name) const
{
    const size_t dot = name.find('.');
    place found;
    found.is = find_register(std::string(name.substr(0, dot)));
    if (!found.is || found.is->name.empty())
        return std::nullopt;
    if (dot == name.npos)
        return found;
    found.part = find_alike(found.is->fields, std::string(name.substr(dot + 1)));
    return found.part ? std::optional(found) : std::nullopt;
}

const reg *index::at(uint32_t window, uint64_t offset, unsigned bits, bool is_write) const
{
    constexpr uint64_t widest = 8; // bytes
    const auto fits = [&](const reg &one) {
        const access unfit = is_write ? access::read_only : access::write_only;
        return 4 * (one.offset == offset) + 2 * (one.size == bits) + (one.bits.access != unfit);
    };
    const reg *found = nullptr;
    auto one = by_place_.lower_bound({window, offset - std::min(offset, widest - 1)});
    for (; one != by_place_.end() && one->first <= std::pair(window, offset); ++one)
        if (offset < one->first.second + one->second->width() &&
            (!found || fits(*one->second) > fits(*found)))
            found = one->second;
    return found;
}

//--- files ----------------------------------------------------------------------------------------

std::vector<std::string> names_of_pci(const std::string &directory)
{
    const auto id = [&](const char *attribute) {
        std::string text;
        std::ifstream(fs::path(directory) / attribute) >> text;
        const bool is_id = text.size() == 6 && text.starts_with("0x") &&
                           text.find_first_not_of("0123456789abcdef", 2) == text.npos;
        return is_id ? text.substr(2) : std::string();
    };
    const std::string vendor = id("vendor"), device = id("device");
    const std::string of_board = id("subsystem_vendor") + ":" + id("subsystem_device");
    if (vendor.empty() || device.empty())
        return {};
    std::vector<std::string> names = {vendor + ":" + device};
    if (of_board.size() == 9)
        names.insert(names.begin(), names.front() + ":" + of_board);
    return names;
}

std::vector<std::string> directories()
{
    std::vector<std::string> all;
    if (const char *const variable = std::getenv("DEVACCESS_MAPS")) {
        std::istringstream own(variable);
        for (std::string one; std::getline(own, one, ':');)
            if (!one.empty())
                all.push_back(one);
    }
    all.push_back("/etc/common_device_access/maps");
    std::error_code none;
    if (const fs::path program = fs::read_symlink("/proc/self/exe", none); !none)
        all.push_back((program.parent_path() / REGISTER_MAPS_FROM_PROGRAM).lexically_normal());
    return all;
}

std::string file_for(const std::vector<std::string> &names)
{
    for (const std::string &name : names) {
        if (name.empty() || name.find('/') != name.npos || name[0] == '.')
            continue;
        for (const std::string &directory : directories()) {
            const fs::path file = fs::path(directory) / (name + ".json");
            std::error_code none;
            if (fs::is_regular_file(file, none))
                return file;
        }
    }
    return {};
}

} // namespace register_map

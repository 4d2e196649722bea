// Finds register maps, and decodes what registers hold.
#include "tools/registers/device_map.h"

#include "tools/base/errors.h"
#include "tools/base/suggest.h"

#include <algorithm>
#include <filesystem>

#include <fmt/format.h>

namespace devaccess
{
namespace
{

namespace fs = std::filesystem;

register_map::map read_map(const std::string &file)
try {
    return register_map::read(file);
} catch (const std::runtime_error &wrong) {
    throw failure("use a register map", wrong.what(), "'devaccess map check' says all of it");
}

} // namespace

device_map::device_map(const std::string &file) : file_(file), map_(read_map(file)), index_(map_) {}

register_map::place device_map::find(const std::string &name) const
{
    if (const auto found = index_.find(name))
        return *found;
    throw usage_error(fmt::format("'{}' is not a register or field in {}", name, file_),
                      did_you_mean(name, names()));
}

std::vector<std::string> device_map::names() const
{
    std::vector<std::string> all;
    for (const register_map::reg &one : map_.registers) {
        if (one.name.empty())
            continue;
        all.push_back(one.name);
        for (const register_map::field &part : one.fields)
            all.push_back(one.name + "." + part.name);
    }
    return all;
}

std::vector<register_map::place> device_map::registers() const
{
    std::vector<register_map::place> all;
    for (const register_map::reg &one : map_.registers)
        if (!one.name.empty())
            all.push_back({&one, nullptr});
    std::stable_sort(all.begin(), all.end(), [](const auto &a, const auto &b) {
        return std::pair(a.is->window, a.is->offset) < std::pair(b.is->window, b.is->offset);
    });
    return all;
}

std::string map_file(const std::string &option, const std::vector<std::string> &names)
{
    std::error_code none;
    if (option.empty())
        return register_map::file_for(names);
    if (fs::exists(option, none) || option.find('/') != option.npos)
        return option;
    const std::string found = register_map::file_for({option});
    return found.empty() ? option : found;
}

std::string why_unread(const register_map::reg &one)
{
    if (one.reading_changes())
        return "reading changes it";
    return one.is_readable() ? "" : "it can only be written";
}

namespace
{

// One bit without words.
bool is_flag(const register_map::field_value &one)
{
    return one.is->msb == one.is->lsb && one.is->values.empty();
}

field_value value_of(const register_map::field_value &one)
{
    if (one.word)
        return *one.word;
    return is_flag(one) ? field_value(one.value != 0) : field_value(one.value);
}

} // namespace

std::string value_as_text(const register_map::field_value &one)
{
    return one.word ? printable(*one.word) : fmt::format("{}", one.value);
}

record meaning_of(const register_map::place &place, unsigned bits, uint64_t value)
{
    field_value::object fields;
    std::string text;
    bool has_comma = false;
    for (const auto &one : register_map::fields_of(*place.is, place.is->offset, bits, value)) {
        if (place.part && one.is != place.part)
            continue;
        fields.push_back({one.is->name, value_of(one)});
        text += text.empty() ? "" : has_comma ? ", " : " ";
        has_comma = !is_flag(one);
        text += has_comma ? fmt::format("{}={}", one.is->name, value_as_text(one))
                          : fmt::format("{}{}", one.is->name, one.value ? '+' : '-');
    }
    return record().add("register", place.is->name).add("fields", fields, printable(text));
}

} // namespace devaccess

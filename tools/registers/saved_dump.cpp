// Reads the dumps of registers that devaccess has written, and compares them.
#include "tools/registers/saved_dump.h"

#include "register_map/json_members.h"
#include "tools/base/errors.h"
#include "tools/base/files.h"

#include <map>
#include <tuple>

#include <fmt/format.h>

namespace devaccess
{
namespace
{

using json_members::json;
using json_members::reader;

struct saved_register {
    std::optional<uint64_t> value;
    std::string name;
    std::vector<std::pair<std::string, std::string>> fields; // with what they hold, as text
};

// By the window's number, place and width.
using saved_dump = std::map<std::tuple<uint64_t, uint64_t, uint64_t>, saved_register>;

std::string text_of(const std::string &name, const json &value)
{
    if (value.is_boolean())
        return name + (value.get<bool>() ? "+" : "-");
    return name + "=" +
           (value.is_string() ? value.get<std::string>() : json_members::text_of(value));
}

// The first of the members that is there; they are alternatives.
uint64_t number_of(reader &members, std::initializer_list<const char *> names)
{
    for (const char *const name : names)
        if (const json *const member = members.find(name))
            return reader::number<uint64_t>(members.at(name), *member, UINT64_MAX);
    return 0;
}

void take_row(reader &row, uint64_t window, saved_dump &dump)
{
    if (row.find("map") || row.find("bar"))
        window = number_of(row, {"map", "bar"});
    const uint64_t place = number_of(row, {"offset", "address"});
    saved_register &one = dump[{window, place, number_of(row, {"width"})}];
    if (const json *const value = row.find("value"); value && !value->is_null())
        one.value = number_of(row, {"value"});
    if (const json *const name = row.find("register"); name && name->is_string())
        one.name = name->get<std::string>();
    if (const json *const fields = row.find("fields"); fields && fields->is_object())
        for (const auto &[name, value] : fields->items())
            one.fields.emplace_back(name, text_of(name, value));
}

saved_dump read_dump(const std::string &file)
try {
    const auto text = read_file(file, register_map::most_bytes);
    if (!text)
        throw json_members::invalid("there is no such file");
    const json document = json_members::parsed(*text);
    const json *const rows =
        document.is_object() && document.contains("registers") ? &document["registers"] : nullptr;
    if (!rows || !rows->is_array())
        throw json_members::invalid("no registers are in it");
    reader members(document, "");
    const uint64_t window = number_of(members, {"map", "bar"});
    saved_dump dump;
    for (size_t i = 0; i < rows->size(); ++i) {
        reader row((*rows)[i], "/registers/" + std::to_string(i));
        take_row(row, window, dump);
    }
    return dump;
} catch (const json_members::invalid &wrong) {
    throw failure("read " + file, wrong.what(), "'dump' with --out or --json writes such files");
}

std::string changes_between(const saved_register &a, const saved_register &b)
{
    std::string text;
    for (const auto &[name, held] : a.fields)
        for (const auto &[other, holds] : b.fields)
            if (name == other && held != holds)
                text += fmt::format("{}{} -> {}", text.empty() ? "" : ", ", held, holds);
    return printable(text);
}

record difference(const saved_dump::key_type &where, const saved_register &a,
                  const saved_register &b)
{
    const auto &[window, place, width] = where;
    const int digits = static_cast<int>(std::min<uint64_t>(width, 64) / 4);
    const auto value = [&](const std::optional<uint64_t> &held) {
        return held ? hex(*held, digits) : "-";
    };
    return record()
        .add("map", window)
        .add_hex("offset", place, 2)
        .add("width", width)
        .add("register", text_or_null(printable(a.name.empty() ? b.name : a.name)))
        .add("a", a.value, value(a.value))
        .add("b", b.value, value(b.value))
        .add("changes", changes_between(a, b));
}

} // namespace

void diff_dumps(const diff_arguments &arguments)
{
    const saved_dump a = read_dump(arguments.a);
    saved_dump b = read_dump(arguments.b);
    record_set differences = {"differences", {}};
    for (const auto &[where, one] : a) {
        const saved_register other = b[where];
        if (one.value != other.value)
            differences.rows.push_back(difference(where, one, other));
        b.erase(where);
    }
    for (const auto &[where, one] : b)
        if (one.value)
            differences.rows.push_back(difference(where, saved_register(), one));
    const size_t count = differences.rows.size();
    print(record().add("a", arguments.a).add("b", arguments.b).add(std::move(differences)));
    if (count != 0)
        throw failure("match the two sides",
                      fmt::format("{} difference{}", count, count == 1 ? "" : "s"),
                      "standard output lists them");
}

} // namespace devaccess

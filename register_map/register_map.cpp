// Reads and writes register maps, and says what is wrong with one.
#include "register_map/register_map_json.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace register_map
{
namespace
{

using json_members::invalid;
using json_members::json;
using json_members::reader;
using json_members::writer;

struct word {
    int number;
    const char *name;
};
template <typename Kind>
constexpr word named(Kind kind, const char *name)
{
    return {static_cast<int>(kind), name};
}
constexpr word accesses[] = {
    named(access::read_write, "read-write"),          named(access::read_only, "read-only"),
    named(access::write_only, "write-only"),          named(access::write_once, "writeOnce"),
    named(access::read_write_once, "read-writeOnce"),
};
constexpr word read_actions[] = {
    named(read_action::clear, "clear"),
    named(read_action::set, "set"),
};
constexpr word write_meanings[] = {
    named(write_values::modify, "modify"),
    named(write_values::one_to_clear, "oneToClear"),
    named(write_values::one_to_set, "oneToSet"),
    named(write_values::one_to_toggle, "oneToToggle"),
    named(write_values::zero_to_clear, "zeroToClear"),
    named(write_values::zero_to_set, "zeroToSet"),
    named(write_values::zero_to_toggle, "zeroToToggle"),
    named(write_values::clear, "clear"),
    named(write_values::set, "set"),
};

// The words of one, where they differ from those of what it is a part of.
void visit_behaviour(reader &members, behaviour &bits)
{
    members.named("access", bits.access, accesses);
    members.named("readAction", bits.read_action, read_actions);
    members.named("modifiedWriteValues", bits.write_values, write_meanings);
}
void visit_behaviour(writer &members, behaviour &bits, const behaviour &whole)
{
    if (bits.access != whole.access)
        members.named("access", bits.access, accesses);
    if (bits.read_action != whole.read_action)
        members.named("readAction", bits.read_action, read_actions);
    if (bits.write_values != whole.write_values)
        members.named("modifiedWriteValues", bits.write_values, write_meanings);
}

std::string hex(uint64_t value)
{
    char text[32];
    std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
    return text;
}

uint64_t number(const std::string &where, const json &member)
{
    return reader::number<uint64_t>(where, member, UINT64_MAX);
}

// "7:4", or "0"; SVD's bitOffset and bitWidth say the same.
void read_bits(reader &members, field &one)
{
    std::string bits;
    uint32_t offset = 0, width = 1;
    members("bits", bits);
    members("bitOffset", offset);
    members("bitWidth", width);
    one.lsb = offset;
    one.msb = offset + width - 1;
    char rest;
    if (!bits.empty()) {
        const int numbers = std::sscanf(bits.c_str(), "%2u:%2u%c", &one.msb, &one.lsb, &rest);
        if (numbers == 1 && bits.find(':') == std::string::npos)
            one.lsb = one.msb;
        else if (numbers != 2)
            throw invalid(members.at("bits") + " cannot be '" + bits + "'");
    }
    if (one.msb < one.lsb || one.msb > 63)
        throw invalid(members.at("bits") + " are no bits of a register");
}

void visit_field(reader &members, field &one, const behaviour &whole)
{
    members("name", one.name);
    members("description", one.description);
    read_bits(members, one);
    one.bits = whole;
    visit_behaviour(members, one.bits);
    const json *const values = members.find("values");
    if (!values)
        return;
    reader names(*values, members.at("values"));
    for (const auto &[name, value] : values->items())
        one.values.emplace_back(name, number(names.at(name), value));
}

json field_json(field &one, const behaviour &whole)
{
    writer members;
    members("name", one.name);
    members.unless_empty("description", one.description);
    members.raw("bits") = one.msb == one.lsb
                              ? std::to_string(one.lsb)
                              : std::to_string(one.msb) + ":" + std::to_string(one.lsb);
    visit_behaviour(members, one.bits, whole);
    for (const auto &[name, value] : one.values)
        members.raw("values")[name] = value;
    return members.take();
}

void read_when(reader &members, write_action &action)
{
    const json *const when = members.find("when");
    if (!when)
        return;
    if (!when->is_object()) {
        // A number may be written as a text, too: "1".
        const bool decimal = when->is_string() && !when->get<std::string>().starts_with("0x");
        const json parsed = decimal ? json::parse(when->get<std::string>(), nullptr, false) : *when;
        action.when = number(members.at("when"), parsed);
        return;
    }
    reader fields(*when, members.at("when"));
    for (const auto &[name, value] : when->items())
        action.when_fields.emplace_back(name, number(fields.at(name), value));
}

void visit(reader &members, write_action &action)
{
    read_when(members, action);
    if (const json *const set = members.find("set")) {
        reader targets(*set, members.at("set"));
        for (const auto &[name, value] : set->items()) {
            const bool written = value == "written";
            action.set.push_back(
                {name, written ? std::nullopt : std::optional(number(targets.at(name), value))});
        }
    }
    members("after_ms", action.after_ms);
    members("interrupt", action.interrupt);
}

void visit(writer &members, write_action &action)
{
    if (action.when)
        members.raw("when") = hex(*action.when);
    for (const auto &[name, value] : action.when_fields)
        members.raw("when")[name] = value;
    for (const change &one : action.set)
        members.raw("set")[one.target] = one.value ? json(hex(*one.value)) : json("written");
    members.unless_empty("after_ms", action.after_ms);
    members.unless_empty("interrupt", action.interrupt);
}

} // namespace

void visit(reader &members, reg &one)
{
    members("name", one.name);
    members("description", one.description);
    members.hex("offset", one.offset);
    uint32_t width = one.width(); // in bytes, as presets of plain memory have it
    members("width", width);
    one.size = width > 8 ? 0 : width * 8;
    members("size", one.size);
    members.hex("value", one.reset);
    members.hex("reset", one.reset);
    visit_behaviour(members, one.bits);
    if (const json *const fields = members.find("fields")) {
        const std::string where = members.at("fields");
        if (!fields->is_array())
            throw invalid(where + " is no array");
        for (const json &element : *fields) {
            reader inner(element, where + "/" + std::to_string(one.fields.size()));
            visit_field(inner, one.fields.emplace_back(), one.bits);
            inner.finish();
        }
    }
    members("fifo", one.fifo);
    members("counts_per_ms", one.counts_per_ms);
    const json *const actions = members.find("on_write");
    if (!actions)
        return;
    const std::string where = members.at("on_write");
    if (!actions->is_array())
        throw invalid(where + " is no array");
    for (const json &element : *actions) {
        reader inner(element, where + "/" + std::to_string(one.on_write.size()));
        visit(inner, one.on_write.emplace_back());
        inner.finish();
    }
}

void visit(writer &members, reg &one)
{
    members.unless_empty("name", one.name);
    members.unless_empty("description", one.description);
    members.hex("offset", one.offset);
    members("size", one.size);
    members.hex("reset", one.reset);
    visit_behaviour(members, one.bits, behaviour());
    for (field &part : one.fields)
        members.raw("fields").push_back(field_json(part, one.bits));
    members.unless_empty("fifo", one.fifo);
    members.unless_empty("counts_per_ms", one.counts_per_ms);
    for (write_action &action : one.on_write) {
        writer inner;
        visit(inner, action);
        members.raw("on_write").push_back(inner.take());
    }
}

const field *reg::find(const std::string &field_name) const
{
    const auto found = std::find_if(fields.begin(), fields.end(),
                                    [&](const field &f) { return f.name == field_name; });
    return found == fields.end() ? nullptr : &*found;
}

bool reg::behaves() const
{
    return bits != behaviour() || fifo != 0 || counts_per_ms != 0 || !on_write.empty() ||
           std::any_of(fields.begin(), fields.end(),
                       [](const field &f) { return f.bits != behaviour(); });
}

const reg *map::find(const std::string &register_name) const
{
    const auto found = std::find_if(registers.begin(), registers.end(),
                                    [&](const reg &r) { return r.name == register_name; });
    return found == registers.end() ? nullptr : &*found;
}

bool behave(const std::vector<reg> &registers)
{
    return std::any_of(registers.begin(), registers.end(),
                       [](const reg &one) { return one.behaves(); });
}

namespace
{

void require(bool good, const std::string &what)
{
    if (!good)
        throw invalid(what);
}

bool is_name(const std::string &text)
{
    return !text.empty() && text.find_first_of(" ./\t\n") == std::string::npos;
}

void check_fields(const reg &one, const std::string &where)
{
    std::set<std::string> names;
    for (size_t i = 0; i < one.fields.size(); ++i) {
        const std::string at = where + "/fields/" + std::to_string(i);
        require(is_name(one.fields[i].name), at + "/name is no name");
        require(names.insert(one.fields[i].name).second, at + "/name stands there twice");
        require(one.fields[i].msb < one.size, at + "/bits lie outside the register");
    }
}

// "REGISTER" or "REGISTER.FIELD".
bool is_target(const std::vector<reg> &registers, const std::string &target)
{
    const size_t dot = target.find('.');
    const auto found = std::find_if(registers.begin(), registers.end(), [&](const reg &one) {
        return one.name == target.substr(0, dot);
    });
    return found != registers.end() &&
           (dot == std::string::npos || found->find(target.substr(dot + 1)));
}

void check_actions(const std::vector<reg> &registers, const reg &one, const std::string &where)
{
    for (size_t i = 0; i < one.on_write.size(); ++i) {
        const std::string at = where + "/on_write/" + std::to_string(i);
        for (const auto &[name, value] : one.on_write[i].when_fields)
            require(one.find(name), at + "/when: there is no field '" + name + "'");
        for (const change &set : one.on_write[i].set)
            require(is_target(registers, set.target),
                    at + "/set: there is no register '" + set.target + "'");
        require(one.on_write[i].after_ms <= 86400000, at + "/after_ms is longer than a day");
    }
}

} // namespace

void check(const std::vector<reg> &registers, const std::string &where, uint64_t size)
{
    std::set<std::string> names;
    for (size_t i = 0; i < registers.size(); ++i) {
        const reg &one = registers[i];
        const std::string at = where + "/" + std::to_string(i);
        require(one.size == 8 || one.size == 16 || one.size == 32 || one.size == 64,
                at + "/size is not 8, 16, 32 or 64");
        require(one.name.empty() ? !one.behaves() : is_name(one.name), at + "/name is no name");
        require(one.name.empty() || names.insert(one.name).second, at + "/name stands there twice");
        require(!one.behaves() || one.offset % one.width() == 0,
                at + "/offset is no multiple of the register's size");
        require(size == 0 || uint64_t{one.offset} + one.width() <= size,
                at + "/offset lies outside the window");
        require(one.size == 64 || one.reset >> one.size == 0, at + "/reset is too large");
        require(one.fifo <= 65536, at + "/fifo is longer than 65536");
        check_fields(one, at);
        check_actions(registers, one, at);
    }
}

map read(const std::string &file)
{
    std::error_code none;
    std::ifstream stream(file, std::ios::binary);
    if (!std::filesystem::is_regular_file(file, none) || !stream)
        throw invalid("cannot read a register map from " + file);
    const json document =
        json::parse(std::istreambuf_iterator<char>(stream), {}, nullptr, false, true);
    if (document.is_discarded())
        throw invalid(file + " is no JSON text");
    map made;
    try {
        reader members(document, "");
        members("name", made.name);
        members("description", made.description);
        members.list("registers", made.registers);
        members.finish();
        check(made.registers, "/registers", 0);
    } catch (const invalid &wrong) {
        throw invalid(file + ": " + wrong.what());
    }
    return made;
}

} // namespace register_map

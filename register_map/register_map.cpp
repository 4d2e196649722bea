// Reads and writes register maps, and says what is wrong with one.
#include "register_map/register_map_json.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <unordered_map>
#include <unordered_set>

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
    named(read_action::modify, "modify"),
    named(read_action::modify_external, "modifyExternal"),
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
        throw invalid(members.at("bits") + " are not bits of a register");
}

//--- arrays ---------------------------------------------------------------------------------------

// Adds one, or what an array of it stands for, by the members dim, dimIncrement and dimIndex. The
// increment is added to the place of each.
template <typename Part, typename Move>
void add_elements(reader &members, const Part &one, std::vector<Part> &to, Move move)
{
    uint32_t count = 0;
    uint64_t increment = 0;
    std::string index;
    members.hex("dim", count);
    members.hex("dimIncrement", increment);
    members("dimIndex", index);
    if (count == 0)
        return to.push_back(one);
    const size_t mark = one.name.find("%s");
    if (mark == one.name.npos)
        throw invalid(members.at("name") + " of an array has no %s");
    if (count > most_parts || increment > UINT32_MAX)
        throw invalid(members.at("dim") + " is too large");
    const std::vector<std::string> words = index_words(index, count, members.at("dimIndex"));
    uint64_t distance = 0;
    for (const std::string &word : words) {
        to.push_back(one);
        to.back().name.replace(mark, 2, word);
        move(to.back(), distance);
        distance += increment;
    }
}

// The elements of a list, each with its own reader.
template <typename Take>
void for_each_element(reader &members, const char *name, Take take)
{
    const json *const list = members.find(name);
    if (!list)
        return;
    const std::string where = members.at(name);
    if (!list->is_array())
        throw invalid(where + " is not an array");
    for (size_t i = 0; i < list->size(); ++i) {
        reader inner((*list)[i], where + "/" + std::to_string(i));
        take(inner, i);
        inner.finish();
    }
}

//--- fields ---------------------------------------------------------------------------------------

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
        const json value = decimal ? json_members::parsed(when->get<std::string>()) : *when;
        action.when = number(members.at("when"), value);
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

//--- registers ------------------------------------------------------------------------------------

void read_fields(reader &members, reg &one)
{
    if (members.find("fields"))
        one.fields.clear();
    for_each_element(members, "fields", [&](reader &inner, size_t) {
        field part;
        visit_field(inner, part, one.bits);
        add_elements(inner, part, one.fields, [&](field &moved, uint64_t bits) {
            if (moved.msb + bits > 63)
                throw invalid(inner.at("dim") + ": there are no such bits of a register");
            moved.lsb += static_cast<unsigned>(bits);
            moved.msb += static_cast<unsigned>(bits);
        });
    });
}

// What is not said is as it is already.
void visit(reader &members, reg &one)
{
    members("name", one.name);
    members("description", one.description);
    members.hex("map", one.window);
    members.hex("offset", one.offset);
    uint32_t width = one.width(); // in bytes, as presets of plain memory have it
    members("width", width);
    one.size = width > 8 ? 0 : width * 8;
    members("size", one.size);
    members.hex("value", one.reset);
    members.hex("reset", one.reset);
    const behaviour before = one.bits;
    visit_behaviour(members, one.bits);
    for (field &inherited : one.fields)
        if (inherited.bits == before)
            inherited.bits = one.bits;
    read_fields(members, one);
    members("fifo", one.fifo);
    members("counts_per_ms", one.counts_per_ms);
    if (members.find("on_write"))
        one.on_write.clear();
    for_each_element(members, "on_write",
                     [&](reader &inner, size_t) { visit(inner, one.on_write.emplace_back()); });
}

json register_json(reg &one)
{
    writer members;
    members.unless_empty("name", one.name);
    members.unless_empty("description", one.description);
    members.unless_empty("map", one.window);
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
    return members.take();
}

size_t parts_of(const reg &one)
{
    size_t parts = 1 + one.fields.size() + one.on_write.size();
    for (const field &part : one.fields)
        parts += part.values.size();
    return parts;
}

} // namespace

std::vector<std::string> index_words(const std::string &text, uint64_t count,
                                     const std::string &where)
{
    std::vector<std::string> words;
    unsigned first = 0, last = 0;
    char from = 0, to = 0, rest = 0;
    if (text.empty() || std::sscanf(text.c_str(), "%9u-%9u%c", &first, &last, &rest) == 2) {
        for (uint64_t i = 0; i < count && (text.empty() || first + i <= last); ++i)
            words.push_back(std::to_string(first + i));
    } else if (std::sscanf(text.c_str(), "%c-%c%c", &from, &to, &rest) == 2) {
        for (int letter = static_cast<unsigned char>(from);
             letter <= static_cast<unsigned char>(to); ++letter)
            words.push_back(std::string(1, static_cast<char>(letter)));
    } else {
        for (size_t begin = 0, end = 0; end != text.npos; begin = end + 1) {
            end = text.find(',', begin);
            words.push_back(text.substr(begin, end - begin));
            std::erase_if(words.back(), [](unsigned char c) { return std::isspace(c); });
        }
    }
    if (words.size() != count || (!text.empty() && last != 0 && last - first + 1 != count))
        throw invalid(where + " does not have as many words as dim says");
    return words;
}

void visit_registers(reader &members, const char *name, std::vector<reg> &registers)
{
    registers.clear();
    std::map<std::string, reg> earlier; // that others can be derived from, arrays by their %s
    uint64_t parts = 0;
    for_each_element(members, name, [&](reader &inner, size_t i) {
        reg one;
        std::string origin;
        inner("derivedFrom", origin);
        if (!origin.empty()) {
            const auto found = earlier.find(origin);
            if (found == earlier.end())
                throw invalid(inner.at("derivedFrom") + ": there is no register '" + origin +
                              "' before it");
            one = found->second;
            one.name.clear();
        }
        visit(inner, one);
        one.element = static_cast<uint32_t>(i);
        earlier.emplace(one.name, one);
        uint64_t count = 1;
        inner.hex("dim", count);
        const uint64_t each = parts_of(one);
        parts += each * std::clamp<uint64_t>(count, 1, most_parts);
        if (parts > most_parts)
            throw invalid(inner.at("name") + ": there are more than " + std::to_string(most_parts) +
                          " registers, fields and words");
        add_elements(inner, one, registers, [&](reg &moved, uint64_t bytes) {
            if (moved.offset + bytes > UINT32_MAX)
                throw invalid(inner.at("dim") + " leads out of the window");
            moved.offset += static_cast<uint32_t>(bytes);
        });
    });
}

void visit_registers(writer &members, const char *name, std::vector<reg> &registers)
{
    if (registers.empty())
        return;
    json list = json::array();
    for (reg &one : registers)
        list.push_back(register_json(one));
    members.raw(name) = std::move(list);
}

const std::string *field::word(uint64_t value) const
{
    const auto found = std::find_if(values.begin(), values.end(),
                                    [&](const auto &one) { return one.second == value; });
    return found == values.end() ? nullptr : &found->first;
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

bool reg::reading_changes() const
{
    return fifo != 0 || bits.read_action != read_action::none ||
           std::any_of(fields.begin(), fields.end(),
                       [](const field &f) { return f.bits.read_action != read_action::none; });
}

bool reg::is_readable() const
{
    const auto readable = [](const behaviour &b) {
        return b.access != access::write_only && b.access != access::write_once;
    };
    return readable(bits) || std::any_of(fields.begin(), fields.end(),
                                         [&](const field &f) { return readable(f.bits); });
}

const reg *map::find(const std::string &register_name) const
{
    const auto found = std::find_if(registers.begin(), registers.end(),
                                    [&](const reg &r) { return r.name == register_name; });
    return found == registers.end() ? nullptr : &*found;
}

size_t map::windows() const
{
    std::set<uint32_t> numbers;
    for (const reg &one : registers)
        numbers.insert(one.window);
    return numbers.size();
}

bool behave(const std::vector<reg> &registers)
{
    return std::any_of(registers.begin(), registers.end(),
                       [](const reg &one) { return one.behaves(); });
}

namespace
{

bool is_name(const std::string &text)
{
    return !text.empty() && text.find_first_of(" .=/%\t\n") == std::string::npos;
}

// Collects what is wrong with a list of registers.
class checker
{
public:
    checker(const std::vector<reg> &registers, std::string where, uint64_t size)
        : registers_(registers), where_(std::move(where)), size_(size)
    {
        for (const reg &one : registers)
            by_name_.emplace(one.name, &one);
    }

    std::vector<std::string> run()
    {
        for (const reg &one : registers_)
            check_register(one);
        return std::move(faults_);
    }

private:
    static constexpr size_t most_faults = 20;

    bool require(bool good, const std::string &what)
    {
        if (!good && faults_.size() < most_faults)
            faults_.push_back(what);
        return good;
    }

    void check_register(const reg &one)
    {
        const std::string at = where_ + "/" + std::to_string(one.element);
        if (!require(one.size == 8 || one.size == 16 || one.size == 32 || one.size == 64,
                     at + "/size is not 8, 16, 32 or 64"))
            return;
        require(one.name.empty() ? !one.behaves() : is_name(one.name), at + "/name is not a name");
        require(one.name.empty() || names_.insert(one.name).second,
                at + "/name stands there twice");
        require(!one.behaves() || one.offset % one.width() == 0,
                at + "/offset is not a multiple of the register's size");
        require(size_ == 0 || uint64_t{one.offset} + one.width() <= size_,
                at + "/offset lies outside the window");
        require(one.window < 64, at + "/map is higher than 63");
        require(one.size == 64 || one.reset >> one.size == 0, at + "/reset is too large");
        require(one.fifo <= 65536, at + "/fifo is longer than 65536");
        check_fields(one, at);
        check_actions(one, at);
    }

    void check_fields(const reg &one, const std::string &where)
    {
        std::set<std::string> names;
        for (size_t i = 0; i < one.fields.size() && faults_.size() < most_faults; ++i) {
            const field &part = one.fields[i];
            const std::string at = where + "/fields/" + std::to_string(i);
            require(is_name(part.name), at + "/name is not a name");
            require(names.insert(part.name).second, at + "/name stands there twice");
            require(part.msb < one.size, at + "/bits lie outside the register");
            for (size_t k = 0; k < i; ++k)
                require(!overlap(part, one.fields[k]),
                        at + "/bits are also those of " + one.fields[k].name);
            for (const auto &[word, value] : part.values)
                require(value <= part.mask() >> part.lsb,
                        at + "/values/" + word + " is larger than the field");
        }
    }

    // What can only be read and what can only be written may be different things.
    static bool overlap(const field &a, const field &b)
    {
        const auto is_one_way = [](const field &read, const field &written) {
            return read.bits.access == access::read_only &&
                   written.bits.access == access::write_only;
        };
        return (a.mask() & b.mask()) != 0 && !is_one_way(a, b) && !is_one_way(b, a);
    }

    void check_actions(const reg &one, const std::string &where)
    {
        for (size_t i = 0; i < one.on_write.size() && faults_.size() < most_faults; ++i) {
            const std::string at = where + "/on_write/" + std::to_string(i);
            for (const auto &[name, value] : one.on_write[i].when_fields)
                require(one.find(name), at + "/when: there is no field '" + name + "'");
            for (const change &set : one.on_write[i].set)
                require(is_target(set.target),
                        at + "/set: there is no register '" + set.target + "'");
            require(one.on_write[i].after_ms <= 86400000, at + "/after_ms is longer than a day");
        }
    }

    // "REGISTER" or "REGISTER.FIELD".
    bool is_target(const std::string &target) const
    {
        const size_t dot = target.find('.');
        const auto found = by_name_.find(target.substr(0, dot));
        return found != by_name_.end() &&
               (dot == std::string::npos || found->second->find(target.substr(dot + 1)));
    }

    const std::vector<reg> &registers_;
    std::string where_;
    uint64_t size_;
    std::unordered_map<std::string, const reg *> by_name_;
    std::unordered_set<std::string> names_;
    std::vector<std::string> faults_;
};

// No text of a map is nested deeply; one that is takes sixty times its size to be parsed.
bool is_shallow(const std::string &text)
{
    constexpr int deepest = 1000;
    int depth = 0;
    bool in_string = false;
    for (size_t i = 0; i < text.size() && depth <= deepest; ++i) {
        if (text[i] == '"')
            in_string = !in_string;
        else if (in_string)
            i += text[i] == '\\';
        else
            depth += (text[i] == '[' || text[i] == '{') - (text[i] == ']' || text[i] == '}');
    }
    return depth <= deepest;
}

json parsed(const std::string &file)
{
    std::error_code none;
    std::ifstream stream(file, std::ios::binary);
    if (!std::filesystem::is_regular_file(file, none) || !stream)
        throw invalid("cannot read a register map from " + file);
    if (std::filesystem::file_size(file, none) > most_bytes)
        throw invalid(file + " is larger than " + std::to_string(most_bytes) + " bytes");
    const std::string text(std::istreambuf_iterator<char>(stream), {});
    json document = json(json::value_t::discarded);
    if (is_shallow(text))
        document = json_members::parsed(text, true);
    if (document.is_discarded())
        throw invalid(file + " is not JSON");
    return document;
}

} // namespace

void check(const std::vector<reg> &registers, const std::string &where, uint64_t size)
{
    const std::vector<std::string> faults = checker(registers, where, size).run();
    if (!faults.empty())
        throw invalid(faults.front());
}

std::vector<std::string> faults_of(const map &checked)
{
    return checker(checked.registers, "/registers", checked.size).run();
}

map read(const std::string &file, std::vector<std::string> &faults)
{
    const json document = parsed(file);
    map made;
    try {
        reader members(document, "");
        members("name", made.name);
        members("description", made.description);
        uint64_t address = 0;
        members.hex("address", address);
        if (members.find("address"))
            made.address = address;
        members.hex("size", made.size);
        visit_registers(members, "registers", made.registers);
        members.finish();
    } catch (const invalid &wrong) {
        throw invalid(file + ": " + wrong.what());
    }
    for (const std::string &fault : faults_of(made))
        faults.push_back(file + ": " + fault);
    return made;
}

map read(const std::string &file)
{
    std::vector<std::string> faults;
    map made = read(file, faults);
    if (!faults.empty())
        throw invalid(faults.front());
    return made;
}

std::string text_of(const map &written)
{
    map copy = written;
    writer members;
    members.unless_empty("name", copy.name);
    members.unless_empty("description", copy.description);
    if (copy.address)
        members.hex("address", *copy.address);
    if (copy.size != 0)
        members.hex("size", copy.size);
    visit_registers(members, "registers", copy.registers);
    return json_members::text_of(members.take(), 2) + "\n";
}

} // namespace register_map

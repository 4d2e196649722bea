// Registers of PCI functions: pci read, write, watch, caps, dump, diff.
#include "tools/base/errors.h"
#include "tools/base/files.h"
#include "tools/base/numbers.h"
#include "tools/base/output.h"
#include "tools/base/settings.h"
#include "tools/pci/config_space.h"
#include "tools/pci/device.h"
#include "tools/pci/dump.h"
#include "tools/pci/pci_commands.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>

#include <fmt/format.h>
#include <linux/pci_regs.h>
#include <unistd.h>

namespace devaccess
{
namespace
{

config_space config_of(const sysfs_pci_identity_t &device, const machine_source &machine)
{
    if (!machine.is_archive())
        return config_space(device);
    if (auto bytes = machine.read(std::string(pci_directory) + device.str + "/config"))
        return {device.str, std::move(*bytes)};
    fail_to_find(device.str, machine);
}

} // namespace

config_space config_of(const pci_arguments &arguments, const machine_source &machine)
{
    if (machine.is_archive() && arguments.id.empty())
        throw usage_error("with --from, ID is required");
    if (arguments.file.empty() && arguments.id.empty())
        throw usage_error("either ID or --file is required");
    if (arguments.file.empty())
        return config_of(pci_device(arguments.id), machine);
    std::vector<config_space> functions = read_dump(arguments.file);
    if (arguments.id.empty() && functions.size() > 1)
        throw usage_error(
            fmt::format("{} holds {} functions; ID is required", arguments.file, functions.size()));
    const std::string id = arguments.id.empty() ? functions[0].id() : pci_device(arguments.id).str;
    for (config_space &function : functions)
        if (function.id() == id)
            return std::move(function);
    throw failure(fmt::format("find {} in {}", id, arguments.file), "the file does not contain it",
                  "without ID it must hold one function");
}

void print_for_each(const pci_arguments &arguments,
                    const std::function<record(const config_space &, const machine_source &)> &say)
{
    fleet machines(arguments.from);
    machines.print_each([&](const machine_source &machine, const std::string &) {
        return say(config_of(arguments, machine), machine);
    });
    machines.finish();
}

namespace
{

// The function and a row, or a table of several.
record registers_record(const std::string &id, std::vector<record> rows)
{
    record all;
    all.add("id", id);
    if (rows.size() == 1)
        return all.append(rows[0]);
    return all.add({"registers", std::move(rows)});
}

} // namespace

//--- read and write -------------------------------------------------------------------------------

void pci_read(const pci_arguments &arguments)
{
    print_for_each(arguments, [&](const config_space &config, const machine_source &) {
        std::vector<record> rows;
        for (const std::string &text : arguments.registers) {
            const register_place place = find_register(config, text, arguments.width);
            rows.push_back(register_row(place, config.read(place.offset, place.width)));
        }
        return registers_record(config.id(), std::move(rows));
    });
}

namespace
{

// A file of sysfs tells its size, and takes nothing beyond it.
void expect_within(const config_space &config, const register_place &place)
{
    std::error_code none;
    const auto size = std::filesystem::file_size(pci_directory + config.id() + "/config", none);
    if (!none && place.offset + uint64_t{place.width} / 8 > size)
        throw failure(fmt::format("write register {:#x} of {}", place.offset, config.id()),
                      fmt::format("its configuration space has {} bytes", size),
                      "'devaccess pci dump' shows them");
}

struct change {
    register_place place;
    masked_value wanted;
};

// "OFFSET VALUE", or "REGISTER=VALUE" as often as wanted.
std::vector<change> changes_of(const pci_arguments &arguments, const config_space &config)
{
    std::vector<std::pair<std::string, std::string>> pairs;
    const std::vector<std::string> &words = arguments.registers;
    if (words.size() == 2 && words[0].find('=') == std::string::npos)
        pairs.emplace_back(words[0], words[1]);
    else
        for (const std::string &word : words) {
            const size_t equals = word.find('=');
            if (equals == word.npos)
                throw usage_error("'" + word + "' has no value; write " + word + "=VALUE");
            pairs.emplace_back(word.substr(0, equals), word.substr(equals + 1));
        }
    std::vector<change> changes;
    for (const auto &[name, value] : pairs) {
        const register_place place = find_register(config, name, arguments.width);
        changes.push_back({place, parse_masked(value, highest(place.width))});
    }
    return changes;
}

} // namespace

namespace
{

record written(const config_space &config, const change &wanted, bool is_dry)
{
    const register_place &place = wanted.place;
    std::optional<uint32_t> before; // not read unless needed: that may have effects
    if (is_dry || !wanted.wanted.is_whole())
        before = config.read(place.offset, place.width);
    const auto value = static_cast<uint32_t>(wanted.wanted.applied_to(before.value_or(0)));
    if (!is_dry)
        config.write(place.offset, place.width, value);
    return written_row(place, before, value);
}

// Tells what has been written before a failure.
[[noreturn]] void fail_after(const failure &failed, const std::vector<std::string> &done)
{
    if (done.empty())
        throw failed;
    failure told = failed;
    static_cast<std::runtime_error &>(told) = std::runtime_error(
        fmt::format("{}, after writing {}", failed.what(), fmt::join(done, ", ")));
    throw told;
}

} // namespace

void pci_write(const pci_arguments &arguments)
{
    const config_space config(pci_device(arguments.id), !arguments.dry_run);
    const std::vector<change> changes = changes_of(arguments, config);
    for (const change &c : changes)
        expect_within(config, c.place);
    std::vector<record> rows;
    std::vector<std::string> done;
    for (const change &c : changes)
        try {
            rows.push_back(written(config, c, arguments.dry_run));
            done.push_back(c.place.name.empty() ? hex(c.place.offset) : c.place.name);
        } catch (const failure &failed) {
            fail_after(failed, arguments.dry_run ? std::vector<std::string>() : done);
        }
    (arguments.dry_run ? static_cast<void (*)(const record &)>(print)
                       : print_done)(registers_record(config.id(), std::move(rows)));
}

void pci_watch(const pci_arguments &arguments)
{
    const config_space config(pci_device(arguments.id));
    const std::string &text = arguments.registers[0];
    const register_place place = find_register(config, text, arguments.width);
    watch_register(
        fmt::format("{} of {}", text, config.id()), pci_directory + config.id(), place.width,
        arguments.wait, [&] { return config.read(place.offset, place.width); },
        [&](uint64_t value) { return register_row(place, static_cast<uint32_t>(value)); });
}

//--- capabilities ---------------------------------------------------------------------------------

namespace
{

record capability_record(const config_space &config, const found_capability &capability)
{
    record_set registers = {"registers", {}};
    for (const register_place &place : capability.registers)
        if (const auto value = config.try_read(place.offset, place.width))
            registers.rows.push_back(register_row(place, *value));
    return record()
        .add("kind", capability.extended ? "extended" : "standard")
        .add_hex("offset", capability.offset, 2)
        .add_hex("capability", capability.id, 2)
        .add("name", capability.kind ? capability.kind->title : "unknown")
        .add("short_name", capability.name())
        .add(std::move(registers));
}

// For people, capabilities and their registers are rows of one table.
record table_row(uint32_t offset, const std::string &name, const std::string &value,
                 const std::string &text)
{
    return record()
        .add_hex("offset", offset, 2)
        .add("register", name)
        .add("value", value)
        .add("fields", text);
}

void add_table_rows(const config_space &config, const found_capability &capability,
                    std::vector<record> &rows)
{
    rows.push_back(table_row(capability.offset, capability.name(), "",
                             capability.kind ? capability.kind->title : "unknown"));
    for (const register_place &place : capability.registers)
        if (const auto value = config.try_read(place.offset, place.width))
            rows.push_back(table_row(place.offset, "  " + place.name,
                                     hex(*value, static_cast<int>(place.width / 4)),
                                     fields_as_text(place, *value)));
}

} // namespace

void pci_caps(const pci_arguments &arguments)
{
    print_for_each(arguments, [](const config_space &config, const machine_source &) {
        const capability_list list = capabilities_of(config);
        record_set shown = {"capabilities", {}};
        for (const found_capability &capability : list.found)
            if (settings.as_json)
                shown.rows.push_back(capability_record(config, capability));
            else
                add_table_rows(config, capability, shown.rows);
        return record().add("id", config.id()).add("complete", list.complete).add(std::move(shown));
    });
}

//--- dump and diff --------------------------------------------------------------------------------

namespace
{

// What it holds now. It is not kept open, as there can be more functions than descriptors.
config_space held_by(const sysfs_pci_identity_t &device, const machine_source &machine)
{
    const config_space config = config_of(device, machine);
    const std::string bytes = config.all_bytes();
    if (bytes.size() < PCI_STD_HEADER_SIZEOF)
        throw failure("read the configuration space of " + config.id(),
                      fmt::format("only {} bytes are shown", bytes.size()), list_hint);
    return {config.id(), bytes};
}

std::vector<config_space> configs_of(const pci_arguments &arguments, const machine_source &machine)
{
    std::vector<config_space> configs;
    if (!arguments.id.empty())
        configs.push_back(config_of(arguments, machine));
    else if (!arguments.file.empty())
        configs = read_dump(arguments.file);
    else
        for (const sysfs_pci_identity_t &device : pci_devices(machine))
            try {
                configs.push_back(held_by(device, machine));
            } catch (const failure &failed) {
                if (machine.is_archive() ||
                    ::access((pci_directory + std::string(device.str)).c_str(), F_OK) == 0)
                    throw;
                note(std::string(device.str) + " has been removed meanwhile");
            }
    return configs;
}

record dumped_row(const config_space &config)
{
    std::string digits;
    for (const char byte : config.all_bytes())
        digits += fmt::format("{:02x}", static_cast<unsigned char>(byte));
    return record().add("id", config.id()).add("bytes", digits.size() / 2).add("hex", digits);
}

} // namespace

void pci_dump(const pci_arguments &arguments)
{
    const pci_names names;
    fleet machines(arguments.from);
    if (!settings.as_json || !arguments.other.empty())
        machines.expect_one();
    std::string text;
    record_set functions = {"functions", {}};
    machines.for_each([&](const machine_source &machine, const std::string &host) {
        for (const config_space &config : configs_of(arguments, machine)) {
            text += dump_of(config, names);
            functions.rows.push_back(machines.row(host).append(dumped_row(config)));
        }
    });
    if (!arguments.other.empty())
        write_file(arguments.other, text, false);
    if (settings.as_json && arguments.other != standard_stream)
        print(record().add("file", text_or_null(arguments.other)).add(std::move(functions)));
    else if (arguments.other.empty())
        print_text(text);
    machines.finish();
}

namespace
{

using side = std::vector<config_space>; // of a comparison

side side_of(const std::string &text, const machine_source &machine)
{
    side functions;
    if (const auto device = parse_pci_device(text))
        functions.push_back(held_by(*device, machine));
    else
        functions = read_dump(text);
    return functions;
}

std::vector<register_place> all_registers(const config_space &config)
{
    std::vector<register_place> places = header_registers(config);
    const std::vector<found_capability> found = capabilities_of(config).found;
    std::set<uint32_t> starts = {PCI_CFG_SPACE_SIZE, PCI_CFG_SPACE_EXP_SIZE};
    for (const found_capability &capability : found) {
        places.insert(places.end(), capability.registers.begin(), capability.registers.end());
        places.push_back({capability.name(), capability.offset, capability.extended ? 32u : 16u});
        starts.insert(capability.offset);
    }
    for (const found_capability &capability : found) // what the table does not have of them
        for (uint32_t at = capability.offset; at < *starts.upper_bound(capability.offset); at += 4)
            places.push_back(
                {fmt::format("{}+{:#x}", capability.name(), at - capability.offset), at, 32});
    for (uint32_t offset = 0; offset < 4096; offset += 4)
        places.push_back({{}, offset, 32});
    return places;
}

std::string changed_fields(const register_place &place, uint32_t a, uint32_t b)
{
    std::string text;
    for (const pci_field &field : place.fields) {
        const register_place one = {{}, 0, place.width, {&field, 1}};
        if ((a ^ b) & field.mask)
            text += fmt::format("{}{} -> {}", text.empty() ? "" : ", ", fields_as_text(one, a),
                                fields_as_text(one, b));
    }
    return text;
}

record difference_row(const std::string &id, const register_place &place, uint32_t a, uint32_t b)
{
    const int digits = static_cast<int>(place.width / 4);
    return record()
        .add("id", id)
        .add_hex("offset", place.offset, 2)
        .add("width", place.width)
        .add("register", text_or_null(place.name))
        .add_hex("a", a, digits)
        .add_hex("b", b, digits)
        .add("changes", changed_fields(place, a, b));
}

// Registers that the table knows come first, so that bytes that it does not know are left over.
void compare(const config_space &a, const config_space &b, std::vector<record> &rows)
{
    std::vector<bool> shown(4096);
    std::multimap<uint32_t, record> differences;
    for (const register_place &place : all_registers(a)) {
        const auto in_a = a.try_read(place.offset, place.width);
        const auto in_b = b.try_read(place.offset, place.width);
        if (!in_a || !in_b || *in_a == *in_b)
            continue;
        uint32_t left = 0; // differing bits that no row shows yet
        for (uint32_t byte = 0; byte < place.width / 8; ++byte)
            if (!shown[place.offset + byte])
                left |= (*in_a ^ *in_b) & 0xffu << 8 * byte;
        if (left == 0)
            continue;
        std::fill_n(shown.begin() + place.offset, place.width / 8, true);
        differences.emplace(place.offset, difference_row(a.id(), place, *in_a, *in_b));
    }
    for (auto &[offset, row] : differences)
        rows.push_back(std::move(row));
}

std::vector<std::string> ids_that_lack(const side &functions, const side &others)
{
    std::vector<std::string> ids;
    for (const config_space &function : functions)
        if (std::none_of(others.begin(), others.end(),
                         [&](const config_space &other) { return other.id() == function.id(); }))
            ids.push_back(function.id());
    return ids;
}

void add_ids(record &to, const char *name, const std::vector<std::string> &ids)
{
    const field_value::array all(ids.begin(), ids.end());
    to.add(name, all, ids.empty() ? "-" : fmt::format("{}", fmt::join(ids, " ")));
}

struct comparison {
    record shown;
    size_t count;    // of differences
    std::string cut; // of which one side has less
};

// One function on each side is compared whatever its id; several are matched by theirs.
comparison compare_sides(const pci_arguments &arguments, const machine_source &machine)
{
    const side a = side_of(arguments.id, machine);
    const side b = side_of(arguments.other, machine);
    record_set differences = {"differences", {}};
    const bool is_pair = a.size() == 1 && b.size() == 1;
    std::string cut;
    for (const config_space &in_a : a)
        for (const config_space &in_b : b)
            if (is_pair || in_a.id() == in_b.id()) {
                compare(in_a, in_b, differences.rows);
                if (in_a.all_bytes().size() != in_b.all_bytes().size())
                    cut = in_a.id();
            }
    using ids = std::vector<std::string>;
    const ids only_in_a = is_pair ? ids() : ids_that_lack(a, b);
    const ids only_in_b = is_pair ? ids() : ids_that_lack(b, a);
    const size_t count = differences.rows.size() + only_in_a.size() + only_in_b.size();
    record shown;
    shown.add("a", arguments.id).add("b", arguments.other);
    add_ids(shown, "only_in_a", only_in_a);
    add_ids(shown, "only_in_b", only_in_b);
    shown.add(std::move(differences));
    return {std::move(shown), count, cut};
}

void expect_match(const comparison &made)
{
    if (made.count != 0)
        throw failure("match the two sides",
                      fmt::format("{} difference{}", made.count, made.count == 1 ? "" : "s"),
                      "standard output lists them");
    if (!made.cut.empty())
        throw failure("match the two sides", "one side has fewer bytes of " + made.cut,
                      "'lspci -xxxx' as root keeps all of it");
}

} // namespace

void pci_diff(const pci_arguments &arguments)
{
    fleet machines(arguments.from);
    machines.print_each([&](const machine_source &machine, const std::string &host) {
        const comparison made = compare_sides(arguments, machine);
        machines.expect(host, [&] { expect_match(made); });
        return made.shown;
    });
    machines.finish();
}

} // namespace devaccess

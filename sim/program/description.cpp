// Reads and writes descriptions.
#include "sim/program/description.h"

#include "register_map/register_map_json.h"
#include "sim/program/description_check.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>

namespace chassis_sim
{

using json_members::invalid;
using json_members::json;
using json_members::reader;
using json_members::writer;

namespace
{

constexpr struct {
    int number;
    const char *name;
} errors[] = {{EIO, "EIO"},       {EBUSY, "EBUSY"},   {EAGAIN, "EAGAIN"},
              {EINVAL, "EINVAL"}, {ENODEV, "ENODEV"}, {ENOMEM, "ENOMEM"},
              {EINTR, "EINTR"},   {EACCES, "EACCES"}, {ENOSPC, "ENOSPC"}};
constexpr struct {
    int number;
    const char *name;
} links[] = {{pcie_capability::link_up, "up"},
             {pcie_capability::link_training, "training"},
             {pcie_capability::link_down, "down"}};

// A file of sysfs: without its line's end.
void visit_line(writer &members, const char *name, std::string &text)
{
    members.raw(name) = text.substr(0, text.find('\n'));
}
void visit_line(reader &members, const char *name, std::string &text)
{
    members(name, text);
    if (members.find(name))
        text += '\n';
}

// Two digits a byte; spaces between them do not count.
void visit_bytes(writer &members, const char *name, std::string &bytes)
{
    constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (const char byte : bytes) {
        text += digits[byte >> 4 & 0xf];
        text += digits[byte & 0xf];
    }
    members.unless_empty(name, text);
}
void visit_bytes(reader &members, const char *name, std::string &bytes)
{
    std::string text;
    members(name, text);
    std::erase(text, ' ');
    if (text.size() % 2 != 0 || text.find_first_not_of("0123456789abcdefABCDEF") != text.npos)
        throw invalid(members.at(name) + " is not a string of bytes, two hexadecimal digits each");
    bytes.clear();
    for (size_t i = 0; i < text.size(); i += 2)
        bytes += static_cast<char>(std::stoi(text.substr(i, 2), nullptr, 16));
}

} // namespace

//--- what a description's parts consist of --------------------------------------------------------

template <typename V>
void visit(V &v, register_value &r)
{
    v.hex("offset", r.offset);
    v.hex("value", r.value);
    v("width", r.width);
}

template <typename V>
void visit(V &v, pci_window &window)
{
    v.hex("start", window.start);
    v.hex("size", window.size);
    v.hex("flags", window.flags);
    v.unless_empty("register_map", window.register_map);
    register_map::visit_registers(v, "registers", window.registers);
}

template <typename V>
void visit(V &v, pcie_capability &pcie)
{
    v("type", pcie.type);
    v("slot", pcie.slot);
    v("hotplug", pcie.hotplug);
    v("reports_active", pcie.reports_active);
    v.named("link", pcie.link_status, links);
}

template <typename V>
void visit(V &v, pci_function &f)
{
    v("id", f.id);
    v("parent", f.parent);
    v.hex("vendor", f.vendor);
    v.hex("device", f.device);
    v.hex("subsystem_vendor", f.subsystem_vendor);
    v.hex("subsystem_device", f.subsystem_device);
    v.hex("class", f.class_code);
    v.hex("header_type", f.header_type);
    v("config_size", f.config_size);
    v("capabilities", f.capabilities);
    if (V::reads || std::count(f.capabilities.begin(), f.capabilities.end(), "pcie") > 0)
        v.object("pcie", f.pcie);
    v.list("config", f.config_registers);
    v.list("bars", f.windows);
}

template <typename V>
void visit(V &v, chassis_description::slot &slot)
{
    v("name", slot.name);
    v("address", slot.address);
}

template <typename V>
void visit(V &v, fpga_card &card)
{
    v("slot", card.slot);
    v("port", card.port);
    v("id", card.id);
    v("code", card.code);
    v("bar_sizes", card.bar_sizes);
}

template <typename V>
void visit(V &v, chassis_description::bridge &bridge)
{
    v("id", bridge.id);
    v("appears_ms", bridge.appears_ms);
    v.object("behind", bridge.behind);
}

template <typename V>
void visit(V &v, uio_map &map)
{
    v("map", map.name);
    visit_line(v, "name", map.label);
    visit_line(v, "addr", map.addr);
    visit_line(v, "offset", map.offset);
    visit_line(v, "size", map.size);
    v.unless_empty("register_map", map.register_map);
    register_map::visit_registers(v, "registers", map.registers);
}

template <typename V>
void visit(V &v, preset_register &r)
{
    v.hex("address", r.address);
    v.hex("value", r.value);
}

template <typename V>
void visit(V &v, register_answer &answer)
{
    v.hex("address", answer.address);
    v.hex("mask", answer.mask);
    v.hex("value", answer.value);
    v.hex("then_address", answer.then_address);
    v.hex("then_value", answer.then_value);
}

template <typename V>
void visit(V &v, uio_description &uio)
{
    v("number", uio.number);
    v("name", uio.label);
    v("plugged", uio.plugged);
    v("removal_notice", uio.removal_notice);
    v("irq_control", uio.irq_control);
    v("irq_delay_ms", uio.irq_delay_ms);
    v.list("maps", uio.maps);
    v.list("registers", uio.registers);
    v.list("answers", uio.answers);
}

template <typename V>
void visit(V &v, chassis_description::log_settings &logs)
{
    v("chassis", logs.chassis);
    v("pod", logs.pod);
    v("post", logs.post);
    v("states", logs.states);
    v("unreachable", logs.unreachable);
}

template <typename V>
void visit(V &v, chassis_description::eeprom &eeprom)
{
    v("path", eeprom.path);
    v("size", eeprom.size);
}

template <typename V>
void visit(V &v, call_fault &fault)
{
    v("device", fault.device);
    v("call", fault.call);
    v("nth", fault.nth);
    v.named("error", fault.error, errors);
}

template <typename V>
void visit(V &v, timed_line &line)
{
    v("at_ms", line.at_ms);
    v("every_ms", line.every_ms);
    v("do", line.line);
}

template <typename V>
void visit(V &v, memory_range &range)
{
    v.hex("address", range.address);
    v.hex("size", range.size);
    visit_bytes(v, "bytes", range.contents);
    v.unless_empty("register_map", range.register_map);
    register_map::visit_registers(v, "registers", range.registers);
}

template <typename V>
void visit(V &v, chassis_description &chassis)
{
    v.list("functions", chassis.functions);
    v.list("slots", chassis.slots);
    v.list("fpga_cards", chassis.fpga_cards);
    v.list("hotswap_bridges", chassis.hotswap_bridges);
    v.list("uio", chassis.uio);
    v.object("logs", chassis.logs);
    v.list("memory", chassis.memory);
    v.list("eeproms", chassis.eeproms);
    v.list("faults", chassis.faults);
    v.list("timeline", chassis.timeline);
    v("pci_devices", chassis.pci_devices);
}

namespace
{

// Adds the registers of a map's file to those that stand in the description; of a file with those
// of several windows, those of this one.
void load(std::string &file, std::vector<register_map::reg> &registers, const std::string &where,
          const std::filesystem::path &directory, uint32_t window = 0)
{
    if (file.empty())
        return;
    try {
        const register_map::map map = register_map::read(directory / file);
        for (const register_map::reg &one : map.registers)
            if (one.window == window || map.windows() == 1)
                registers.push_back(one);
    } catch (const std::runtime_error &error) {
        throw invalid(where + "/register_map: " + error.what());
    }
    file.clear();
}

void load_register_maps(chassis_description &chassis, const std::filesystem::path &directory)
{
    const auto at = [](const char *list, size_t i) { return list + std::to_string(i); };
    for (size_t i = 0; i < chassis.uio.size(); ++i)
        for (size_t k = 0; k < chassis.uio[i].maps.size(); ++k) {
            uio_map &map = chassis.uio[i].maps[k];
            unsigned number = 0;
            std::sscanf(map.name.c_str(), "map%3u", &number);
            load(map.register_map, map.registers, at("/uio/", i) + at("/maps/", k), directory,
                 number);
        }
    const auto load_of = [&](pci_function &function, const std::string &where) {
        for (size_t k = 0; k < function.windows.size(); ++k)
            load(function.windows[k].register_map, function.windows[k].registers,
                 where + at("/bars/", k), directory, static_cast<uint32_t>(k));
    };
    for (size_t i = 0; i < chassis.functions.size(); ++i)
        load_of(chassis.functions[i], at("/functions/", i));
    for (size_t i = 0; i < chassis.hotswap_bridges.size(); ++i)
        load_of(chassis.hotswap_bridges[i].behind, at("/hotswap_bridges/", i) + "/behind");
    for (size_t i = 0; i < chassis.memory.size(); ++i)
        load(chassis.memory[i].register_map, chassis.memory[i].registers, at("/memory/", i),
             directory);
}

} // namespace

std::string description_text(const chassis_description &description)
{
    chassis_description copy = description;
    writer members;
    visit(members, copy);
    return json_members::text_of(members.take(), 2);
}

chassis_description parse_description(const std::string &text, const std::string &name)
{
    const json document = json_members::parsed(text, true);
    if (document.is_discarded())
        throw failure(name + " is not JSON");
    try {
        chassis_description chassis;
        reader members(document, "");
        visit(members, chassis);
        members.finish();
        load_register_maps(chassis, std::filesystem::path(name).parent_path());
        check(chassis);
        return chassis;
    } catch (const invalid &error) {
        throw failure(error.what());
    }
}

chassis_description read_description(const std::string &path)
{
    constexpr std::streamsize largest = 16 << 20; // a pipe may go on for ever
    std::string text(largest, '\0');
    std::ifstream file(path, std::ios::binary);
    text.resize(static_cast<size_t>(file.read(text.data(), largest).gcount()));
    if (text.empty())
        throw failure("cannot read a description from " + path);
    return parse_description(text, path);
}

} // namespace chassis_sim

// Checks descriptions: names, references, numbers, and paths.
#include "sim/program/description_check.h"

#include "register_map/register_map_json.h"

#include <algorithm>
#include <set>

namespace chassis_sim
{
namespace
{

using std::string;
using std::to_string;

constexpr int longest_time = 24 * 60 * 60 * 1000;
constexpr uint64_t largest_window = uint64_t{1} << 40;
constexpr size_t largest_eeprom = 16 << 20;
constexpr uint64_t end_of_memory = uint64_t{1} << 46;
constexpr unsigned int most_uio_numbers = 64; // those after them are of NVRAM blocks
constexpr size_t bar_count = 6;

void require(bool good, const string &where, const string &why)
{
    if (!good)
        throw json_members::invalid(where + " " + why);
}

string at(const string &list, size_t index)
{
    return list + "/" + to_string(index);
}

// Of a file: no way to another directory.
bool is_name(const string &text)
{
    return !text.empty() && text.size() <= 64 && text != "." && text != ".." &&
           std::none_of(text.begin(), text.end(), [](unsigned char byte) {
               return byte <= ' ' || byte == '/' || byte > '~';
           });
}

// A path in the chassis, in one of the directories that are its own.
bool is_own_path(const string &path)
{
    size_t slash = 0;
    int names = 0;
    while (slash < path.size() && path[slash] == '/') {
        const size_t end = std::min(path.find('/', slash + 1), path.size());
        if (!is_name(path.substr(slash + 1, end - slash - 1)))
            return false;
        slash = end;
        ++names;
    }
    const bool is_own = path.starts_with("/sys/") || path.starts_with("/dev/") ||
                        path.starts_with("/var/") || path.starts_with("/flash/");
    return names >= 2 && slash == path.size() && is_own;
}

class checker
{
public:
    void check(const chassis_description &chassis);

private:
    void check_id(const string &id, const string &where);
    void check_parts(const pci_function &function, const string &where);
    void check_window(const pci_window &window, const string &where);
    void check_function(const pci_function &function, const string &where);
    void check_fpga_card(const fpga_card &card, const string &where);
    void check_bridge(const chassis_description::bridge &bridge, const string &where);
    void check_uio(const uio_description &uio, const string &where);
    void check_old_registers(const uio_description &uio, const string &where);
    void check_memory(const std::vector<memory_range> &ranges);
    void check_interrupts(const std::vector<register_map::reg> &registers, const string &where);
    void check_logs(const chassis_description &chassis);
    void check_faults(const chassis_description &chassis);
    void check_times(const std::vector<timed_line> &lines);
    void check_eeprom(const chassis_description::eeprom &eeprom, const string &where);

    std::set<string> ids_;     // of functions
    std::set<string> devices_; // of UIO devices
    std::set<string> paths_;
};

void checker::check_id(const string &id, const string &where)
{
    require(is_pci_id(id), where, "'" + id + "' is not a PCI address");
    require(ids_.insert(id).second, where, "'" + id + "' is there already");
}

void checker::check_interrupts(const std::vector<register_map::reg> &registers, const string &where)
{
    for (size_t i = 0; i < registers.size(); ++i)
        for (size_t k = 0; k < registers[i].on_write.size(); ++k) {
            const string &device = registers[i].on_write[k].interrupt;
            require(device.empty() || devices_.contains(device),
                    at(at(where, i) + "/on_write", k) + "/interrupt",
                    "names '" + device + "', which does not exist");
        }
}

void checker::check_window(const pci_window &window, const string &where)
{
    require(window.size <= largest_window, where + "/size", "is larger than 2^40");
    require(window.start <= UINT64_MAX - window.size, where + "/start", "is too large");
    register_map::check(window.registers, where + "/registers", std::max<uint64_t>(window.size, 1));
    check_interrupts(window.registers, where + "/registers");
}

void checker::check_parts(const pci_function &f, const string &where)
{
    require(f.config_size == 256 || f.config_size == 4096, where + "/config_size",
            "is not 256 or 4096");
    require(f.class_code <= 0xffffff, where + "/class", "has more than three bytes");
    std::set<string> capabilities;
    for (size_t i = 0; i < f.capabilities.size(); ++i) {
        const string &name = f.capabilities[i];
        require(name == "pm" || name == "msi" || name == "pcie", at(where + "/capabilities", i),
                "cannot be '" + name + "'");
        require(capabilities.insert(name).second, at(where + "/capabilities", i),
                "is there already");
    }
    require(f.pcie.type <= 0xf, where + "/pcie/type", "is larger than 15");
    for (size_t i = 0; i < f.config_registers.size(); ++i) {
        const register_value &r = f.config_registers[i];
        const string place = at(where + "/config", i);
        require(r.width == 1 || r.width == 2 || r.width == 4, place + "/width", "is not 1, 2 or 4");
        require(uint64_t{r.offset} + r.width <= f.config_size, place + "/offset",
                "lies outside the configuration space");
    }
    require(f.windows.size() <= bar_count, where + "/bars", "are more than six");
    for (size_t i = 0; i < f.windows.size(); ++i)
        check_window(f.windows[i], at(where + "/bars", i));
}

void checker::check_function(const pci_function &f, const string &where)
{
    require(f.parent.empty() || ids_.contains(f.parent), where + "/parent",
            "names '" + f.parent + "', which is not a function before it");
    check_id(f.id, where + "/id");
    check_parts(f, where);
}

void checker::check_fpga_card(const fpga_card &card, const string &where)
{
    require(is_name(card.slot), where + "/slot", "is not a name");
    check_id(card.port, where + "/port");
    check_id(card.id, where + "/id");
    require(!card.bar_sizes.empty() && card.bar_sizes.size() <= bar_count &&
                card.bar_sizes[0] >= 0x2c,
            where + "/bar_sizes", "are not one to six, with the registers of an FPGA in the first");
    for (const uint64_t size : card.bar_sizes)
        require(size <= largest_window, where + "/bar_sizes", "are larger than 2^40");
}

void checker::check_bridge(const chassis_description::bridge &bridge, const string &where)
{
    check_id(bridge.id, where + "/id");
    check_id(bridge.behind.id, where + "/behind/id");
    require(bridge.behind.parent.empty() || bridge.behind.parent == bridge.id,
            where + "/behind/parent", "is not the bridge");
    check_parts(bridge.behind, where + "/behind");
    require(bridge.appears_ms >= -1 && bridge.appears_ms <= longest_time, where + "/appears_ms",
            "is not between -1 and a day");
}

void checker::check_old_registers(const uio_description &uio, const string &where)
{
    for (size_t i = 0; i < uio.registers.size(); ++i)
        require(uio.registers[i].address % 4 == 0, at(where + "/registers", i) + "/address",
                "is no multiple of 4");
    for (size_t i = 0; i < uio.answers.size(); ++i) {
        const register_answer &answer = uio.answers[i];
        require(answer.address % 4 == 0, at(where + "/answers", i) + "/address",
                "is no multiple of 4");
        require(answer.then_address % 4 == 0, at(where + "/answers", i) + "/then_address",
                "is no multiple of 4");
    }
}

void checker::check_uio(const uio_description &uio, const string &where)
{
    require(is_name(uio.label), where + "/name", "is not a name");
    require(uio.irq_delay_ms >= -1 && uio.irq_delay_ms <= longest_time, where + "/irq_delay_ms",
            "is not between -1 and a day");
    std::set<string> names;
    for (size_t i = 0; i < uio.maps.size(); ++i) {
        const uio_map &map = uio.maps[i];
        const string place = at(where + "/maps", i);
        require(is_name(map.name), place + "/map", "is not a name");
        require(names.insert(map.name).second, place + "/map",
                "'" + map.name + "' is there already");
        const auto range = map_range(map.name, map.size);
        require(range || map.registers.empty(), place + "/size",
                "is none of a map that has registers");
        register_map::check(map.registers, place + "/registers", range ? range->size : 1);
        check_interrupts(map.registers, place + "/registers");
    }
    check_old_registers(uio, where);
}

void checker::check_memory(const std::vector<memory_range> &ranges)
{
    uint64_t end = 0;
    for (size_t i = 0; i < ranges.size(); ++i) {
        const memory_range &range = ranges[i];
        const string where = at("/memory", i);
        require(range.address % 4096 == 0, where + "/address", "is no multiple of 4096");
        require(range.address >= end, where + "/address", "lies before the end of the range above");
        require(range.size > 0 && range.size <= largest_window && range.address < end_of_memory,
                where + "/size", "is none of a range below 2^46");
        require(range.contents.size() <= range.size, where + "/bytes", "are more than the range's");
        register_map::check(range.registers, where + "/registers", range.size);
        check_interrupts(range.registers, where + "/registers");
        end = range.address + range.size;
    }
}

void checker::check_logs(const chassis_description &chassis)
{
    const auto &logs = chassis.logs;
    require(logs.chassis == "n20" || logs.chassis == "n10" || logs.chassis == "n4", "/logs/chassis",
            "cannot be '" + logs.chassis + "'");
    const string log_states[] = {"sample",      "blank",       "full",       "torn",
                                 "bad-entry-0", "bad-entry-1", "bad-entry-2"};
    for (const auto &[card, state] : logs.states)
        require(std::find(std::begin(log_states), std::end(log_states), state) !=
                    std::end(log_states),
                "/logs/states/" + card, "cannot be '" + state + "'");
}

void checker::check_faults(const chassis_description &chassis)
{
    std::set<string> known = devices_;
    for (const char *name : {"nvlog-pod", "nvlog-ofw-event", "nvlog-diag-test", "nvlog-diag-error"})
        known.insert(name);
    for (size_t i = 0; i < chassis.faults.size(); ++i) {
        const call_fault &fault = chassis.faults[i];
        const string where = at("/faults", i);
        require(known.contains(fault.device), where + "/device",
                "names '" + fault.device + "', which does not exist");
        const bool is_uio = devices_.contains(fault.device);
        require(fault.call == "open" || fault.call == "read" || fault.call == "write" ||
                    (fault.call == "mmap" && is_uio),
                where + "/call", "cannot be '" + fault.call + "'");
        require(fault.error != 0, where + "/error", "is missing");
    }
}

void checker::check_times(const std::vector<timed_line> &lines)
{
    for (size_t i = 0; i < lines.size(); ++i) {
        const string where = at("/timeline", i);
        require(lines[i].at_ms >= 0 && lines[i].at_ms <= longest_time, where + "/at_ms",
                "is not between 0 and a day");
        require(lines[i].every_ms >= 0 && lines[i].every_ms <= longest_time, where + "/every_ms",
                "is not between 0 and a day");
        require(!lines[i].line.empty(), where + "/do", "is missing");
    }
}

void checker::check_eeprom(const chassis_description::eeprom &eeprom, const string &where)
{
    require(is_own_path(eeprom.path), where + "/path",
            "'" + eeprom.path + "' is not a file in /sys, /dev, /var or /flash");
    require(paths_.insert(eeprom.path).second, where + "/path", "is there already");
    require(eeprom.size <= largest_eeprom, where + "/size", "is larger than 16 MiB");
}

void checker::check(const chassis_description &chassis)
{
    for (size_t i = 0; i < chassis.uio.size(); ++i) {
        const string where = at("/uio", i) + "/number";
        require(chassis.uio[i].number < most_uio_numbers, where, "is larger than 63");
        const string name = "uio" + to_string(chassis.uio[i].number);
        require(devices_.insert(name).second, where,
                to_string(chassis.uio[i].number) + " is there already");
    }
    for (size_t i = 0; i < chassis.functions.size(); ++i)
        check_function(chassis.functions[i], at("/functions", i));
    std::set<string> slots;
    for (size_t i = 0; i < chassis.slots.size(); ++i) {
        require(is_name(chassis.slots[i].name), at("/slots", i) + "/name", "is not a name");
        require(slots.insert(chassis.slots[i].name).second, at("/slots", i) + "/name",
                "'" + chassis.slots[i].name + "' is there already");
        require(is_pci_id(chassis.slots[i].address + ".0"), at("/slots", i) + "/address",
                "'" + chassis.slots[i].address + "' is not the address of a slot");
    }
    std::set<string> cards;
    for (size_t i = 0; i < chassis.fpga_cards.size(); ++i) {
        check_fpga_card(chassis.fpga_cards[i], at("/fpga_cards", i));
        require(cards.insert(chassis.fpga_cards[i].slot).second, at("/fpga_cards", i) + "/slot",
                "is there already");
    }
    for (size_t i = 0; i < chassis.hotswap_bridges.size(); ++i)
        check_bridge(chassis.hotswap_bridges[i], at("/hotswap_bridges", i));
    for (size_t i = 0; i < chassis.uio.size(); ++i)
        check_uio(chassis.uio[i], at("/uio", i));
    check_memory(chassis.memory);
    check_logs(chassis);
    for (size_t i = 0; i < chassis.eeproms.size(); ++i)
        check_eeprom(chassis.eeproms[i], at("/eeproms", i));
    check_faults(chassis);
    check_times(chassis.timeline);
    require(chassis.pci_devices <= most_pci_devices, "/pci_devices",
            "are more than " + to_string(most_pci_devices));
}

} // namespace

void check(const chassis_description &chassis)
{
    checker().check(chassis);
}

} // namespace chassis_sim

// Reads what is known of a machine out of its files.
#include "tools/machine/model.h"

#include "tools/base/errors.h"
#include "tools/base/output.h"
#include "tools/podlog/podlog_commands.h"
#include "tools/postlog/postlog_commands.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>

#include <fmt/format.h>
#include <linux/pci_regs.h>

namespace devaccess
{
namespace
{

constexpr size_t cut_config = 64; // what the kernel shows without special rights

uint32_t number_in(const std::string &text)
{
    return static_cast<uint32_t>(std::strtoul(text.c_str(), nullptr, 0));
}

// The ids of the functions on the way to one, itself being the last.
std::vector<std::string> way_to(const std::string &path)
{
    std::vector<std::string> way;
    std::istringstream parts(path);
    for (std::string part; std::getline(parts, part, '/');)
        if (parse_pci_device(part))
            way.push_back(part);
    return way;
}

// From the last slot on the way or, without one, from the root bus.
std::string key_of(const std::vector<std::string> &way,
                   const std::map<std::string, std::string> &slots)
{
    std::string key;
    for (const std::string &id : way) {
        const std::string place = id.substr(id.rfind(':') + 1);
        const auto slot = slots.find(id.substr(0, id.find('.')));
        if (slot != slots.end())
            key = "slot-" + slot->second + "/" + place;
        else
            key = key.empty() ? id : key + "/" + place;
    }
    return key;
}

std::string counted_in(const std::string &counters)
{
    std::string list;
    std::istringstream words(counters);
    std::string name;
    for (uint64_t count = 0; words >> name >> count;)
        if (count > 0 && !name.starts_with("TOTAL_ERR_"))
            list += fmt::format("{}{} {}", list.empty() ? "" : ", ", printable(name), count);
    return list;
}

link_rate rate_in(const machine_source &machine, const std::string &directory, const char *which)
{
    const std::string speed = machine.line(directory + which + "_link_speed");
    link_rate rate = {0, number_in(machine.line(directory + which + "_link_width"))};
    const auto transfers = static_cast<int64_t>(std::strtod(speed.c_str(), nullptr) * 1e9);
    for (uint32_t code = 1; code <= 6; ++code)
        if (transfers_per_second(code) == transfers)
            rate.speed = code;
    return rate;
}

} // namespace

std::string machine_function::ids() const
{
    return fmt::format("{:04x}:{:04x}", vendor, device);
}

std::string rate_text(const link_rate &rate)
{
    return fmt::format("{:.1f} GT/s x{}",
                       static_cast<double>(transfers_per_second(rate.speed)) / 1e9, rate.width);
}

machine_model::machine_model(const machine_source &machine, model_part part)
    : facts_(machine.facts()), option_(machine.option())
{
    add_slots(machine);
    add_functions(machine);
    add_links(machine);
    if (part == model_part::functions)
        return;
    is_chassis_ = !facts_.chassis.empty() || !machine.names_in("/sys/class/zmt_nvram").empty();
    add_nodes(machine);
    add_pod_logs(machine);
    add_post_logs(machine);
    std::stable_sort(entries_.begin(), entries_.end(),
                     [](const auto &one, const auto &other) { return one.time < other.time; });
}

const machine_function *machine_model::find(const std::string &id) const
{
    const auto found = std::lower_bound(
        functions_.begin(), functions_.end(), id,
        [](const auto &one, const std::string &wanted) { return one.id < wanted; });
    return found == functions_.end() || found->id != id ? nullptr : &*found;
}

const machine_function *machine_model::at(const std::string &key) const
{
    const auto found = std::find_if(functions_.begin(), functions_.end(),
                                    [&](const auto &one) { return one.key == key; });
    return found == functions_.end() ? nullptr : &*found;
}

const config_space &machine_model::config(const machine_function &function) const
{
    return configs_[static_cast<size_t>(&function - functions_.data())];
}

//--- functions ------------------------------------------------------------------------------------

void machine_model::add_slots(const machine_source &machine)
{
    const std::string all = "/sys/bus/pci/slots/";
    for (const std::string &name : machine.names_in(all))
        slots_.push_back({printable(name), machine.line(all + name + "/address"),
                          machine.line(all + name + "/adapter") == "1"});
}

void machine_model::add_functions(const machine_source &machine)
{
    std::map<std::string, std::string> slots;
    for (const machine_slot &slot : slots_)
        slots.emplace(slot.address, slot.name);
    for (const std::string &id : machine.names_in(pci_directory)) // sorted, as find() needs them
        if (parse_pci_device(id))
            add_function(machine, id, slots);
}

void machine_model::add_function(const machine_source &machine, const std::string &id,
                                 const std::map<std::string, std::string> &slots)
{
    const std::string directory = pci_directory + id + "/";
    const auto way = way_to(machine.real_path(pci_directory + id));
    machine_function function;
    function.id = id;
    function.key = way.empty() ? id : key_of(way, slots);
    function.parent = way.size() > 1 ? way[way.size() - 2] : "";
    if (const auto slot = slots.find(id.substr(0, id.find('.'))); slot != slots.end())
        function.slot = slot->second;
    function.vendor = number_in(machine.line(directory + "vendor"));
    function.device = number_in(machine.line(directory + "device"));
    function.class_code = number_in(machine.line(directory + "class"));
    const std::string driver = machine.target(directory + "driver");
    function.driver = printable(driver.substr(driver.rfind('/') + 1));
    function.driver_override = printable(machine.line(directory + "driver_override"));
    if (function.driver_override == "(null)")
        function.driver_override.clear();
    std::string bytes;
    try {
        bytes = machine.read(directory + "config").value_or("");
        function.unassigned = unassigned_bars(machine.read(directory + "resource").value_or(""));
        for (const char *severity : {"correctable", "nonfatal", "fatal"})
            if (const auto counters = machine.read(directory + "aer_dev_" + severity))
                if (const auto total = total_errors(*counters)) {
                    function.errors[severity] = *total;
                    function.counted[severity] = counted_in(*counters);
                }
    } catch (const failure &failed) {
        function.problem = printable(failed.what());
    }
    configs_.emplace_back(id, bytes);
    const auto status = configs_.back().try_read(PCI_STATUS, 16);
    function.is_cut = bytes.size() == cut_config && status && (*status & PCI_STATUS_CAP_LIST) != 0;
    functions_.push_back(std::move(function));
}

void machine_model::add_links(const machine_source &machine)
{
    const bool shows_all = std::none_of(functions_.begin(), functions_.end(),
                                        [](const auto &one) { return one.is_cut; });
    for (const pcie_link &link : shows_all ? links_among(configs_) : links_by_attributes(machine))
        links_.push_back({link, find(link.port.id), link.other ? find(link.other->id) : nullptr});
}

// Everybody may read these, but they do not tell kinds of ports: seen from the root, every second
// link is one inside a switch.
std::vector<pcie_link> machine_model::links_by_attributes(const machine_source &machine) const
{
    std::vector<pcie_link> links;
    for (const machine_function &other : functions_) {
        int above = 0;
        for (const machine_function *at = find(other.parent); at && above < 64; ++above)
            at = find(at->parent);
        const machine_function *const port = find(other.parent);
        if (!port || above % 2 == 0 || !other.id.ends_with(".0"))
            continue;
        const auto end_of = [&](const machine_function &function) {
            const std::string directory = pci_directory + function.id + "/";
            link_end end = {function.id,
                            &function == port,
                            0,
                            true,
                            rate_in(machine, directory, "current"),
                            rate_in(machine, directory, "max")};
            end.is_up = end.now.width > 0;
            return end;
        };
        const pcie_link link = {end_of(*port), end_of(other)};
        if (link.port.most.width > 0 && link.other->most.width > 0)
            links.push_back(link);
    }
    return links;
}

//--- nodes and logs -------------------------------------------------------------------------------

void machine_model::add_nodes(const machine_source &machine)
{
    const std::string all = "/sys/class/uio/";
    for (const std::string &name : machine.names_in(all)) {
        machine_node node;
        node.name = printable(name);
        node.device = printable(machine.line(all + name + "/name"));
        node.windows = static_cast<int>(machine.names_in(all + name + "/maps").size() +
                                        machine.names_in(all + name + "/portio").size());
        for (const auto &unusable : facts_.nodes)
            if (unusable.name == name)
                node.problem = unusable.problem;
        nodes_.push_back(std::move(node));
    }
}

void machine_model::add_pod_logs(const machine_source &machine)
{
    const log_place place = log_place().in(machine);
    const std::vector<pod_card> cards = cards_of(machine);
    for (const pod_card &card : cards) {
        const log_storage storage(place, card);
        if (storage.path().empty()) // the library has no file for this card
            continue;
        const log_findings found = storage.look();
        machine_log log = {"pod", card.name, found.state, printable(found.problem)};
        log.is_kept_apart = storage.is_nvram();
        log.check = podlog_command("check " + card.name, place);
        if (found.log)
            for (const log_history *history : found.log->written())
                for (const log_record &slot : found.log->chain(*history)) {
                    const log_entry entry = found.log->entry(slot);
                    entries_.push_back(
                        {"pod", card.name, history->number, entry.time, printable(entry.message)});
                    ++log.entries;
                }
        logs_.push_back(std::move(log));
    }
    try {
        for (const card_status &card : card_statuses(cards, place))
            cards_.push_back({card.name, card.status, card.fault_injected});
    } catch (const failure &) { // as the state of the log says
    }
}

void machine_model::add_post_logs(const machine_source &machine)
{
    const postlog_place place = postlog_place().in(machine);
    for (const post_block &block : open_blocks(place)) {
        const post_findings found = block.look();
        machine_log log = {"post", block.name(), found.state, printable(found.problem), true};
        log.check = place.command(std::string("check ") + block.name());
        if (found.log)
            for (const post_history *history : found.log->written())
                for (const log_record &slot : history->chain()) {
                    const post_entry entry = found.log->entry(slot);
                    entries_.push_back({"post", block.name(), history->number, entry.time,
                                        printable(entry.message)});
                    ++log.entries;
                }
        logs_.push_back(std::move(log));
    }
}

} // namespace devaccess

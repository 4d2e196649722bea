// The state of a machine as monitoring systems read it: OpenMetrics text, in which all are gauges,
// so that it is the older text format of their agents too.
#include "tools/base/errors.h"
#include "tools/base/files.h"
#include "tools/base/fleet.h"
#include "tools/base/output.h"
#include "tools/base/settings.h"
#include "tools/cli/options.h"
#include "tools/machine/machine_commands.h"
#include "tools/pci/link.h"
#include "tools/podlog/podlog_commands.h"
#include "tools/postlog/postlog_commands.h"

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <map>

#include <fmt/format.h>

namespace devaccess
{
namespace
{

namespace fs = std::filesystem;

struct metrics_arguments {
    archive_names from;
    std::string file;
    postlog_place post;
};

constexpr struct {
    const char *name;
    const char *help;
} metric_families[] = {
    {"build_info", "Version of devaccess, and the table of cards that it used."},
    {"last_run_timestamp_seconds", "When all of these were read."},
    {"pod_status", "Whether this is the result of a card's power-on diagnostics."},
    {"pod_fault_injected", "Whether the fault-injection flag of a card is set."},
    {"pod_storage_good",
     "Whether the storage of a card's POD log can be read and has no bad record."},
    {"pod_storage_state", "Whether the storage of a card's POD log is in this state."},
    {"pod_histories", "Histories of a card's POD log that have entries."},
    {"pod_entries", "Entries of a card's POD log."},
    {"pod_last_entry_timestamp_seconds", "Time of the last entry of a card's POD log."},
    {"post_storage_good", "Whether all of a block of the POST log can be read."},
    {"post_storage_state", "Whether a block of the POST log is in this state."},
    {"post_histories", "Histories of a block of the POST log."},
    {"post_entries", "Entries of a block of the POST log."},
    {"post_last_entry_timestamp_seconds", "Time of the last entry of a block of the POST log."},
    {"post_errors", "Entries of the POST log of errors."},
    {"pcie_link_info", "What is at the other end of a PCI Express port's link, and in which slot."},
    {"pcie_link_up", "Whether the link of a PCI Express port is up."},
    {"pcie_link_speed_transfers_per_second", "Speed of a port's link; 0 when it is down."},
    {"pcie_link_width_lanes", "Width of a port's link; 0 when it is down."},
    {"pcie_link_max_speed_transfers_per_second", "Highest speed of a port's link."},
    {"pcie_link_max_width_lanes", "Greatest width of a port's link."},
    {"pcie_link_possible_speed_transfers_per_second",
     "Highest speed that both ends of a link can."},
    {"pcie_link_possible_width_lanes", "Greatest width that both ends of a link can."},
    {"pcie_errors", "Errors of a function that the kernel has counted."},
};

using labels = std::vector<std::pair<std::string, std::string>>;

// The value of a label, in which there are no line breaks.
std::string escaped(const std::string &value)
{
    std::string text;
    for (const char c : value) {
        if (c == '"' || c == '\\')
            text += '\\';
        text += c;
    }
    return text;
}

class gauges
{
public:
    // What is added next is of this host; of none when it is empty.
    void begin(const std::string &host)
    {
        host_ = host.empty() ? labels() : labels{{"host", host}};
    }

    void add(const std::string &family, const labels &of, int64_t value)
    {
        labels all = host_;
        all.insert(all.end(), of.begin(), of.end());
        samples_[family].push_back({std::move(all), value});
    }

    std::string text() const
    {
        std::string text;
        for (const auto &family : metric_families) {
            text += fmt::format("# HELP devaccess_{0} {1}\n# TYPE devaccess_{0} gauge\n",
                                family.name, family.help);
            for (const sample &one : samples_of(family.name)) {
                std::string list;
                for (const auto &[name, value] : one.of)
                    list +=
                        fmt::format("{}{}=\"{}\"", list.empty() ? "" : ",", name, escaped(value));
                text += fmt::format("devaccess_{}{} {}\n", family.name,
                                    list.empty() ? "" : "{" + list + "}", one.value);
            }
        }
        return text + "# EOF\n";
    }

    record as_record() const
    {
        record_set set = {"metrics", {}};
        for (const auto &family : metric_families)
            for (const sample &one : samples_of(family.name)) {
                field_value::object list;
                for (const auto &[name, value] : one.of)
                    list.push_back({name, value});
                set.rows.push_back(record()
                                       .add("metric", fmt::format("devaccess_{}", family.name))
                                       .add("labels", list)
                                       .add("value", one.value));
            }
        return record().add(std::move(set));
    }

private:
    struct sample {
        labels of;
        int64_t value;
    };

    std::vector<sample> samples_of(const std::string &family) const
    {
        const auto found = samples_.find(family);
        return found == samples_.end() ? std::vector<sample>() : found->second;
    }

    labels host_;
    std::map<std::string, std::vector<sample>> samples_;
};

//--- logs -----------------------------------------------------------------------------------------

void add_card(gauges &all, const log_storage &storage)
{
    const labels of = {{"card", storage.card().name}};
    const log_findings found = storage.look();
    all.add("pod_storage_good", of, found.state == storage_state::good);
    for (const storage_state state : all_storage_states)
        all.add("pod_storage_state", {{"card", storage.card().name}, {"state", name_of(state)}},
                found.state == state);
    if (!found.log)
        return;
    const auto histories = found.log->written();
    size_t entries = 0;
    for (const log_history *history : histories)
        entries += found.log->chain(*history).size();
    all.add("pod_histories", of, static_cast<int64_t>(histories.size()));
    all.add("pod_entries", of, static_cast<int64_t>(entries));
    if (!histories.empty())
        all.add("pod_last_entry_timestamp_seconds", of,
                found.log->entry(found.log->chain(*histories.front()).back()).time);
}

// Without a readable NVRAM there are none; that its storage is not good says so.
void add_statuses(gauges &all, const std::vector<pod_card> &cards, const log_place &place)
{
    std::vector<card_status> statuses;
    try {
        statuses = card_statuses(cards, place);
    } catch (const failure &) {
        return;
    }
    for (const card_status &card : statuses) {
        for (const char *status : {"Passed", "Failed", "Invalid"})
            all.add("pod_status", {{"card", card.name}, {"status", status}}, card.status == status);
        all.add("pod_fault_injected", {{"card", card.name}}, card.fault_injected);
    }
}

void add_block(gauges &all, const post_block &block)
{
    const labels of = {{"block", block.name()}};
    const post_findings found = block.look();
    all.add("post_storage_good", of, found.state == storage_state::good);
    for (const storage_state state : all_storage_states)
        all.add("post_storage_state", {{"block", block.name()}, {"state", name_of(state)}},
                found.state == state);
    if (!found.log)
        return;
    const auto histories = found.log->written();
    size_t entries = 0;
    for (const post_history *history : histories)
        entries += history->chain().size();
    all.add("post_histories", of, static_cast<int64_t>(histories.size()));
    all.add("post_entries", of, static_cast<int64_t>(entries));
    if (!histories.empty())
        all.add("post_last_entry_timestamp_seconds", of,
                found.log->entry(histories.front()->chain().back()).time);
    if (block.name() == std::string("error"))
        all.add("post_errors", {}, static_cast<int64_t>(entries));
}

//--- links ----------------------------------------------------------------------------------------

void add_link(gauges &all, const pcie_link &link, const std::map<std::string, std::string> &slots)
{
    const link_end &port = link.port;
    const labels of = {{"port", port.id}};
    const std::string other = link.other ? link.other->id : "";
    const auto slot = slots.find(other.substr(0, other.find('.')));
    all.add(
        "pcie_link_info",
        {{"port", port.id}, {"device", other}, {"slot", slot == slots.end() ? "" : slot->second}},
        1);
    all.add("pcie_link_up", of, port.is_up);
    all.add("pcie_link_speed_transfers_per_second", of,
            port.is_up ? transfers_per_second(port.now.speed) : 0);
    all.add("pcie_link_width_lanes", of, port.is_up ? port.now.width : 0);
    all.add("pcie_link_max_speed_transfers_per_second", of, transfers_per_second(port.most.speed));
    all.add("pcie_link_max_width_lanes", of, port.most.width);
    if (const auto possible = link.possible()) {
        all.add("pcie_link_possible_speed_transfers_per_second", of,
                transfers_per_second(possible->speed));
        all.add("pcie_link_possible_width_lanes", of, possible->width);
    }
}

void add_errors(gauges &all, const machine_source &machine, const std::string &id)
{
    for (const char *severity : {"correctable", "nonfatal", "fatal"})
        if (const auto counters = machine.read(pci_directory + id + "/aer_dev_" + severity))
            if (const auto total = total_errors(*counters))
                all.add("pcie_errors", {{"device", id}, {"severity", severity}},
                        static_cast<int64_t>(std::min<uint64_t>(*total, INT64_MAX)));
}

void add_functions(gauges &all, const machine_source &machine)
{
    std::vector<config_space> functions;
    for (const std::string &id : machine.names_in(pci_directory))
        try {
            if (auto config = machine.read(pci_directory + id + "/config"))
                functions.emplace_back(id, std::move(*config));
        } catch (const failure &) { // it has gone
        }
    const auto slots = physical_slots(machine);
    for (const pcie_link &link : links_among(functions))
        add_link(all, link, slots);
    for (const config_space &function : functions)
        try {
            add_errors(all, machine, function.id());
        } catch (const failure &) { // these too
        }
}

//--- the command ----------------------------------------------------------------------------------

void add_machine(gauges &all, const machine_source &machine, const postlog_place &post)
{
    const log_place place = log_place().in(machine);
    all.add("build_info", {{"version", DEVICE_ACCESS_VERSION}, {"table", table_of(machine)}}, 1);
    all.add("last_run_timestamp_seconds", {}, machine.facts().time);
    const std::vector<pod_card> cards = cards_of(machine);
    add_statuses(all, cards, place);
    for (const pod_card &card : cards)
        add_card(all, log_storage(place, card));
    for (const post_block &block : open_blocks(post))
        add_block(all, block);
    add_functions(all, machine);
}

void metrics(const metrics_arguments &arguments)
{
    const bool to_output = arguments.file.empty() || arguments.file == standard_stream;
    const std::string file = to_output ? "" : fs::absolute(arguments.file).string();
    gauges all;
    fleet machines(arguments.from);
    machines.for_each([&](const machine_source &machine, const std::string &host) {
        all.begin(machines.has_several() ? host : "");
        add_machine(all, machine, arguments.post.in(machine));
    });
    if (!file.empty())
        write_file(file, all.text(), false);
    if (settings.as_json)
        print(all.as_record());
    else if (file.empty())
        std::cout << all.text();
    machines.finish();
}

void add_metrics_options(command &to, metrics_arguments &arguments)
{
    to.add_option("--out", "FILE", arguments.file, "Write to FILE, replacing it as a whole")
        .paths();
    add_post_place(to, arguments.post);
    add_archives(to, arguments.from);
}

} // namespace

void describe_metrics(command &to)
{
    to.takes(add_metrics_options, metrics);
}

} // namespace devaccess

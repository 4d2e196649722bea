// devaccess report: machines as one HTML page, for a ticket.
#include "tools/base/captured_call.h"
#include "tools/base/errors.h"
#include "tools/base/files.h"
#include "tools/base/fleet.h"
#include "tools/base/times.h"
#include "tools/machine/findings.h"
#include "tools/machine/machine_commands.h"
#include "tools/machine/report_page.h"
#include "tools/pci/names.h"

#include <kainjow/mustache.hpp>

#include <algorithm>
#include <deque>
#include <map>
#include <set>

#include <fmt/format.h>
#include <sys/random.h>

namespace devaccess
{
namespace
{

using kainjow::mustache::data;
using kainjow::mustache::mustache;

struct report_arguments {
    archive_names archives;
    std::string file;
    std::string against;
    bool force = false;
};

struct reported_machine {
    reported_machine(std::string name, const machine_source &machine)
        : host(std::move(name)), model(machine)
    {
    }

    std::string host;
    machine_model model;
    std::vector<finding> findings;
};

using machines = std::deque<reported_machine>;

// The template escapes every text.
data object(std::initializer_list<std::pair<const char *, data>> members)
{
    data made;
    for (const auto &[name, is] : members)
        made.set(name, is);
    return made;
}

data list()
{
    return data(data::type::list);
}

std::string counted(size_t count)
{
    return std::to_string(count);
}

// Which scripts of the page a browser runs: no log entry can know it.
std::string nonce()
{
    uint64_t number[2] = {};
    if (::getrandom(number, sizeof number, 0) != sizeof number)
        throw failure("make the page", "the kernel gives no random number", "");
    return fmt::format("{:016x}{:016x}", number[0], number[1]);
}

const char *class_of(storage_state state)
{
    switch (state) {
    case storage_state::good:
        return "good";
    case storage_state::damaged:
    case storage_state::foreign:
        return "error";
    case storage_state::empty:
    case storage_state::missing:
        return "soft";
    default:
        return "warning";
    }
}

//--- findings -------------------------------------------------------------------------------------

data findings_of(const machines &all)
{
    data rows = list();
    for (const auto level : {finding_level::error, finding_level::warning, finding_level::unread})
        for (const reported_machine &machine : all)
            for (const finding &one : machine.findings)
                if (one.level == level)
                    rows.push_back(object({{"host", machine.host},
                                           {"level", one.level_name()},
                                           {"id", one.id},
                                           {"reason", one.reason},
                                           {"next", one.next}}));
    return rows;
}

//--- topology -------------------------------------------------------------------------------------

// Boxes below one another, each to the right of the bridge that leads to it.
class picture
{
public:
    explicit picture(const reported_machine &machine) : model_(machine.model)
    {
        for (const machine_function &function : model_.functions())
            if (!model_.find(function.parent))
                add(function, 0, 0);
    }

    void put_into(data &to)
    {
        to.set("nodes", nodes_);
        to.set("width", counted(static_cast<size_t>(width_) + margin));
        to.set("height", counted(static_cast<size_t>(next_) + margin));
    }

private:
    static constexpr int margin = 8, box = 230, height = 34, step_right = 40, step_down = 46;
    static constexpr int deepest = 64;

    const machine_link *link_to(const machine_function &function) const
    {
        for (const machine_link &link : model_.links())
            if (link.other == &function)
                return &link;
        return nullptr;
    }

    void add(const machine_function &function, int depth, int parent_y)
    {
        if (depth > deepest)
            return;
        const int x = margin + depth * step_right;
        const int y = next_;
        next_ += step_down;
        const machine_link *const link = link_to(function);
        const bool is_bad = link && link->is.is_degraded();
        std::string rate = link ? rate_text(link->is.port.now) : "";
        if (is_bad)
            rate += " of " + rate_text(*link->is.possible());
        const int rate_x = x + box + 8;
        width_ = std::max(width_, rate_x + static_cast<int>(rate.size()) * 8);
        const auto text = [](int number) { return std::to_string(number); };
        nodes_.push_back(object({{"has_parent", depth > 0},
                                 {"has_rate", !rate.empty()},
                                 {"mark", is_bad ? "bad" : ""},
                                 {"x", text(x)},
                                 {"y", text(y)},
                                 {"box", text(box)},
                                 {"middle", text(y + height / 2)},
                                 {"from_x", text(x - step_right + 16)},
                                 {"from_y", text(parent_y + height)},
                                 {"text_x", text(x + 8)},
                                 {"text_y", text(y + 15)},
                                 {"name_y", text(y + 28)},
                                 {"rate_x", text(rate_x)},
                                 {"rate_y", text(y + 21)},
                                 {"rate", rate},
                                 {"label", label_of(function)},
                                 {"name", name_of(function)}}));
        for (const machine_function &other : model_.functions())
            if (other.parent == function.id && &other != &function)
                add(other, depth + 1, y);
    }

    static std::string label_of(const machine_function &function)
    {
        return function.id + (function.slot.empty() ? "" : "  slot " + function.slot);
    }
    std::string name_of(const machine_function &function) const
    {
        const std::string kind = names_.device_class(function.class_code).value_or("unknown class");
        return fmt::format("{} {}{}", function.ids(), kind.substr(0, 20),
                           function.driver.empty() ? "" : ", " + function.driver.substr(0, 10));
    }

    const machine_model &model_;
    const pci_names names_;
    data nodes_ = list();
    int next_ = margin;
    int width_ = 0;
};

data links_of(const machine_model &model)
{
    data rows = list();
    for (const machine_link &link : model.links()) {
        const bool is_up = link.is.port.is_up && link.other;
        const bool is_bad = link.is.is_degraded();
        const auto possible = link.is.possible();
        rows.push_back(object({{"from", link.port->id},
                               {"to", link.other ? link.other->id : "-"},
                               {"slot", link.other ? link.other->slot : ""},
                               {"now", is_up ? rate_text(link.is.port.now) : "-"},
                               {"possible", possible ? rate_text(*possible) : "-"},
                               {"row", is_bad ? "bad" : ""},
                               {"level", is_bad  ? "error"
                                         : is_up ? "good"
                                                 : "soft"},
                               {"state", is_bad  ? "degraded"
                                         : is_up ? "full"
                                                 : "nothing there"}}));
    }
    return rows;
}

//--- side by side ---------------------------------------------------------------------------------

struct cell {
    std::string text;
    std::string level; // how it is coloured
};

// Rows by name, of which each has a cell for each machine.
class grid
{
public:
    explicit grid(size_t columns) : columns_(columns) {}

    cell &at(const std::string &row, size_t column)
    {
        const auto [found, is_new] = rows_.try_emplace(row, columns_);
        if (is_new)
            order_.push_back(row);
        return found->second[column];
    }

    // Those cells are marked that differ from the first.
    data rows(bool only_different) const
    {
        data made = list();
        for (const std::string &name : order_) {
            const std::vector<cell> &row = rows_.at(name);
            data cells = list();
            bool differs = false;
            for (const cell &one : row) {
                const bool is_other = one.text != row.front().text;
                differs |= is_other;
                cells.push_back(object({{"text", one.text.empty() ? "-" : one.text},
                                        {"level", one.level},
                                        {"mark", is_other ? "differs" : ""}}));
            }
            if (differs || !only_different)
                made.push_back(object({{"name", name}, {"cells", cells}}));
        }
        return made;
    }

private:
    size_t columns_;
    std::vector<std::string> order_;
    std::map<std::string, std::vector<cell>> rows_;
};

data log_rows(const machines &all)
{
    grid made(all.size());
    for (size_t column = 0; column < all.size(); ++column) {
        const machine_model &model = all[column].model;
        for (const machine_card &card : model.cards())
            made.at("POD result of " + card.name,
                    column) = {card.status + (card.fault_injected ? ", fault injected" : ""),
                               card.status == "Failed"   ? "error"
                               : card.status == "Passed" ? "good"
                                                         : "soft"};
        for (const machine_log &log : model.logs())
            made.at(fmt::format("{} log of {}", log.kind == "pod" ? "POD" : "POST", log.name),
                    column) = {fmt::format("{}, {} entries", name_of(log.state), log.entries),
                               class_of(log.state)};
    }
    return made.rows(false);
}

data function_rows(const machines &all)
{
    grid made(all.size());
    for (size_t column = 0; column < all.size(); ++column) {
        const machine_model &model = all[column].model;
        for (const machine_function &function : model.functions())
            made.at(function.key, column).text =
                function.ids() + (function.driver.empty() ? "" : ", " + function.driver);
        for (const machine_link &link : model.links())
            if (link.other)
                made.at(link.other->key, column).text += ", " + rate_text(link.is.port.now);
        for (const machine_function &function : model.functions())
            for (const auto &[severity, count] : function.errors)
                if (count > 0)
                    made.at(function.key, column).text += fmt::format(", {} {}", count, severity);
    }
    return made.rows(true);
}

//--- time line and registers ----------------------------------------------------------------------

data entries_of(const machines &all)
{
    std::vector<std::pair<const machine_entry *, const std::string *>> entries;
    for (const reported_machine &machine : all)
        for (const machine_entry &entry : machine.model.entries())
            entries.emplace_back(&entry, &machine.host);
    std::stable_sort(entries.begin(), entries.end(), [](const auto &one, const auto &other) {
        return one.first->time < other.first->time;
    });
    data rows = list();
    for (const auto &[entry, host] : entries)
        rows.push_back(object({{"time", time_text(entry->time)},
                               {"host", *host},
                               {"log", entry->kind + " " + entry->name},
                               {"message", entry->message},
                               {"bad", tells_failure(entry->message)}}));
    return rows;
}

data log_names(const machines &all)
{
    std::set<std::string> names;
    for (const reported_machine &machine : all)
        for (const machine_entry &entry : machine.model.entries())
            names.insert(entry.kind + " " + entry.name);
    data rows = list();
    for (const std::string &name : names)
        rows.push_back(name);
    return rows;
}

data registers_of(const config_space &config)
{
    data rows = list();
    const auto add = [&](const register_place &place) {
        if (const auto value = config.try_read(place.offset, place.width))
            rows.push_back(object({{"offset", hex(place.offset, 3)},
                                   {"register", place.name},
                                   {"value", hex(*value, static_cast<int>(place.width / 4))},
                                   {"fields", fields_as_text(place, *value)}}));
    };
    try {
        for (const register_place &place : header_registers(config))
            add(place);
        for (const found_capability &capability : capabilities_of(config).found)
            for (const register_place &place : capability.registers)
                add(place);
    } catch (const failure &) { // it shows no more
    }
    return rows;
}

data functions_of(const machine_model &model, const pci_names &names)
{
    data rows = list();
    for (const machine_function &function : model.functions())
        rows.push_back(object(
            {{"id", function.id},
             {"name", names.heading(function.vendor, function.device, function.class_code >> 8, 0)},
             {"registers", registers_of(model.config(function))}}));
    return rows;
}

//--- the page -------------------------------------------------------------------------------------

data machine_rows(const machines &all)
{
    const pci_names names;
    data rows = list();
    for (size_t number = 0; number < all.size(); ++number) {
        const reported_machine &machine = all[number];
        const machine_facts &facts = machine.model.facts();
        data row = object({{"host", machine.host},
                           {"number", counted(number)},
                           {"time", time_text(facts.time)},
                           {"chassis", facts.chassis.empty() ? "-" : facts.chassis},
                           {"kernel", facts.kernel},
                           {"function_count", counted(machine.model.functions().size())},
                           {"finding_count", counted(machine.findings.size())},
                           {"links", links_of(machine.model)},
                           {"functions", functions_of(machine.model, names)}});
        picture(machine).put_into(row);
        rows.push_back(row);
    }
    return rows;
}

std::string title_of(const machines &all)
{
    std::string hosts;
    for (const reported_machine &machine : all)
        hosts += (hosts.empty() ? "" : ", ") + machine.host;
    return all.size() > 3 ? fmt::format("{} machines", all.size()) : hosts;
}

std::string page_of(const machines &all)
{
    const data entries = entries_of(all);
    const bool is_healthy =
        std::all_of(all.begin(), all.end(), [](const auto &one) { return one.findings.empty(); });
    mustache page(report_page);
    return page.render(object({{"title", title_of(all)},
                               {"made", time_text(::time(nullptr))},
                               {"version", DEVICE_ACCESS_VERSION},
                               {"nonce", nonce()},
                               {"several", all.size() > 1},
                               {"healthy", is_healthy},
                               {"machines", machine_rows(all)},
                               {"findings", findings_of(all)},
                               {"log_rows", log_rows(all)},
                               {"function_rows", function_rows(all)},
                               {"log_names", log_names(all)},
                               {"entry_count", counted(entries.list_value().size())},
                               {"entries", entries}}));
}

void report(const report_arguments &arguments)
{
    std::optional<machine_model> reference;
    if (!arguments.against.empty())
        reference.emplace(archived_machine(arguments.against, archive_part::all));
    fleet from(arguments.archives);
    machines all;
    from.for_each([&](const machine_source &machine, const std::string &host) {
        all.emplace_back(host, machine);
        all.back().findings = find_wrong(all.back().model, reference ? &*reference : nullptr);
    });
    if (!all.empty()) {
        write_file(arguments.file, page_of(all), !arguments.force);
        size_t findings = 0;
        for (const reported_machine &machine : all)
            findings += machine.findings.size();
        print_done(record()
                       .add("file", arguments.file)
                       .add("machines", all.size())
                       .add("findings", findings));
    }
    from.finish();
}

void add_report_options(command &to, report_arguments &arguments)
{
    to.argument("ARCHIVE", arguments.archives,
                "Archives of 'collect', or directories of them (default: this machine)")
        .paths();
    to.add_option("--out", "FILE", arguments.file,
                  "The page to write, in HTML; - is standard output")
        .paths()
        .required();
    to.add_option("--against", "ARCHIVE", arguments.against,
                  "Compare with an archive of a machine that was good")
        .paths();
    to.add_flag("--force", arguments.force, "Replace the file if it exists");
}

} // namespace

void describe_report(command &to)
{
    to.takes(add_report_options, report);
}

} // namespace devaccess

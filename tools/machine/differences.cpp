// Compares what is known of two machines, function by function and log by log.
#include "tools/machine/differences.h"

#include "tools/base/output.h"
#include "tools/base/times.h"
#include "tools/machine/findings.h"

#include <algorithm>
#include <map>
#include <set>
#include <variant>

#include <fmt/format.h>

namespace devaccess
{
namespace
{

// What is set by software or latched from events; addresses and numbers of buses differ from start
// to start and mean nothing.
constexpr struct {
    const char *name;
    bool is_latched; // from errors: bits that come are worse
} compared_registers[] = {
    {"COMMAND", false},       {"BRIDGE_CONTROL", false},  {"EXP_DEVCTL", false},
    {"EXP_DEVSTA", true},     {"EXP_LNKCAP", false},      {"EXP_LNKCTL", false},
    {"EXP_SLTCTL", false},    {"EXP_DEVCTL2", false},     {"EXP_LNKCTL2", false},
    {"ERR_COR_STATUS", true}, {"ERR_UNCOR_STATUS", true}, {"ERR_UNCOR_MASK", false},
    {"ERR_COR_MASK", false},  {"ERR_UNCOR_SEVER", false}, {"ERR_ROOT_COMMAND", false}};

class comparison
{
public:
    comparison(const machine_model &before, const machine_model &after)
        : before_(before), after_(after)
    {
    }

    std::vector<difference> run()
    {
        compare_presence();
        compare_links();
        compare_registers();
        compare_errors();
        compare_nodes();
        compare_cards();
        compare_logs();
        compare_entries();
        compare_settings();
        return std::move(found_);
    }

private:
    void add(const std::string &kind, const std::string &where, const std::string &what,
             const std::string &before, const std::string &after, bool is_worse)
    {
        if (before != after)
            found_.push_back({kind, where, what, before, after, is_worse});
    }

    // Calls with each function that both have.
    template <typename Work>
    void for_common(Work work) const
    {
        for (const machine_function &old : before_.functions())
            if (const machine_function *const now = after_.at(old.key);
                now && old.ids() == now->ids())
                work(old, *now);
    }

    void compare_presence();
    void compare_links();
    void compare_registers();
    void compare_fields(const machine_function &old, const machine_function &now, const char *name,
                        bool is_latched);
    void compare_errors();
    void compare_nodes();
    void compare_cards();
    void compare_logs();
    void compare_entries();
    void compare_settings();

    const machine_model &before_;
    const machine_model &after_;
    std::vector<difference> found_;
};

std::string text_of(const machine_function &function)
{
    return fmt::format("{} at {}", function.ids(), function.id);
}

void comparison::compare_presence()
{
    for (const machine_function &old : before_.functions()) {
        const machine_function *const now = after_.at(old.key);
        if (!now)
            add("function", old.key, "", text_of(old), "", true);
        else if (now->ids() != old.ids())
            add("function", old.key, "ids", old.ids(), now->ids(), false);
    }
    for (const machine_function &now : after_.functions())
        if (!before_.at(now.key))
            add("function", now.key, "", "", text_of(now), false);
    for_common([&](const machine_function &old, const machine_function &now) {
        add("function", now.key, "driver", old.driver, now.driver, now.driver.empty());
        add("function", now.key, "BARs without address",
            fmt::format("{}", fmt::join(old.unassigned, ", ")),
            fmt::format("{}", fmt::join(now.unassigned, ", ")),
            now.unassigned.size() > old.unassigned.size());
    });
}

void comparison::compare_links()
{
    const auto state_of = [](const machine_link &link) {
        return link.is.port.is_up ? rate_text(link.is.port.now) : std::string("down");
    };
    for (const machine_link &old : before_.links())
        for (const machine_link &now : after_.links()) {
            if (now.port->key != old.port->key)
                continue;
            const link_rate was = old.is.port.is_up ? old.is.port.now : link_rate{0, 0};
            const link_rate is = now.is.port.is_up ? now.is.port.now : link_rate{0, 0};
            add("link", now.other ? now.other->key : now.port->key, "", state_of(old),
                state_of(now), is.speed < was.speed || is.width < was.width);
        }
}

void comparison::compare_registers()
{
    for_common([&](const machine_function &old, const machine_function &now) {
        for (const auto &[name, is_latched] : compared_registers)
            compare_fields(old, now, name, is_latched);
    });
}

void comparison::compare_fields(const machine_function &old, const machine_function &now,
                                const char *name, bool is_latched)
{
    const auto was = register_value(before_.config(old), name);
    const auto is = register_value(after_.config(now), name);
    if (!was || !is || *was == *is)
        return;
    const register_place place = find_register(after_.config(now), name, 0);
    for (const pci_field &field : place.fields) {
        const register_place part = {place.name, place.offset, place.width, {&field, 1}};
        if ((*was & field.mask) != (*is & field.mask))
            add("register", now.key, fmt::format("{}.{}", name, field.name),
                fields_as_text(part, *was), fields_as_text(part, *is),
                is_latched && (*is & field.mask & ~*was) != 0);
    }
}

void comparison::compare_errors()
{
    for_common([&](const machine_function &old, const machine_function &now) {
        for (const auto &[severity, count] : now.errors) {
            const auto found = old.errors.find(severity);
            const uint64_t was = found == old.errors.end() ? 0 : found->second;
            add("errors", now.key, severity, std::to_string(was), std::to_string(count),
                count > was);
        }
    });
}

void comparison::compare_nodes()
{
    std::map<std::string, const machine_node *> all[2];
    const machine_model *const sides[] = {&before_, &after_};
    for (int side = 0; side < 2; ++side)
        for (const machine_node &node : sides[side]->nodes())
            all[side].emplace(node.device, &node);
    for (const auto &[device, old] : all[0]) {
        const auto now = all[1].find(device);
        if (now == all[1].end()) {
            add("uio", device, "", old->name, "", true);
            continue;
        }
        add("uio", device, "windows", std::to_string(old->windows),
            std::to_string(now->second->windows), now->second->windows < old->windows);
        add("uio", device, "right", old->problem, now->second->problem,
            !now->second->problem.empty());
    }
    for (const auto &[device, now] : all[1])
        if (!all[0].contains(device))
            add("uio", device, "", "", now->name, false);
}

void comparison::compare_cards()
{
    for (const machine_card &old : before_.cards())
        for (const machine_card &now : after_.cards()) {
            if (now.name != old.name)
                continue;
            add("card", now.name, "POD", old.status, now.status, now.status == "Failed");
            add("card", now.name, "fault injected", old.fault_injected ? "yes" : "no",
                now.fault_injected ? "yes" : "no", now.fault_injected);
        }
}

void comparison::compare_logs()
{
    const auto is_bad = [](storage_state state) {
        return state != storage_state::good && state != storage_state::empty;
    };
    std::map<std::pair<std::string, std::string>, const machine_log *> old_logs;
    for (const machine_log &old : before_.logs())
        old_logs.emplace(std::pair(old.kind, old.name), &old);
    for (const machine_log &now : after_.logs())
        if (const auto old = old_logs.find({now.kind, now.name}); old != old_logs.end())
            add("log", now.kind + ":" + now.name, "state", name_of(old->second->state),
                name_of(now.state), is_bad(now.state) && !is_bad(old->second->state));
}

// New entries one by one; those that have been overwritten are counted.
void comparison::compare_entries()
{
    const std::multiset<machine_entry> old(before_.entries().begin(), before_.entries().end());
    std::multiset<machine_entry> gone = old;
    for (const machine_entry &now : after_.entries()) {
        if (const auto known = gone.find(now); known != gone.end()) {
            gone.erase(known);
            continue;
        }
        add("entry", now.kind + ":" + now.name, time_text(now.time), "", now.message,
            tells_failure(now.message) || (now.kind == "post" && now.name == "error"));
    }
    std::map<std::string, size_t> counts;
    for (const machine_entry &entry : gone)
        ++counts[entry.kind + ":" + entry.name];
    for (const auto &[log, count] : counts)
        add("entry", log, "", fmt::format("{} that are gone", count), "", false);
}

void comparison::compare_settings()
{
    const machine_facts &old = before_.facts();
    const machine_facts &now = after_.facts();
    add("setting", "kernel", "", old.kernel, now.kernel, false);
    add("setting", "chassis", "", old.chassis, now.chassis, false);
    add("setting", "lockdown", "", old.lockdown, now.lockdown,
        now.lockdown != "none" && !now.lockdown.empty());
    add("setting", "parameters", "", fmt::format("{}", fmt::join(old.parameters, " ")),
        fmt::format("{}", fmt::join(now.parameters, " ")), false);
}

} // namespace

std::vector<difference> differences(const machine_model &before, const machine_model &after)
{
    return comparison(before, after).run();
}

} // namespace devaccess

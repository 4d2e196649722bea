// Judges what is known of a machine.
#include "tools/machine/findings.h"

#include "tools/base/errors.h"
#include "tools/base/rights.h"
#include "tools/base/times.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <set>

#include <fmt/format.h>
#include <linux/pci_regs.h>

namespace devaccess
{
namespace
{

constexpr uint32_t bridge_class = 0x06;

class judge
{
public:
    judge(const machine_model &machine, const machine_model *reference)
        : machine_(machine), reference_(reference)
    {
    }

    void judge_links();
    void judge_errors();
    void judge_functions();
    void judge_slots();
    void judge_absent();
    void judge_nodes();
    void judge_settings();
    void judge_logs();
    void judge_cards();
    void judge_post_errors();

    std::vector<finding> findings()
    {
        std::stable_sort(
            found_.begin(), found_.end(),
            [](const finding &one, const finding &other) { return one.level < other.level; });
        return std::move(found_);
    }

private:
    void add(finding_level level, const std::string &id, const std::string &subject,
             const std::string &reason, const std::string &next)
    {
        found_.push_back({level, id, subject, reason, next});
    }
    std::string command(const std::string &words) const
    {
        return "devaccess " + words + machine_.option();
    }
    // For this machine, or else one that an archive has something for.
    std::string command_here(const std::string &here, const std::string &words) const
    {
        return machine_.option().empty() ? here : command(words);
    }
    std::string settings_shown_by(const std::string &here) const
    {
        const std::string &from = machine_.option();
        return from.empty() ? here : "tar -xOf" + from.substr(from.find(' ', 1)) + " manifest.json";
    }
    std::string since() const { return " since " + time_text(reference_->facts().time); }

    void judge_link(const machine_link &link);
    std::string wait_for(const machine_link &link) const
    {
        return command_here("devaccess pci link-wait " + link.port->id,
                            "pci caps " + link.port->id);
    }
    std::string place_below(const machine_link &link) const;
    void judge_empty_port(const machine_link &link);
    std::string causes_of(const machine_link &link) const;
    void judge_counted_errors(const machine_function &function, const char *severity);
    std::string latched_errors(const machine_function &function, const char *severity) const;
    void judge_driver(const machine_function &function);
    const machine_function *before(const machine_function &function) const
    {
        return reference_ ? reference_->at(function.key) : nullptr;
    }

    const machine_model &machine_;
    const machine_model *reference_;
    std::vector<finding> found_;
};

//--- links ----------------------------------------------------------------------------------------

void judge::judge_links()
{
    for (const machine_link &link : machine_.links())
        judge_link(link);
}

void judge::judge_link(const machine_link &link)
{
    const std::string next = command("pci caps " + link.port->id);
    const std::string &key = link.other ? link.other->key : link.port->key;
    const auto status = register_value(machine_.config(*link.port), "EXP_LNKSTA");
    if (status && (*status & PCI_EXP_LNKSTA_LT) != 0)
        return add(finding_level::error, "link-training:" + key, link.port->id,
                   fmt::format("the link below {} is training: it does not come up, or has just "
                               "been lost",
                               link.port->id),
                   wait_for(link));
    if (!link.other)
        return judge_empty_port(link);
    if (link.is.is_degraded())
        add(finding_level::error, "link-degraded:" + key, link.other->id,
            fmt::format("the link from {} to {} runs at {}, and both ends can {}{}", link.port->id,
                        link.other->id, rate_text(link.is.port.now), rate_text(*link.is.possible()),
                        causes_of(link)),
            next);
}

// What can be said of why a link is slow.
std::string judge::causes_of(const machine_link &link) const
{
    std::string causes;
    const link_rate possible = *link.is.possible();
    for (const machine_function *end : {link.port, link.other}) {
        const auto control = register_value(machine_.config(*end), "EXP_LNKCTL2");
        const uint32_t target = control.value_or(0) & PCI_EXP_LNKCTL2_TLS;
        if (link.is.port.now.speed < possible.speed && target != 0 && target < possible.speed)
            causes += fmt::format("; {} is set to no more than {:.1f} GT/s", end->id,
                                  static_cast<double>(transfers_per_second(target)) / 1e9);
        if (const auto errors = end->errors.find("correctable");
            errors != end->errors.end() && errors->second > 0)
            causes +=
                fmt::format("; {} has counted {} correctable errors", end->id, errors->second);
    }
    const auto status = register_value(machine_.config(*link.port), "EXP_LNKSTA");
    if (status && (*status & PCI_EXP_LNKSTA_LBMS) != 0)
        causes += "; it has been trained anew to stay reliable, or on demand";
    if (reference_)
        for (const machine_link &old : reference_->links())
            if (old.port->key == link.port->key && old.is.other && !old.is.is_degraded())
                causes += fmt::format("; it ran at {} on {}", rate_text(old.is.port.now),
                                      time_text(reference_->facts().time));
    return causes;
}

// The slot that a port leads to, or else the port.
std::string judge::place_below(const machine_link &link) const
{
    const std::string bus = fmt::format("{}:{:02x}:", link.port->id.substr(0, 4), link.is.port.bus);
    for (const machine_slot &slot : machine_.slots())
        if (slot.address.starts_with(bus))
            return "slot-" + slot.name;
    return link.port->key;
}

void judge::judge_empty_port(const machine_link &link)
{
    const config_space &config = machine_.config(*link.port);
    const bool has_slot = register_value(config, "EXP_FLAGS").value_or(0) & PCI_EXP_FLAGS_SLOT;
    const uint32_t slot = register_value(config, "EXP_SLTSTA").value_or(0);
    const uint32_t able = register_value(config, "EXP_LNKCAP").value_or(0);
    const bool is_active = link.is.port.is_up && (able & PCI_EXP_LNKCAP_DLLLARC) != 0;
    const bool has_functions =
        std::any_of(machine_.functions().begin(), machine_.functions().end(),
                    [&](const machine_function &other) { return other.parent == link.port->id; });
    if (has_functions || (!is_active && !(has_slot && (slot & PCI_EXP_SLTSTA_PDS) != 0)))
        return;
    add(finding_level::error, "card-silent:" + place_below(link), link.port->id,
        fmt::format("{} {}, and no function answers there", link.port->id,
                    is_active ? "has its link up" : "sees a card in its slot"),
        is_active ? command("pci caps " + link.port->id) : wait_for(link));
}

//--- errors ---------------------------------------------------------------------------------------

void judge::judge_errors()
{
    for (const machine_function &function : machine_.functions())
        for (const char *severity : {"fatal", "nonfatal", "correctable"})
            judge_counted_errors(function, severity);
}

void judge::judge_counted_errors(const machine_function &function, const char *severity)
{
    const auto count_of = [severity](const machine_function *of) {
        if (!of)
            return uint64_t{0};
        const auto found = of->errors.find(severity);
        return found == of->errors.end() ? 0 : found->second;
    };
    const uint64_t now = count_of(&function);
    const uint64_t then = count_of(before(function)) > now ? 0 : count_of(before(function));
    const std::string latched = latched_errors(function, severity);
    std::string reason;
    if (now > then && before(function))
        reason = fmt::format("{} more {} errors{}", now - then, severity, since());
    else if (now > then)
        reason = fmt::format("{} {} errors", now, severity);
    if (const auto which = function.counted.find(severity);
        !reason.empty() && which != function.counted.end() && !which->second.empty())
        reason += (before(function) ? " (in all " : " (") + which->second + ")";
    if (!latched.empty())
        reason += fmt::format("{}its error registers hold {}", reason.empty() ? "" : "; ", latched);
    if (reason.empty())
        return;
    const bool is_mild = std::strcmp(severity, "correctable") == 0;
    add(is_mild ? finding_level::warning : finding_level::error,
        fmt::format("errors-{}:{}", severity, function.key), function.id,
        function.id + ": " + reason, command("pci caps " + function.id));
}

// Names of status bits that are set, and were not in the reference.
std::string judge::latched_errors(const machine_function &function, const char *severity) const
{
    const config_space &config = machine_.config(function);
    const bool is_mild = std::strcmp(severity, "correctable") == 0;
    const char *const name = is_mild ? "ERR_COR_STATUS" : "ERR_UNCOR_STATUS";
    const auto status = register_value(config, name);
    if (!status || *status == UINT32_MAX)
        return "";
    uint32_t bits = *status;
    if (!is_mild) {
        const uint32_t fatal = register_value(config, "ERR_UNCOR_SEVER").value_or(0);
        bits &= std::strcmp(severity, "fatal") == 0 ? fatal : ~fatal;
    }
    if (const machine_function *old = before(function))
        bits &= ~register_value(reference_->config(*old), name).value_or(0);
    std::string names;
    const register_place place = find_register(config, name, 0);
    for (const pci_field &field : place.fields)
        if ((bits & field.mask) != 0)
            names += fmt::format("{}{}", names.empty() ? "" : ", ", field.name);
    return names;
}

//--- functions ------------------------------------------------------------------------------------

void judge::judge_functions()
{
    size_t cut = 0;
    for (const machine_function &function : machine_.functions()) {
        const std::string next = command("pci show " + function.id);
        cut += function.is_cut;
        if (!function.problem.empty())
            add(finding_level::unread, "function-unreadable:" + function.key, function.id,
                function.problem, next);
        if (machine_.config(function).try_read(PCI_VENDOR_ID, 32) == UINT32_MAX)
            add(finding_level::error, "function-dead:" + function.key, function.id,
                function.id + " does not answer: its registers read as all ones", next);
        if (!function.unassigned.empty())
            add(finding_level::error, "bar-unassigned:" + function.key, function.id,
                fmt::format("{} has no address for BAR {}", function.id,
                            fmt::join(function.unassigned, ", ")),
                next);
        judge_driver(function);
        if (const machine_function *old = before(function); old && old->ids() != function.ids())
            add(finding_level::warning, "function-changed:" + function.key, function.id,
                fmt::format("{} is {}, and was {}", function.id, function.ids(), old->ids()), next);
    }
    if (cut > 0)
        add(finding_level::unread, "no-right:config", "",
            fmt::format("of {} functions only the first 64 bytes of configuration space can be "
                        "read, so their error registers are unknown",
                        cut),
            machine_.option().empty() ? "run it as root, or with CAP_SYS_ADMIN"
                                      : "run 'devaccess collect' there as root");
}

// Most functions need no driver here. That one is missing is known when the machine was told which,
// when its like has one, or when it had one.
void judge::judge_driver(const machine_function &function)
{
    const auto complain = [&](const std::string &why) {
        add(finding_level::error, "driver-missing:" + function.key, function.id,
            fmt::format("{} has {}, {}", function.id,
                        function.driver.empty() ? "no driver" : "the driver " + function.driver,
                        why),
            command("pci show " + function.id));
    };
    if (!function.driver_override.empty() && function.driver != function.driver_override)
        return complain("and driver_override names " + function.driver_override);
    const machine_function *const old = before(function);
    if (old && !old->driver.empty() && old->driver != function.driver)
        return complain("and had " + old->driver);
    if (!function.driver.empty() || function.class_code >> 16 == bridge_class)
        return;
    for (const machine_function &other : machine_.functions())
        if (other.vendor == function.vendor && other.device == function.device &&
            !other.driver.empty())
            return complain(fmt::format("and {} of the same ids has {}", other.id, other.driver));
}

void judge::judge_slots()
{
    for (const machine_slot &slot : machine_.slots()) {
        const bool is_seen =
            std::any_of(machine_.functions().begin(), machine_.functions().end(),
                        [&](const machine_function &one) { return one.slot == slot.name; });
        const std::string id = "card-silent:slot-" + slot.name;
        const bool is_told = std::any_of(found_.begin(), found_.end(),
                                         [&](const finding &one) { return one.id == id; });
        if (slot.has_adapter && !is_seen && !is_told)
            add(finding_level::error, id, slot.name,
                fmt::format("slot {} has a card, and no function answers there", slot.name),
                command("pci list"));
    }
}

// Of a card that is missing only the first function is told, not what was behind it.
void judge::judge_absent()
{
    if (!reference_)
        return;
    for (const machine_function &old : reference_->functions()) {
        const machine_function *const above = reference_->find(old.parent);
        if (machine_.at(old.key) || (above && !machine_.at(above->key)))
            continue;
        add(finding_level::error, "function-missing:" + old.key, old.id,
            fmt::format("{} {} is missing; on {} it was {}", old.key, old.ids(),
                        time_text(reference_->facts().time), old.id),
            command("pci list"));
    }
}

//--- nodes, rights and settings -------------------------------------------------------------------

void judge::judge_nodes()
{
    for (const machine_node &node : machine_.nodes()) {
        if (node.windows == 0)
            add(finding_level::error, "uio-no-map:" + node.name, node.name,
                fmt::format("{} ({}) has neither a map nor ports", node.name, node.device),
                command("uio list"));
        if (node.problem.empty())
            continue;
        const bool lacks_right = missing_right(node.problem, 0).has_value();
        add(finding_level::error,
            fmt::format("uio-{}:{}", lacks_right ? "no-right" : "no-node", node.name), node.name,
            fmt::format("/dev/{} cannot be opened for reading and writing: {}", node.name,
                        node.problem),
            command_here("ls -l /dev/" + node.name, "uio info " + node.name));
    }
    if (reference_)
        for (const machine_node &old : reference_->nodes())
            if (std::none_of(machine_.nodes().begin(), machine_.nodes().end(),
                             [&](const machine_node &node) { return node.device == old.device; }))
                add(finding_level::error, "uio-missing:" + old.device, old.name,
                    fmt::format("there is no UIO device {}; it was {}", old.device, old.name),
                    command("uio list"));
}

void judge::judge_settings()
{
    const machine_facts &facts = machine_.facts();
    if (!facts.lockdown.empty() && facts.lockdown != "none")
        add(finding_level::warning, "kernel-lockdown", "",
            fmt::format("the kernel's lockdown is '{}': it lets nobody map windows of functions, "
                        "open /dev/mem or write to configuration space",
                        facts.lockdown),
            settings_shown_by("cat /sys/kernel/security/lockdown"));
    for (const std::string &parameter : facts.parameters)
        for (const char *word : {"noaer", "nommconf"})
            if (parameter.find(word) != parameter.npos)
                add(finding_level::warning, std::string("kernel-") + word, "",
                    fmt::format("the kernel was started with {}: {}", parameter,
                                word == std::string("noaer")
                                    ? "it counts no errors of functions"
                                    : "configuration space ends after 256 bytes, before the "
                                      "error registers"),
                    settings_shown_by("cat /proc/cmdline"));
}

//--- logs -----------------------------------------------------------------------------------------

void judge::judge_logs()
{
    for (const machine_log &log : machine_.logs()) {
        const std::string place = log.kind + ":" + log.name;
        const std::string what = fmt::format(
            "the {} log of {}: {}", log.kind == "pod" ? "POD" : "POST", log.name, log.problem);
        const std::string next = log.check.substr(1, log.check.size() - 2); // without quotes
        bool was_there = log.kind == "pod" && log.is_kept_apart && machine_.is_chassis();
        if (reference_)
            for (const machine_log &old : reference_->logs())
                if (old.kind == log.kind && old.name == log.name)
                    was_there |= old.state == storage_state::good;
        switch (log.state) {
        case storage_state::damaged:
        case storage_state::foreign:
            add(finding_level::error, fmt::format("log-{}:{}", name_of(log.state), place), log.name,
                what, next);
            break;
        case storage_state::missing:
        case storage_state::empty:
            if (was_there && log.state == storage_state::missing)
                add(finding_level::error, "log-missing:" + place, log.name, what, next);
            break;
        case storage_state::good:
            break;
        default:
            add(finding_level::unread, "log-unreadable:" + place, log.name, what, next);
        }
    }
}

void judge::judge_cards()
{
    for (const machine_card &card : machine_.cards()) {
        if (card.status == "Failed")
            add(finding_level::error, "pod-failed:" + card.name, card.name,
                "the power-on diagnostics of " + card.name + " failed",
                command("podlog show " + card.name));
        if (card.fault_injected)
            add(finding_level::warning, "fault-injected:" + card.name, card.name,
                "the fault-injection flag of " + card.name + " is set",
                command_here("devaccess podlog faults clear " + card.name, "podlog faults"));
    }
}

void judge::judge_post_errors()
{
    const std::set<machine_entry> old =
        reference_ ? std::set(reference_->entries().begin(), reference_->entries().end())
                   : std::set<machine_entry>();
    size_t count = 0;
    const machine_entry *last = nullptr;
    for (const machine_entry &entry : machine_.entries())
        if (entry.kind == "post" && entry.name == "error" && !old.contains(entry)) {
            ++count;
            last = &entry;
        }
    if (last)
        add(finding_level::warning, "post-errors", "error",
            fmt::format("the POST log has {} error{}, the last of {}: {}", count,
                        count == 1 ? "" : "s", time_text(last->time), last->message),
            command("postlog show error --all"));
}

} // namespace

//--------------------------------------------------------------------------------------------------

const char *finding::level_name() const
{
    constexpr const char *names[] = {"error", "warning", "unread"};
    return names[static_cast<int>(level)];
}

std::optional<uint32_t> register_value(const config_space &config, const char *name)
{
    try {
        const register_place place = find_register(config, name, 0);
        return config.try_read(place.offset, place.width);
    } catch (const failure &) {
        return std::nullopt;
    }
}

std::vector<finding> find_wrong_links(const machine_model &machine, const machine_model *reference)
{
    judge judging(machine, reference);
    judging.judge_links();
    judging.judge_errors();
    return judging.findings();
}

std::vector<finding> find_wrong(const machine_model &machine, const machine_model *reference)
{
    judge judging(machine, reference);
    judging.judge_links();
    judging.judge_slots();
    judging.judge_absent();
    judging.judge_functions();
    judging.judge_errors();
    judging.judge_cards();
    judging.judge_logs();
    judging.judge_post_errors();
    judging.judge_nodes();
    judging.judge_settings();
    return judging.findings();
}

} // namespace devaccess

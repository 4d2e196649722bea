// PCI functions: pci list, tree, show, children, link-wait, bridge, and the command line of all.
#include "tools/pci/pci_commands.h"

#include "tools/base/captured_call.h"
#include "tools/base/errors.h"
#include "tools/base/output.h"
#include "tools/base/settings.h"
#include "tools/cli/options.h"
#include "tools/pci/config_space.h"
#include "tools/pci/device.h"
#include "tools/pci/dump.h"

#include <device_access/pci_sysfs.h>
#include <device_access/qel_pci_hotswap.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <optional>

#include <fmt/format.h>
#include <linux/pci_regs.h>

namespace devaccess
{
namespace
{

namespace fs = std::filesystem;

//--- devices --------------------------------------------------------------------------------------

std::optional<int64_t> number_of(const char *attribute, const sysfs_pci_identity_t &device,
                                 const machine_source &machine)
{
    if (machine.is_archive()) {
        const std::string line =
            machine.line(pci_directory + std::string(device.str) + '/' + attribute);
        return line.empty() ? std::nullopt
                            : std::optional<int64_t>(std::strtoll(line.c_str(), nullptr, 0));
    }
    int64_t value = 0;
    if (sysfs_pci_show_nums(&value, 1, attribute, &device) != 1)
        return std::nullopt;
    return value;
}

// Nothing where it is missing, or says "Unknown", "Unknown speed".
std::optional<std::string> text_of(const char *attribute, const sysfs_pci_identity_t &device,
                                   const machine_source &machine)
{
    const std::string line =
        printable(machine.line(pci_directory + std::string(device.str) + '/' + attribute));
    return line.empty() || line.rfind("Unknown", 0) == 0 ? std::nullopt : std::optional(line);
}

std::optional<std::string> driver_of(const sysfs_pci_identity_t &device,
                                     const machine_source &machine)
{
    const fs::path link = machine.target(std::string(pci_directory) + device.str + "/driver");
    return link.empty() ? std::nullopt : std::optional(printable(link.filename()));
}

// A number with its name; programs get them apart.
record &add_named(record &row, const std::string &what, std::optional<int64_t> number,
                  const std::optional<std::string> &name, int digits)
{
    const std::string text = number ? hex(static_cast<uint64_t>(*number), digits) : "-";
    row.add(what, number, name ? text + ' ' + *name : text);
    return row.add_hidden(what + "_name", name);
}

// What is known of a function without a look at its registers.
class device_facts
{
public:
    device_facts(const sysfs_pci_identity_t &device, const pci_names &names,
                 const std::map<std::string, std::string> &slots,
                 const machine_source &machine = this_machine())
        : id_(device.str), vendor_(number_of("vendor", device, machine).value_or(0xffff)),
          device_(number_of("device", device, machine).value_or(0xffff)),
          class_(number_of("class", device, machine)), driver_(driver_of(device, machine)),
          speed_(text_of("current_link_speed", device, machine)),
          width_(number_of("current_link_width", device, machine))
    {
        vendor_name_ = names.vendor(static_cast<unsigned>(vendor_));
        device_name_ = names.device(static_cast<unsigned>(vendor_), static_cast<unsigned>(device_));
        if (class_)
            class_name_ = names.device_class(static_cast<unsigned>(*class_));
        if (const auto slot = slots.find(id_.substr(0, id_.find('.'))); slot != slots.end())
            slot_ = slot->second;
        if (speed_)
            speed_ = speed_->substr(0, speed_->find(" PCIe"));
        if (!speed_ || width_ == 0)
            width_.reset();
    }

    bool is_taken_by(const device_filter &filter) const
    {
        return filter.takes(id_, static_cast<unsigned>(vendor_), static_cast<unsigned>(device_),
                            static_cast<unsigned>(class_.value_or(0)));
    }

    std::string name() const
    {
        return fmt::format("{} {}", vendor_name_.value_or(fmt::format("Vendor {:04x}", vendor_)),
                           device_name_.value_or(fmt::format("Device {:04x}", device_)));
    }
    std::string class_text() const
    {
        return class_name_.value_or(class_ ? fmt::format("Class {:04x}", *class_ >> 8) : "-");
    }

    record as_record() const
    {
        record all;
        all.add("id", id_);
        add_named(all, "vendor", vendor_, vendor_name_, 4);
        add_named(all, "device", device_, device_name_, 4);
        add_named(all, "class", class_, class_name_, 6);
        all.add("driver", driver_).add("slot", slot_);
        all.add("link_speed", speed_).add("link_width", width_);
        return all.add("path", pci_directory + id_);
    }

    // In a line of a table.
    record as_row() const
    {
        return record()
            .add("id", id_)
            .add("ids", fmt::format("{:04x}:{:04x}", vendor_, device_))
            .add("driver", driver_)
            .add("link",
                 width_ ? field_value(fmt::format("{} x{}", *speed_, *width_)) : field_value())
            .add("slot", slot_)
            .add("class", class_text())
            .add("name", name());
    }

private:
    std::string id_;
    int64_t vendor_, device_;
    std::optional<int64_t> class_;
    std::optional<std::string> driver_, speed_;
    std::optional<int64_t> width_;
    std::optional<std::string> slot_, vendor_name_, device_name_, class_name_;
};

using fact_list = std::vector<device_facts>;

fact_list facts_of(const std::vector<sysfs_pci_identity_t> &devices, const pci_names &names,
                   const machine_source &machine)
{
    const auto slots = physical_slots(machine);
    fact_list facts;
    for (const sysfs_pci_identity_t &device : devices)
        facts.emplace_back(device, names, slots, machine);
    return facts;
}

void add_rows(record_set &set, const record &host, const fact_list &devices)
{
    for (const device_facts &facts : devices)
        set.rows.push_back(
            record(host).append(settings.as_json ? facts.as_record() : facts.as_row()));
}

void print_devices(const std::vector<sysfs_pci_identity_t> &devices)
{
    record_set set = {"devices", {}};
    add_rows(set, record(), facts_of(devices, pci_names(), this_machine()));
    print(std::move(set));
}

//--- list and tree --------------------------------------------------------------------------------

// Below the bridge that leads to it, or below its root bus.
using children_by_bus = std::map<std::string, std::vector<const sysfs_pci_identity_t *>>;

constexpr int deepest = 256; // as many buses as a domain has; an archive can say anything

std::string parent_of(const sysfs_pci_identity_t &device, const machine_source &machine)
{
    const fs::path link = machine.target(std::string(pci_directory) + device.str);
    return printable(link.parent_path().filename());
}

class tree_printer
{
public:
    explicit tree_printer(const fleet &machines) : machines_(machines) {}

    void add(const machine_source &machine, const std::string &host)
    {
        const std::vector<sysfs_pci_identity_t> devices = pci_devices(machine);
        machine_ = &machine;
        slots_ = physical_slots(machine);
        children_.clear();
        for (const sysfs_pci_identity_t &device : devices)
            children_[parent_of(device, machine)].push_back(&device);
        for (const auto &[parent, below] : children_)
            if (!parse_pci_device(parent)) {
                text_ += (machines_.has_several() ? host + ": " : "") + parent + '\n';
                buses_.rows.push_back(
                    machines_.row(host).add("bus", parent).add(functions_below(parent, "", 0)));
            }
    }

    void print_all()
    {
        if (settings.as_json)
            print(std::move(buses_));
        else
            print_text(text_);
    }

private:
    record_set functions_below(const std::string &parent, const std::string &indent, int depth)
    {
        record_set functions = {"functions", {}};
        const auto below = children_.find(parent);
        if (below == children_.end())
            return functions;
        if (depth == deepest)
            throw failure("show what is below " + parent, "there are more buses than there can be",
                          "");
        for (const sysfs_pci_identity_t *device : below->second) {
            const bool is_last = device == below->second.back();
            const device_facts facts(*device, names_, slots_, *machine_);
            text_ += fmt::format("{}{} {}  {}: {}\n", indent, is_last ? "`--" : "|--", device->str,
                                 facts.class_text(), facts.name());
            functions.rows.push_back(facts.as_record().add(
                functions_below(device->str, indent + (is_last ? "    " : "|   "), depth + 1)));
        }
        return functions;
    }

    const fleet &machines_;
    const pci_names names_;
    const machine_source *machine_ = nullptr;
    std::map<std::string, std::string> slots_;
    children_by_bus children_;
    record_set buses_ = {"buses", {}};
    std::string text_;
};

//--- show -----------------------------------------------------------------------------------------

constexpr uint32_t shown_registers[] = {PCI_COMMAND, PCI_STATUS};
constexpr uint32_t shown_bridge_registers[] = {
    PCI_COMMAND,         PCI_STATUS,     PCI_PRIMARY_BUS,   PCI_SECONDARY_BUS,
    PCI_SUBORDINATE_BUS, PCI_SEC_STATUS, PCI_BRIDGE_CONTROL};

record_set registers_to_show(const config_space &config)
{
    const bool is_bridge = (config.read(PCI_HEADER_TYPE, 8) & 0x7f) == PCI_HEADER_TYPE_BRIDGE;
    const std::span<const uint32_t> wanted =
        is_bridge ? std::span<const uint32_t>(shown_bridge_registers) : shown_registers;
    record_set registers = {"registers", {}};
    for (const register_place &place : header_registers(config))
        if (std::find(wanted.begin(), wanted.end(), place.offset) != wanted.end())
            registers.rows.push_back(register_row(place, config.read(place.offset, place.width)));
    return registers;
}

record resource_row(const pci_resource &resource)
{
    return record()
        .add("bar", resource.bar)
        .add_hex("base", resource.base, 8)
        .add("size", resource.size ? field_value(resource.size) : field_value(),
             resource.size ? hex(resource.size) : "-")
        .add_hex("flags", resource.flags, 8)
        .add("kind", resource.kind());
}

record_set resources_record(const std::vector<pci_resource> &resources)
{
    record_set set = {"resources", {}};
    for (const pci_resource &resource : resources)
        set.rows.push_back(resource_row(resource));
    return set;
}

record shown_device(const config_space &config, const machine_source &machine)
{
    const sysfs_pci_identity_t device = pci_device(config.id());
    const pci_names names;
    record shown = device_facts(device, names, physical_slots(machine), machine).as_record();
    for (const char *name : {"subsystem_vendor", "subsystem_device"}) {
        const std::optional<int64_t> value = number_of(name, device, machine);
        shown.add(name, value, value ? hex(static_cast<uint64_t>(*value), 4) : "-");
    }
    const std::optional<int64_t> users = number_of("enable", device, machine);
    shown.add("enabled", users ? field_value(*users != 0) : field_value());
    return shown.add(registers_to_show(config))
        .add(resources_record(pci_resources(device, machine)));
}

// Of what a file says, which is less.
record shown_config(const config_space &config)
{
    const pci_names names;
    const uint32_t vendor = config.read(PCI_VENDOR_ID, 16);
    const uint32_t device = config.read(PCI_DEVICE_ID, 16);
    const uint32_t device_class = config.read(PCI_CLASS_REVISION, 32) >> 8;
    record shown;
    shown.add("id", config.id());
    add_named(shown, "vendor", vendor, names.vendor(vendor), 4);
    add_named(shown, "device", device, names.device(vendor, device), 4);
    add_named(shown, "class", device_class, names.device_class(device_class), 6);
    return shown.add(registers_to_show(config)).add(resources_record(config_resources(config)));
}

} // namespace

void pci_list(const pci_arguments &arguments)
{
    const pci_names names;
    const device_filter filter(arguments.slot_filter, arguments.id_filter, names);
    fleet machines(arguments.from);
    record_set set = {"devices", {}};
    machines.for_each([&](const machine_source &machine, const std::string &host) {
        fact_list devices = facts_of(pci_devices(machine), names, machine);
        std::erase_if(devices, [&](const auto &facts) { return !facts.is_taken_by(filter); });
        add_rows(set, machines.row(host), devices);
    });
    print(std::move(set));
    machines.finish();
}

void pci_tree(const pci_arguments &arguments)
{
    fleet machines(arguments.from);
    tree_printer tree(machines);
    machines.for_each(
        [&](const machine_source &machine, const std::string &host) { tree.add(machine, host); });
    tree.print_all();
    machines.finish();
}

void pci_children(const pci_arguments &arguments)
{
    const sysfs_pci_identity_t bridge = pci_device(arguments.id);
    const pci_names names;
    fleet machines(arguments.from);
    record_set set = {"devices", {}};
    machines.for_each([&](const machine_source &machine, const std::string &host) {
        add_rows(set, machines.row(host), facts_of(pci_devices(machine, &bridge), names, machine));
    });
    print(std::move(set));
    machines.finish();
}

void pci_show(const pci_arguments &arguments)
{
    print_for_each(arguments, [&](const config_space &config, const machine_source &machine) {
        return arguments.file.empty() ? shown_device(config, machine) : shown_config(config);
    });
}

//--- link and bridges -----------------------------------------------------------------------------

void pci_link_wait(const pci_arguments &arguments)
{
    const sysfs_pci_identity_t device = pci_device(arguments.id);
    auto waited = ask([&] { return pcie_config_wait_link_up(&device); });
    const std::string what = "see the link of " + arguments.id + " up";
    if (waited.result > 0)
        throw failure(what, pcie_config_link_strerror(waited.result),
                      "is a card plugged into the port, and powered?");
    if (waited.result < 0 && waited.error == ENOENT &&
        sysfs_pci_access("vendor", R_OK, &device) == 0)
        throw failure(what, "it has no PCI Express capability",
                      "ports of PCI Express have one; 'devaccess pci caps' shows what it has",
                      ENOENT);
    if (waited.result < 0)
        fail(what, waited, list_hint);
    print(record().add("id", device.str).add("link", "up"));
}

namespace
{

// Of a bridge that cannot be switched.
[[noreturn]] void fail_on_bridge(const std::string &what, const sysfs_pci_identity_t &device,
                                 const outcome &how)
{
    if (how.error == ENODEV)
        throw failure(what, "no device appeared below it within half a second",
                      "is a card in that slot, and is it powered?", ENODEV);
    if (how.error == ENOENT && sysfs_pci_access("vendor", R_OK, &device) == 0)
        throw failure(what, "it has no attribute 'bridge_enable'",
                      "hot-swap bridges have one once the module qel_pci_hotswap is loaded",
                      ENOENT);
    fail(what, how, list_hint);
}

} // namespace

void pci_bridge_enable(const pci_arguments &arguments)
{
    const sysfs_pci_identity_t device = pci_device(arguments.id);
    const auto appeared = ask([&] { return qel_pci_hotswap_bridge_enable(&device); });
    if (!appeared.result)
        fail_on_bridge("enable the bridge " + arguments.id, device, appeared);
    const std::unique_ptr<sysfs_pci_identity_t, decltype(&std::free)> owned(appeared.result,
                                                                            std::free);
    std::vector<sysfs_pci_identity_t> devices;
    for (const sysfs_pci_identity_t *found = owned.get(); found->str[0] != '\0'; ++found)
        devices.push_back(*found);
    print_devices(devices);
}

void pci_bridge_disable(const pci_arguments &arguments)
{
    const sysfs_pci_identity_t device = pci_device(arguments.id);
    const auto stored = ask([&] { return qel_pci_hotswap_bridge_disable(&device); });
    if (stored.result != 0)
        fail_on_bridge("disable the bridge " + arguments.id, device, stored);
    print_done(record().add("id", device.str));
}

void pci_bridge_usable(const pci_arguments &arguments)
{
    const sysfs_pci_identity_t device = pci_device(arguments.id);
    const auto usable = ask([&] { return qel_pci_hotswap_bridge_usable(&device); });
    print(record().add("id", device.str).add("usable", usable.result == 0));
    if (usable.result != 0)
        fail_on_bridge("use the bridge " + arguments.id, device, usable);
}

//--- command line ---------------------------------------------------------------------------------

namespace
{

std::vector<std::string> device_names(const given_options &)
{
    std::vector<std::string> names;
    std::error_code none;
    for (const auto &entry : fs::directory_iterator(pci_directory, none))
        names.push_back(entry.path().filename().string());
    return names;
}

} // namespace

option add_id(command &to, std::string &id)
{
    return to.argument("ID", id, "PCI function, e.g. 0000:03:00.0").choices(device_names);
}

namespace
{

void add_filters(command &to, pci_arguments &arguments)
{
    to.add_option("-s,--slot", "WHERE", arguments.slot_filter,
                  "Only functions at [[DOMAIN:]BUS:][SLOT][.FUNC]");
    to.add_option("-d,--device", "IDS", arguments.id_filter,
                  "Only functions with the ids [VENDOR]:[DEVICE][:CLASS], hexadecimal");
    add_archives(to, arguments.from);
}

option add_id(command &to, pci_arguments &arguments)
{
    return add_id(to, arguments.id);
}

void add_device(command &to, pci_arguments &arguments)
{
    add_id(to, arguments).required();
}

void add_fleet(command &to, pci_arguments &arguments)
{
    add_archives(to, arguments.from);
}

void add_bridge(command &to, pci_arguments &arguments)
{
    add_device(to, arguments);
    add_fleet(to, arguments);
}

void add_shown(command &to, pci_arguments &arguments)
{
    add_id(to, arguments);
    const option file =
        to.add_option("--file", "FILE", arguments.file,
                      "Read the output of 'pci dump' or 'lspci -xxx' instead of the machine")
            .paths();
    add_archives(to, arguments.from).excludes(file);
}

void add_out(command &to, pci_arguments &arguments)
{
    add_shown(to, arguments);
    to.add_option("--out", "FILE", arguments.other, "Write to this file").paths();
}

void add_sides(command &to, pci_arguments &arguments)
{
    for (const auto &[name, side] : {std::pair("A", &arguments.id), {"B", &arguments.other}})
        to.argument(name, *side, "PCI function, or a file as for --file")
            .choices([](const given_options &given) {
                std::vector<std::string> names = device_names(given);
                names.push_back(any_path);
                return names;
            })
            .required();
    add_fleet(to, arguments);
}

option add_registers(command &to, pci_arguments &arguments, const char *meaning)
{
    add_device(to, arguments);
    option registers = to.argument("REGISTER", arguments.registers, meaning);
    to.add_option("--width", "BITS", arguments.width,
                  "Width of the register in bits (default: that of its name, or 32)")
        .one_of({"8", "16", "32"});
    return registers.choices([](const given_options &) { return register_names(); }).required();
}

void add_read(command &to, pci_arguments &arguments)
{
    add_registers(to, arguments, "Offset or name: 0x10, COMMAND, CAP_EXP+0x12");
    add_fleet(to, arguments);
}

void add_write(command &to, pci_arguments &arguments)
{
    add_registers(to, arguments, "OFFSET VALUE, or one or more of REGISTER=VALUE[/MASK]");
    to.add_flag("--dry-run", arguments.dry_run, "Only show what would be written");
}

void add_watched(command &to, pci_arguments &arguments)
{
    add_registers(to, arguments, "Offset or name, as for 'pci read'").takes_one();
    add_watch(to, arguments.wait);
}

void describe_bridge(command &bridge)
{
    bridge.add("enable", "Enable a bridge, and list the functions that appear below it", add_device,
               pci_bridge_enable);
    bridge.add("disable", "Disable a bridge: the functions below it leave the bus", add_device,
               pci_bridge_disable);
    bridge.add("usable", "Tell whether a bridge can be enabled and disabled", add_device,
               pci_bridge_usable);
}

} // namespace

void describe_pci(command &pci)
{
    pci.add("list", "List functions", add_filters, pci_list);
    pci.add("tree", "Show functions below the bridges that lead to them", add_fleet, pci_tree);
    pci.add("show", "Show a function's ids, state and resources", add_shown, pci_show);
    pci.add("read", "Read configuration registers", add_read, pci_read);
    pci.add("write", "Write configuration registers", add_write, pci_write);
    pci.add("watch", "Print a register's value, and each change", add_watched, pci_watch);
    pci.add("caps", "Show capabilities and their registers", add_shown, pci_caps);
    pci.add("dump", "Print configuration spaces as lspci -xxxx does", add_out, pci_dump);
    pci.add("diff", "Compare two functions, or files with functions", add_sides, pci_diff);
    pci.add("link-wait", "Wait up to half a second for a port's link to come up", add_device,
            pci_link_wait);
    pci.add("children", "List the functions below a bridge", add_bridge, pci_children);
    pci.add_family("bridge", "Hot-swap bridges", describe_bridge);
    pci.add_family("bar", "Memory resources, mapped", describe_bar);
}

} // namespace devaccess

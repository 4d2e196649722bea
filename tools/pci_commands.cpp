#include "command.h"
#include "library.h"
#include "output.h"
#include "pci_device.h"

#include <device_access/pci_config.h>
#include <device_access/pci_sysfs.h>
#include <device_access/qel_pci_hotswap.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <set>

#include <fmt/format.h>

namespace devaccess
{
namespace
{

struct pci_arguments {
    std::string id;
    std::string offset;
    std::string value;
    unsigned width = 32;
};

constexpr char list_hint[] = "'devaccess pci list' shows the devices";
constexpr char root_hint[] = "without special rights the kernel shows only the first 64 bytes";

//--- devices --------------------------------------------------------------------------------------

std::optional<int64_t> number_of(const char *attribute, const sysfs_pci_identity_t &device)
{
    int64_t value = 0;
    if (sysfs_pci_show_nums(&value, 1, attribute, &device) != 1)
        return std::nullopt;
    return value;
}

void add_number(record &row, const char *name, const sysfs_pci_identity_t &device, int digits)
{
    const std::optional<int64_t> value = number_of(name, device);
    if (value)
        row.add_hex(name, static_cast<uint64_t>(*value), digits);
    else
        row.add(name, nullptr);
}

record device_row(const sysfs_pci_identity_t &device)
{
    com_pci_dev_t ids = {};
    sysfs_pci_dev_fill(&ids, &device);
    record row;
    row.add("id", device.str).add_hex("vendor", ids.vendor, 4).add_hex("device", ids.device, 4);
    add_number(row, "class", device, 6);
    return row.add("path", ids.sys_fs);
}

using device_list = std::unique_ptr<sysfs_pci_identity_t, decltype(&std::free)>;

void print_devices(const device_list &devices)
{
    record_set set = {"devices", {}};
    for (const sysfs_pci_identity_t *device = devices.get(); device->str[0] != '\0'; ++device)
        set.rows.push_back(device_row(*device));
    print(std::move(set));
}

void list(const pci_arguments &)
{
    const auto listed = ask(sysfs_pci_list);
    if (!listed.result)
        fail("list PCI devices", listed, "is /sys mounted?");
    print_devices(device_list(listed.result, std::free));
}

void children(const pci_arguments &arguments)
{
    const sysfs_pci_identity_t device = pci_device(arguments.id);
    const auto listed = ask([&] { return sysfs_pci_children_list(&device); });
    if (!listed.result)
        fail("list the devices behind " + arguments.id, listed, list_hint);
    print_devices(device_list(listed.result, std::free));
}

void show(const pci_arguments &arguments)
{
    const sysfs_pci_identity_t device = pci_device(arguments.id);
    const auto present = ask([&] { return sysfs_pci_access("vendor", R_OK, &device); });
    if (present.result != 0)
        fail("show " + std::string(device.str), present, list_hint);
    record shown = device_row(device);
    add_number(shown, "subsystem_vendor", device, 4);
    add_number(shown, "subsystem_device", device, 4);
    const std::optional<int64_t> users = number_of("enable", device);
    shown.add("enabled", users ? json(*users != 0) : json());
    record_set resources = {"resources", {}};
    for (const pci_resource &resource : pci_resources(device))
        resources.rows.push_back(record()
                                     .add("bar", resource.bar)
                                     .add_hex("base", resource.base, 8)
                                     .add_hex("size", resource.size, 1)
                                     .add_hex("flags", resource.flags, 8));
    print(shown.add(std::move(resources)));
}

//--- configuration space --------------------------------------------------------------------------

class config_space
{
public:
    explicit config_space(const sysfs_pci_identity_t &device) : device_(device.str)
    {
        const auto found = ask([&] { return pci_config_open(&device); });
        if (!found.result)
            fail("open the configuration space of " + device_, found, list_hint);
        handle_.reset(found.result);
    }

    // Nothing when the register cannot be read; errno is then ENODATA when it lies beyond the end.
    std::optional<uint32_t> try_read(uint32_t offset, unsigned width) const
    {
        const auto read = width == 8    ? pci_config_read8
                          : width == 16 ? pci_config_read16
                                        : pci_config_read32;
        errno = ENODATA;
        const uint32_t value = read(offset, handle_.get());
        return errno == 0 ? std::optional(value) : std::nullopt;
    }

    uint32_t read(uint32_t offset, unsigned width) const
    {
        const std::optional<uint32_t> value = try_read(offset, width);
        if (!value)
            fail_on("read", offset, width);
        return *value;
    }

    void write(uint32_t offset, unsigned width, uint32_t value) const
    {
        errno = ENODATA;
        void *handle = handle_.get();
        const int result =
            width == 8    ? pci_config_write8(static_cast<uint8_t>(value), offset, handle)
            : width == 16 ? pci_config_write16(static_cast<uint16_t>(value), offset, handle)
                          : pci_config_write32(value, offset, handle);
        if (result != 0)
            fail_on("write", offset, width);
    }

private:
    [[noreturn]] void fail_on(const char *verb, uint32_t offset, unsigned width) const
    {
        const int error = errno;
        const std::string what = fmt::format("{} register {:#x} of {}", verb, offset, device_);
        if (error == ENODATA)
            throw failure(what, "it lies beyond the end of the configuration space", root_hint);
        throw failure(what, std::strerror(error),
                      fmt::format("offsets are multiples of the width, {} bytes here", width / 8),
                      error);
    }

    std::string device_;
    std::unique_ptr<void, decltype(&pci_config_close)> handle_ = {nullptr, pci_config_close};
};

uint32_t offset_of(const pci_arguments &arguments)
{
    return static_cast<uint32_t>(parse_number("the offset", arguments.offset, UINT32_MAX));
}

record register_record(const sysfs_pci_identity_t &device, const pci_arguments &arguments,
                       uint32_t value)
{
    return record()
        .add("id", device.str)
        .add_hex("offset", offset_of(arguments), 2)
        .add("width", arguments.width)
        .add_hex("value", value, static_cast<int>(arguments.width / 4));
}

void read(const pci_arguments &arguments)
{
    const sysfs_pci_identity_t device = pci_device(arguments.id);
    const uint32_t offset = offset_of(arguments);
    print(register_record(device, arguments, config_space(device).read(offset, arguments.width)));
}

void write(const pci_arguments &arguments)
{
    const sysfs_pci_identity_t device = pci_device(arguments.id);
    const uint32_t offset = offset_of(arguments);
    const auto value =
        static_cast<uint32_t>(parse_number("the value", arguments.value, highest(arguments.width)));
    config_space(device).write(offset, arguments.width, value);
    print_done(register_record(device, arguments, value));
}

//--- capabilities ---------------------------------------------------------------------------------

struct named_id {
    uint32_t id;
    const char *name;
};

constexpr named_id standard_names[] = {
    {0x01, "Power Management"},
    {0x02, "AGP"},
    {0x03, "Vital Product Data"},
    {0x04, "Slot Identification"},
    {0x05, "MSI"},
    {0x06, "CompactPCI Hot Swap"},
    {0x07, "PCI-X"},
    {0x08, "HyperTransport"},
    {0x09, "Vendor Specific"},
    {0x0a, "Debug Port"},
    {0x0b, "CompactPCI Resource Control"},
    {0x0c, "Hot Plug"},
    {0x0d, "Bridge Subsystem Vendor ID"},
    {0x0e, "AGP 8x"},
    {0x0f, "Secure Device"},
    {0x10, "PCI Express"},
    {0x11, "MSI-X"},
    {0x12, "SATA Configuration"},
    {0x13, "Advanced Features"},
    {0x14, "Enhanced Allocation"},
    {0x15, "Flattening Portal Bridge"},
};

constexpr named_id extended_names[] = {
    {0x0001, "Advanced Error Reporting"},
    {0x0002, "Virtual Channel"},
    {0x0003, "Device Serial Number"},
    {0x0004, "Power Budgeting"},
    {0x0005, "Root Complex Link Declaration"},
    {0x0006, "Root Complex Internal Link Control"},
    {0x0007, "Root Complex Event Collector"},
    {0x0008, "Multi-Function Virtual Channel"},
    {0x0009, "Virtual Channel (MFVC)"},
    {0x000a, "Root Complex Register Block"},
    {0x000b, "Vendor Specific"},
    {0x000d, "Access Control Services"},
    {0x000e, "Alternative Routing-ID"},
    {0x000f, "Address Translation Services"},
    {0x0010, "Single Root I/O Virtualization"},
    {0x0012, "Multicast"},
    {0x0013, "Page Request Interface"},
    {0x0015, "Resizable BAR"},
    {0x0016, "Dynamic Power Allocation"},
    {0x0017, "TPH Requester"},
    {0x0018, "Latency Tolerance Reporting"},
    {0x0019, "Secondary PCI Express"},
    {0x001b, "Process Address Space ID"},
    {0x001d, "Downstream Port Containment"},
    {0x001e, "L1 PM Substates"},
    {0x001f, "Precision Time Measurement"},
    {0x0023, "Designated Vendor Specific"},
    {0x0025, "Data Link Feature"},
    {0x0026, "Physical Layer 16.0 GT/s"},
    {0x0027, "Lane Margining at the Receiver"},
    {0x002a, "Physical Layer 32.0 GT/s"},
};

template <size_t Count>
const char *name_of(uint32_t id, const named_id (&names)[Count])
{
    for (const named_id &known : names)
        if (known.id == id)
            return known.name;
    return "unknown";
}

record capability_row(const char *kind, uint32_t offset, uint32_t id, const char *name)
{
    return record()
        .add("kind", kind)
        .add_hex("offset", offset, 2)
        .add_hex("capability", id, 2)
        .add("name", name);
}

// A list's entries, until it ends or, because it is broken, leads where it has been.
struct capability_list {
    std::vector<record> rows;
    bool complete = true;
};

// Where the standard list begins; 0 when there is none.
uint32_t first_capability(const config_space &config)
{
    const bool has_list = config.read(0x06, 16) & 0x10;
    const uint32_t layout = config.read(0x0e, 8) & 0x7f;
    return has_list ? config.read(layout == 2 ? 0x14 : 0x34, 8) & 0xfc : 0;
}

void walk_standard(const config_space &config, capability_list &found)
{
    std::set<uint32_t> seen;
    for (uint32_t offset = first_capability(config); offset != 0;) {
        if (offset < 0x40 || !seen.insert(offset).second) {
            found.complete = false;
            return;
        }
        const uint32_t entry = config.read(offset, 16);
        const uint32_t id = entry & 0xff;
        found.rows.push_back(capability_row("standard", offset, id, name_of(id, standard_names)));
        offset = entry >> 8 & 0xfc;
    }
}

void walk_extended(const config_space &config, capability_list &found)
{
    std::set<uint32_t> seen;
    for (uint32_t offset = 0x100; offset != 0;) {
        const std::optional<uint32_t> entry = config.try_read(offset, 32);
        if (!entry || *entry == 0 || *entry == UINT32_MAX)
            return;
        if (offset < 0x100 || !seen.insert(offset).second) {
            found.complete = false;
            return;
        }
        const uint32_t id = *entry & 0xffff;
        found.rows.push_back(capability_row("extended", offset, id, name_of(id, extended_names)));
        offset = *entry >> 20 & 0xffc;
    }
}

void caps(const pci_arguments &arguments)
{
    const sysfs_pci_identity_t device = pci_device(arguments.id);
    const config_space config(device);
    capability_list found;
    walk_standard(config, found);
    walk_extended(config, found);
    print(record()
              .add("id", device.str)
              .add("complete", found.complete)
              .add({"capabilities", std::move(found.rows)}));
}

//--- link and bridges -----------------------------------------------------------------------------

void link_wait(const pci_arguments &arguments)
{
    const sysfs_pci_identity_t device = pci_device(arguments.id);
    auto waited = ask([&] { return pcie_config_wait_link_up(&device); });
    const std::string what = "see the link of " + arguments.id + " up";
    if (waited.result > 0)
        throw failure(what, pcie_config_link_strerror(waited.result),
                      "is there a card behind the port, with power?");
    if (waited.result < 0 && waited.error == ENOENT &&
        sysfs_pci_access("vendor", R_OK, &device) == 0)
        throw failure(what, "it has no PCI Express capability",
                      "ports of PCI Express have one; 'devaccess pci caps' shows what it has",
                      ENOENT);
    if (waited.result < 0)
        fail(what, waited, list_hint);
    print(record().add("id", device.str).add("link", "up"));
}

// Of a bridge that cannot be switched.
[[noreturn]] void fail_on_bridge(const std::string &what, const sysfs_pci_identity_t &device,
                                 const outcome &how)
{
    if (how.error == ENODEV)
        throw failure(what, "no device appeared behind it in half a second",
                      "is a card in that slot, and has it power?", ENODEV);
    if (how.error == ENOENT && sysfs_pci_access("vendor", R_OK, &device) == 0)
        throw failure(what, "it has no attribute 'bridge_enable'",
                      "hot-swap bridges have one once the module qel_pci_hotswap is loaded",
                      ENOENT);
    fail(what, how, list_hint);
}

void bridge_enable(const pci_arguments &arguments)
{
    const sysfs_pci_identity_t device = pci_device(arguments.id);
    const auto appeared = ask([&] { return qel_pci_hotswap_bridge_enable(&device); });
    if (!appeared.result)
        fail_on_bridge("enable the bridge " + arguments.id, device, appeared);
    print_devices(device_list(appeared.result, std::free));
}

void bridge_disable(const pci_arguments &arguments)
{
    const sysfs_pci_identity_t device = pci_device(arguments.id);
    const auto stored = ask([&] { return qel_pci_hotswap_bridge_disable(&device); });
    if (stored.result != 0)
        fail_on_bridge("disable the bridge " + arguments.id, device, stored);
    print_done(record().add("id", device.str));
}

void bridge_usable(const pci_arguments &arguments)
{
    const sysfs_pci_identity_t device = pci_device(arguments.id);
    const auto usable = ask([&] { return qel_pci_hotswap_bridge_usable(&device); });
    print(record().add("id", device.str).add("usable", usable.result == 0));
    if (usable.result != 0)
        fail_on_bridge("use the bridge " + arguments.id, device, usable);
}

//--- command line ---------------------------------------------------------------------------------

std::vector<std::string> device_names(const given_options &)
{
    std::vector<std::string> names;
    std::error_code none;
    for (const auto &entry : std::filesystem::directory_iterator("/sys/bus/pci/devices", none))
        names.push_back(entry.path().filename().string());
    return names;
}

void add_nothing(CLI::App &, pci_arguments &) {}

void add_device(CLI::App &command, pci_arguments &arguments)
{
    offer(command.add_option("ID", arguments.id, "PCI function, e.g. 0000:03:00.0"), device_names)
        ->required();
}

void add_register(CLI::App &command, pci_arguments &arguments)
{
    add_device(command, arguments);
    command.add_option("OFFSET", arguments.offset, "of the register, in bytes")->required();
    one_of(command.add_option("--width", arguments.width, "of the register, in bits"),
           {"8", "16", "32"})
        ->capture_default_str();
}

void add_register_and_value(CLI::App &command, pci_arguments &arguments)
{
    add_register(command, arguments);
    command.add_option("VALUE", arguments.value, "to write")->required();
}

using family = command_family<pci_arguments>;

constexpr family::entry commands[] = {
    {"list", "List all functions", list, add_nothing},
    {"show", "Show a function's ids and resources", show, add_device},
    {"read", "Read a configuration register", read, add_register},
    {"write", "Write a configuration register", write, add_register_and_value},
    {"caps", "Show the capability lists", caps, add_device},
    {"link-wait", "Wait half a second for a port's link to be up", link_wait, add_device},
    {"children", "List the functions behind a bridge", children, add_device},
};

constexpr family::entry bridge_commands[] = {
    {"enable", "Enable it, and list the functions that appear behind it", bridge_enable,
     add_device},
    {"disable", "Disable it: what is behind it leaves the bus", bridge_disable, add_device},
    {"usable", "Tell whether it can be enabled and disabled", bridge_usable, add_device},
};

} // namespace

void add_pci_commands(CLI::App &program)
{
    family pci(program, "pci", "PCI functions, through sysfs");
    if (pci.add(commands))
        family(pci.app, "bridge", "Hot-swap bridges", pci.arguments).add(bridge_commands);
}

} // namespace devaccess

// UIO devices: uio list, info, wait, and the device behind the commands on registers.
#include "tools/base/captured_call.h"
#include "tools/base/errors.h"
#include "tools/base/fleet.h"
#include "tools/base/numbers.h"
#include "tools/base/output.h"
#include "tools/base/waiting.h"
#include "tools/cli/options.h"
#include "tools/registers/register_commands.h"
#include "tools/registers/source_commands.h"

#include <device_access/device_access.hpp>
#include <device_access/libuio_emul.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <optional>
#include <sstream>

#include <fmt/format.h>

// Switches the library's diagnostics on, for --verbose.
extern "C" {
extern int libuio_log;
int libuio_log = 0;
}

namespace devaccess
{
namespace
{

namespace fs = std::filesystem;

struct uio_arguments {
    archive_names from;
    std::string node;
    std::string count;
    wait_options wait;
};

constexpr char list_hint[] = "'devaccess uio list' shows the devices";

//--- devices --------------------------------------------------------------------------------------

constexpr char uio_class[] = "/sys/class/uio";

std::string first_line(const fs::path &file, const machine_source &machine = this_machine())
{
    return printable(machine.line(file));
}

std::vector<fs::path> class_directories(const machine_source &machine = this_machine())
{
    std::error_code error;
    if (!machine.is_archive())
        fs::directory_iterator(uio_class, error);
    if (error && error != std::errc::no_such_file_or_directory)
        throw failure(fmt::format("list {}", uio_class), error.message(), "is /sys mounted?");
    std::vector<fs::path> found;
    for (const std::string &name : machine.names_in(uio_class))
        found.push_back(fs::path(uio_class) / name);
    return found;
}

// As the kernel names it in the device's link, or in its uevent.
field_value driver_of(const fs::path &device, const machine_source &machine)
{
    const fs::path link = machine.target(device / "driver");
    if (!link.empty())
        return printable(link.filename());
    std::istringstream uevent(machine.text(device / "uevent"));
    for (std::string line; std::getline(uevent, line);)
        if (line.starts_with("DRIVER="))
            return printable(line.substr(7));
    return nullptr;
}

field_value interrupts_of(const fs::path &directory, const machine_source &machine)
{
    uint64_t count = 0;
    return std::istringstream(machine.line(directory / "event")) >> count ? field_value(count)
                                                                          : field_value();
}

record class_row(const fs::path &directory, const machine_source &machine)
{
    return record()
        .add("node", printable("/dev/" + directory.filename().string()))
        .add("name", first_line(directory / "name", machine))
        .add("number", first_line(directory / "dev", machine))
        .add("maps", machine.names_in(directory / "maps").size())
        .add("driver", driver_of(directory / "device", machine))
        .add("interrupts", interrupts_of(directory, machine))
        .add("device", printable(machine.real_path(directory / "device")));
}

void list(const uio_arguments &arguments)
{
    fleet machines(arguments.from);
    record_set set = {"devices", {}};
    machines.for_each([&](const machine_source &machine, const std::string &host) {
        for (const fs::path &directory : class_directories(machine))
            set.rows.push_back(machines.row(host).append(class_row(directory, machine)));
    });
    print(std::move(set));
    machines.finish();
}

std::vector<std::string> nodes_of(const std::string &name, const machine_source &machine)
{
    std::vector<std::string> nodes;
    for (const fs::path &directory : class_directories(machine))
        if (first_line(directory / "name", machine) == name)
            nodes.push_back("/dev/" + directory.filename().string());
    return nodes;
}

// "uio0" and "0" stand for /dev/uio0, "name:regs" for the device of that name, and so does "regs"
// where that cannot be anything else.
std::string node_of(const std::string &name, const machine_source &machine = this_machine())
{
    if (name.starts_with("name:")) {
        const std::vector<std::string> nodes = nodes_of(name.substr(5), machine);
        if (nodes.size() != 1)
            throw failure("find the UIO device " + name,
                          nodes.empty() ? "no device has that name"
                                        : "several have that name: " +
                                              fmt::format("{}", fmt::join(nodes, ", ")),
                          list_hint);
        return nodes[0];
    }
    const bool is_number = name.find_first_not_of("0123456789") == name.npos;
    const bool is_short = name.starts_with("uio") || (is_number && !name.empty());
    if (is_short)
        return (is_number ? "/dev/uio" : "/dev/") + name;
    const bool may_be_name = name.find('/') == name.npos && !libuio_is_emul(name.c_str());
    const std::vector<std::string> nodes =
        may_be_name ? nodes_of(name, machine) : std::vector<std::string>();
    return nodes.size() == 1 ? nodes[0] : name;
}

// What maps of it are called: the device's name, or that of the register block; and, behind a PCI
// function, what that says of itself.
std::vector<std::string> map_names_of(const std::string &node)
{
    std::vector<std::string> names;
    fs::path device;
    if (libuio_is_emul(node.c_str())) {
        const size_t begin = node.find(':') + 1;
        names.push_back(node.substr(begin, node.find('.', begin) - begin));
    } else {
        std::error_code none;
        const fs::path directory = "/sys/class/uio" / fs::weakly_canonical(node, none).filename();
        names.push_back(first_line(directory / "name"));
        device = directory / "device";
    }
    for (const std::string &name : register_map::names_of_pci(device))
        names.push_back(name);
    return names;
}

class uio_device : public register_source
{
public:
    explicit uio_device(const register_arguments &arguments) : uio_device(arguments.device) {}
    explicit uio_device(const std::string &name) : node_(node_of(name))
    {
        const auto found = ask([&] {
            auto opened = device_access::uio::open(node_, std::chrono::seconds(0));
            if (opened)
                device_.emplace(std::move(*opened));
            return opened.has_value();
        });
        if (!found.result)
            fail_to_open(found.error);
    }
    ~uio_device() override
    {
        ask([&] {
            device_.reset();
            return 0;
        });
    }
    uio_device(const uio_device &) = delete;
    uio_device &operator=(const uio_device &) = delete;

    device_access::uio &operator*() { return *device_; }
    device_access::uio *operator->() { return &*device_; }
    const std::string &node() const { return node_; }

    std::string name() const override { return node_; }
    record identity() const override { return record().add("node", node_); }
    const char *window_word() const override { return "map"; }
    std::vector<std::string> map_names() const override { return map_names_of(node_); }
    static std::vector<std::string> map_names_of_device(const std::string &name)
    {
        return map_names_of(node_of(name));
    }

    static constexpr char place_words[] = "MAP OFFSET";
    static constexpr char device_word[] = "NODE";
    static void add_device(command &to, register_arguments &arguments);

    unsigned highest_window() const override { return LIBUIO_MAX_MAPS - 1; }

    register_bank bank(unsigned map, uint64_t, uint64_t) override
    {
        std::optional<device_access::window> window;
        const auto mapped = ask([&] {
            const auto done = device_->map(~(uint64_t{1} << map));
            window = device_->mapped(map);
            errno = done ? 0 : done.error().error;
            return done.has_value();
        });
        if (!window)
            throw failure(fmt::format("map window {} of {}", map, node_),
                          mapped.error ? std::strerror(mapped.error) : "there is no such map",
                          "'devaccess uio info " + node_ + "' shows its maps", mapped.error);
        return {fmt::format("map {} of {}", map, node_),
                identity().add("map", map),
                "offset",
                0,
                *window,
                libuio_get_sys_class_dir(device_->get())};
    }

private:
    [[noreturn]] void fail_to_open(int error) const
    {
        const std::string what = "open " + node_;
        if (!libuio_is_emul(node_.c_str()))
            throw failure(what, std::strerror(error), list_hint, error);
        throw failure(what,
                      error == EINVAL ? "no such register block, or no card in that slot"
                                      : std::strerror(error),
                      "names are sysfs_pci:REGION.SLOT[.FPGA], e.g. sysfs_pci:uio_cma.alsw1; "
                      "'devaccess pci list' shows the cards' functions",
                      error);
    }

    std::string node_;
    std::optional<device_access::uio> device_;
};

record map_row(const libuio_map_t &map)
{
    return record()
        .add("map", map.index)
        .add_hex("size", map.size, 1)
        .add("bar", map.bar)
        .add_hex("offset", map.offset, 1);
}

record present_info(const std::string &name)
{
    uio_device device(name);
    const libuio_dev_t *uio = device->get();
    std::vector<libuio_map_t> windows(uio->map, uio->map + uio->map_count);
    std::sort(windows.begin(), windows.end(),
              [](const libuio_map_t &a, const libuio_map_t &b) { return a.index < b.index; });
    record_set maps = {"maps", {}};
    for (const libuio_map_t &window : windows)
        maps.rows.push_back(map_row(window));
    return record()
        .add("node", libuio_get_real_devnode(uio))
        .add("emulated", libuio_is_emul(device.node().c_str()) == 1)
        .add("class_directory", libuio_get_sys_class_dir(uio))
        .add("device_directory", libuio_get_sys_device_dir(uio))
        .add("removal_notice", libuio_get_removed_fd(uio) >= 0)
        .add(std::move(maps));
}

// Of a device with a UIO driver: what an emulated one has, its card's registers say.
record recorded_info(const std::string &name, const machine_source &machine)
{
    const std::string node = node_of(name, machine);
    const fs::path directory = uio_class / fs::path(node).filename();
    if (libuio_is_emul(node.c_str()) || machine.real_path(directory).empty())
        throw failure(fmt::format("find {} in {}", node, machine.archive()),
                      "it has no UIO device of that name",
                      "'devaccess uio list" + machine.option() + "' shows the devices");
    record_set maps = {"maps", {}};
    for (unsigned index = 0; index < LIBUIO_MAX_MAPS; ++index) {
        libuio_map_t map = {};
        const std::string size = machine.line(directory / fmt::format("maps/map{}/size", index));
        map.index = index;
        map.size = std::strtoul(size.c_str(), nullptr, 0);
        if (!size.empty())
            maps.rows.push_back(map_row(map));
    }
    return record()
        .add("node", printable("/dev/" + directory.filename().string()))
        .add("emulated", false)
        .add("class_directory", printable(directory))
        .add("device_directory", printable(machine.real_path(directory / "device")))
        .add("removal_notice", !machine.real_path(directory / "device/uio_maps").empty())
        .add(std::move(maps));
}

void info(const uio_arguments &arguments)
{
    fleet machines(arguments.from);
    machines.print_each([&](const machine_source &machine, const std::string &) {
        return machine.is_archive() ? recorded_info(arguments.node, machine)
                                    : present_info(arguments.node);
    });
    machines.finish();
}

//--- interrupts -----------------------------------------------------------------------------------

const char *wait_hint(int error)
{
    switch (error) {
    case ETIMEDOUT:
        return "a longer --timeout waits longer";
    case ECANCELED:
        return "the device has been removed";
    case EIO:
        return "it has no interrupt, or has been removed";
    case EBADF:
        return "emulated devices have no interrupts";
    default:
        return "--verbose tells more";
    }
}

[[noreturn]] void fail_to_wait(const char *what, const uio_device &device, int error)
{
    throw failure(fmt::format("{} of {}", what, device.node()), std::strerror(error),
                  wait_hint(error), error);
}

// The driver's count. A driver without interrupt control has its interrupt enabled always.
uint32_t next_interrupt(uio_device &device, waiting &wait)
{
    const auto enabled = ask([&] { return device->enable_interrupt().has_value(); });
    if (!enabled.result && enabled.error != ENOSYS)
        fail_to_wait("enable the interrupt", device, enabled.error);
    while (true) {
        wait.check();
        wait.show();
        uint32_t count = 0;
        const auto waited = ask([&] {
            const auto came = device->wait_until(wait.next_look());
            count = came.value_or(0);
            return came.has_value();
        });
        if (waited.result)
            return count;
        wait.check();
        if (waited.error != ETIMEDOUT || wait.is_over())
            fail_to_wait("see an interrupt", device, waited.error);
    }
}

void wait(const uio_arguments &arguments)
{
    uio_device device(arguments.node);
    waiting wait("waiting for an interrupt of " + device.node(), arguments.wait.timeout);
    const auto line = [&] {
        const uint32_t count = next_interrupt(device, wait);
        return record().add("node", device.node()).add("event_count", count);
    };
    if (arguments.count.empty()) {
        const record only = line().append(wait.now());
        wait.clear();
        print(only);
        return;
    }
    for (uint64_t left = parse_count("the count", arguments.count, UINT32_MAX); left > 0; --left)
        wait.print(line());
}

//--- command line ---------------------------------------------------------------------------------

std::vector<std::string> node_names(const given_options &)
{
    // Examples of what emulated devices are called.
    std::vector<std::string> names = {"sysfs_pci:uio_glb.rpsw",     "sysfs_pci:uio_cma.alsw1",
                                      "sysfs_pci:uio_cma.alsw2",    "sysfs_pci:uio_brd_ctrl.alsw1",
                                      "sysfs_pci:uio_brd_ctrl.sw1", "sysfs_pci:uio_cmneqp.rpsw"};
    std::error_code none;
    for (const auto &entry : fs::directory_iterator("/dev", none))
        if (entry.path().filename().string().rfind("uio", 0) == 0)
            names.push_back(entry.path().string());
    return names;
}

constexpr char node_meaning[] =
    "/dev/uioN, uioN, N, a device's name, or sysfs_pci:REGION.SLOT[.FPGA]";

void add_fleet(command &to, uio_arguments &arguments)
{
    add_archives(to, arguments.from);
}

void add_node(command &to, uio_arguments &arguments)
{
    to.argument("NODE", arguments.node, node_meaning).choices(node_names).required();
}

void add_info(command &to, uio_arguments &arguments)
{
    add_node(to, arguments);
    add_fleet(to, arguments);
}

void uio_device::add_device(command &to, register_arguments &arguments)
{
    to.argument("NODE", arguments.device, node_meaning).choices(node_names).required();
}

void add_wait(command &to, uio_arguments &arguments)
{
    add_node(to, arguments);
    to.add_option("--count", "N", arguments.count,
                  "Number of interrupts to wait for, with a line for each (default: one)");
    add_timeout(to, arguments.wait);
}

} // namespace

void describe_uio(command &uio)
{
    uio.add("list", "List the devices with a UIO driver", add_fleet, list);
    uio.add("info", "Show a device's directories and maps", add_info, info);
    add_register_commands<uio_device>(uio);
    uio.add("wait", "Enable the interrupt and wait for it", add_wait, wait);
}

} // namespace devaccess

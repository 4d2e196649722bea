#include "commands.h"
#include "library.h"
#include "output.h"

#include <device_access/libuio.h>
#include <device_access/libuio_emul.h>
#include <device_access/regiomap_x86.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>

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
    std::string node;
    std::string map;
    std::string offset;
    std::string value;
    unsigned width = 32;
    double timeout = -1;
};

//--- devices --------------------------------------------------------------------------------------

std::string first_line(const fs::path &file)
{
    std::string line;
    std::getline(std::ifstream(file), line);
    return printable(line);
}

size_t entries_of(const fs::path &directory)
{
    std::error_code ignored;
    fs::directory_iterator entries(directory, ignored);
    return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

record class_row(const fs::path &directory)
{
    std::error_code ignored;
    return record()
        .add("node", "/dev/" + directory.filename().string())
        .add("name", first_line(directory / "name"))
        .add("number", first_line(directory / "dev"))
        .add("maps", entries_of(directory / "maps"))
        .add("device", fs::canonical(directory / "device", ignored).string());
}

void list(const uio_arguments &)
{
    const fs::path class_directory = "/sys/class/uio";
    std::vector<fs::path> found;
    std::error_code error;
    for (const auto &entry : fs::directory_iterator(class_directory, error))
        found.push_back(entry.path());
    if (error && error != std::errc::no_such_file_or_directory)
        throw failure("list " + class_directory.string(), error.message(), "is /sys mounted?");
    std::sort(found.begin(), found.end());
    record_set set = {"devices", {}};
    for (const fs::path &directory : found)
        set.rows.push_back(class_row(directory));
    print(std::move(set));
}

class uio_device
{
public:
    explicit uio_device(const std::string &node) : node_(node)
    {
        const auto opened = ask([&] {
            const timespec no_wait = {0, 0};
            return libuio_open_timed(node.c_str(), &no_wait);
        });
        if (!opened.result)
            throw failure("open " + node, std::strerror(opened.error),
                          libuio_is_emul(node.c_str())
                              ? "names are sysfs_pci:REGION.SLOT[.FPGA], of a card that is there"
                              : "'devaccess uio list' shows the devices");
        handle_ = opened.result;
    }
    ~uio_device()
    {
        ask([&] {
            libuio_close(handle_);
            return 0;
        });
    }
    uio_device(const uio_device &) = delete;
    uio_device &operator=(const uio_device &) = delete;

    libuio_dev_t *handle() const { return handle_; }
    const std::string &node() const { return node_; }

private:
    std::string node_;
    libuio_dev_t *handle_ = nullptr;
};

record map_row(const libuio_map_t &map)
{
    return record()
        .add("map", map.index)
        .add_hex("size", map.size, 1)
        .add("bar", map.bar)
        .add_hex("offset", map.offset, 1);
}

void info(const uio_arguments &arguments)
{
    const uio_device device(arguments.node);
    const libuio_dev_t *uio = device.handle();
    std::vector<libuio_map_t> windows(uio->map, uio->map + uio->map_count);
    std::sort(windows.begin(), windows.end(),
              [](const libuio_map_t &a, const libuio_map_t &b) { return a.index < b.index; });
    record_set maps = {"maps", {}};
    for (const libuio_map_t &window : windows)
        maps.rows.push_back(map_row(window));
    print(record()
              .add("node", libuio_get_real_devnode(uio))
              .add("emulated", libuio_is_emul(arguments.node.c_str()) == 1)
              .add("class_directory", libuio_get_sys_class_dir(uio))
              .add("device_directory", libuio_get_sys_device_dir(uio))
              .add("removal_notice", libuio_get_removed_fd(uio) >= 0)
              .add(std::move(maps)));
}

//--- registers ------------------------------------------------------------------------------------

// A register of a mapped window.
class uio_register
{
public:
    explicit uio_register(const uio_arguments &arguments)
        : device_(arguments.node), width_(arguments.width)
    {
        index_ = static_cast<unsigned>(parse_number("the map", arguments.map, LIBUIO_MAX_MAPS - 1));
        offset_ = static_cast<size_t>(parse_number("the offset", arguments.offset, SIZE_MAX));
        address_ = static_cast<char *>(window()) + offset_;
    }

    uint64_t read() const
    {
        switch (width_) {
        case 8:
            return ioread8(address_);
        case 16:
            return ioread16(address_);
        case 32:
            return ioread32(address_);
        default:
            return ioread64(address_);
        }
    }

    void write(uint64_t value) const
    {
        switch (width_) {
        case 8:
            return iowrite8(static_cast<uint8_t>(value), address_);
        case 16:
            return iowrite16(static_cast<uint16_t>(value), address_);
        case 32:
            return iowrite32(static_cast<uint32_t>(value), address_);
        default:
            return iowrite64(value, address_);
        }
    }

    record describe(uint64_t value) const
    {
        return record()
            .add("node", device_.node())
            .add("map", index_)
            .add_hex("offset", offset_, 2)
            .add("width", width_)
            .add_hex("value", value, static_cast<int>(width_ / 4));
    }

private:
    void *window()
    {
        const std::string what = "map window " + std::to_string(index_) + " of " + device_.node();
        size_t size = 0;
        void *start = nullptr;
        const auto mapped = ask([&] {
            const int count = libuio_mmap(device_.handle(), ~(uint64_t{1} << index_));
            const int error = errno;
            start = libuio_get_mapinfo(device_.handle(), index_, &size);
            errno = error;
            return count;
        });
        const std::string hint = "'devaccess uio info " + device_.node() + "' shows its maps";
        if (!start)
            throw failure(what, mapped.error ? std::strerror(mapped.error) : "there is none", hint);
        const size_t bytes = width_ / 8;
        if (offset_ % bytes != 0)
            throw usage_error("the offset must be a multiple of " + std::to_string(bytes) +
                              " bytes, the width");
        if (size < bytes || offset_ > size - bytes)
            throw failure("reach offset " + hex(offset_) + " of map " + std::to_string(index_),
                          "the window has " + hex(size) + " bytes", hint);
        return start;
    }

    uio_device device_;
    unsigned width_;
    unsigned index_;
    size_t offset_;
    char *address_;
};

void read(const uio_arguments &arguments)
{
    const uio_register place(arguments);
    print(place.describe(place.read()));
}

void write(const uio_arguments &arguments)
{
    const auto value = parse_number("the value", arguments.value, highest(arguments.width));
    uio_register(arguments).write(value);
}

//--- interrupts -----------------------------------------------------------------------------------

timespec after(double seconds)
{
    timespec time = {};
    ::clock_gettime(CLOCK_MONOTONIC, &time);
    const auto whole = static_cast<time_t>(seconds);
    time.tv_sec += whole;
    time.tv_nsec += static_cast<long>((seconds - static_cast<double>(whole)) * 1e9);
    if (time.tv_nsec >= 1000000000) {
        time.tv_nsec -= 1000000000;
        time.tv_sec += 1;
    }
    return time;
}

const char *wait_hint(int error)
{
    switch (error) {
    case ETIMEDOUT:
        return "a longer --timeout waits longer";
    case ECANCELED:
        return "the device has been removed";
    case EBADF:
        return "emulated devices have no interrupts";
    default:
        return "--verbose tells more";
    }
}

void wait(const uio_arguments &arguments)
{
    const uio_device device(arguments.node);
    // A driver without interrupt control has its interrupt enabled always.
    const auto enabled = ask([&] { return libuio_irqcontrol(device.handle(), 1); });
    if (enabled.result != 0 && enabled.error != ENOSYS)
        throw failure("enable the interrupt of " + arguments.node, std::strerror(enabled.error),
                      wait_hint(enabled.error));
    const timespec deadline = after(arguments.timeout);
    uint32_t count = 0;
    const auto waited = ask([&] {
        return libuio_irqwait(device.handle(), arguments.timeout < 0 ? nullptr : &deadline, &count);
    });
    if (waited.result != 0)
        throw failure("see an interrupt of " + arguments.node, std::strerror(waited.error),
                      wait_hint(waited.error));
    print(record().add("node", arguments.node).add("event_count", count));
}

//--- command line ---------------------------------------------------------------------------------

using arguments_ptr = std::shared_ptr<uio_arguments>;

CLI::App *add_node_command(CLI::App &family, const std::string &name,
                           const std::string &description, const arguments_ptr &arguments,
                           void (*action)(const uio_arguments &))
{
    CLI::App *command = add_command(family, name, description, arguments, action);
    command->add_option("NODE", arguments->node, "/dev/uioN, or sysfs_pci:REGION.SLOT[.FPGA]")
        ->required();
    return command;
}

CLI::App *add_register_command(CLI::App &family, const std::string &name,
                               const std::string &description, const arguments_ptr &arguments,
                               void (*action)(const uio_arguments &))
{
    CLI::App *command = add_node_command(family, name, description, arguments, action);
    command->add_option("MAP", arguments->map, "number of the window")->required();
    command->add_option("OFFSET", arguments->offset, "of the register, in bytes")->required();
    command->add_option("--width", arguments->width, "of the register, in bits")
        ->check(CLI::IsMember({"8", "16", "32", "64"}))
        ->capture_default_str();
    return command;
}

} // namespace

void add_uio_commands(CLI::App &program)
{
    const auto arguments = std::make_shared<uio_arguments>();
    CLI::App &uio = *program.add_subcommand("uio", "UIO devices, and those emulated over PCI");
    uio.require_subcommand(1);
    add_command(uio, "list", "the devices with a UIO driver", arguments, list);
    add_node_command(uio, "info", "a device's directories and windows", arguments, info);
    add_register_command(uio, "read", "a register", arguments, read);
    add_register_command(uio, "write", "a register", arguments, write)
        ->add_option("VALUE", arguments->value, "to write")
        ->required();
    add_node_command(uio, "wait", "enable the interrupt and wait for it", arguments, wait)
        ->add_option("--timeout", arguments->timeout, "seconds; without it, wait without limit")
        ->check(CLI::Range(0.0, 1e9));
}

} // namespace devaccess

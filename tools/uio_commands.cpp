#include "command.h"
#include "library.h"
#include "output.h"

#include <device_access/libuio.h>
#include <device_access/libuio_emul.h>
#include <device_access/regiomap_x86.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>

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
    explicit uio_device(const std::string &name) : node_(full_name(name))
    {
        const auto found = ask([&] {
            const timespec no_wait = {0, 0};
            return libuio_open_timed(node_.c_str(), &no_wait);
        });
        if (!found.result)
            fail_to_open(found.error);
        handle_.reset(found.result);
    }

    libuio_dev_t *handle() const { return handle_.get(); }
    const std::string &node() const { return node_; }

private:
    // "uio0" and "0" stand for /dev/uio0.
    static std::string full_name(const std::string &name)
    {
        const bool is_number = name.find_first_not_of("0123456789") == name.npos;
        const bool is_short = name.rfind("uio", 0) == 0 || (is_number && !name.empty());
        return is_short ? (is_number ? "/dev/uio" : "/dev/") + name : name;
    }

    [[noreturn]] void fail_to_open(int error) const
    {
        const std::string what = "open " + node_;
        if (!libuio_is_emul(node_.c_str()))
            throw failure(what, std::strerror(error), "'devaccess uio list' shows the devices",
                          error);
        throw failure(what,
                      error == EINVAL ? "no such register block, or no card in that slot"
                                      : std::strerror(error),
                      "names are sysfs_pci:REGION.SLOT[.FPGA], e.g. sysfs_pci:uio_cma.alsw1; "
                      "'devaccess pci list' shows the cards' functions",
                      error);
    }

    static void close(libuio_dev_t *handle)
    {
        ask([&] {
            libuio_close(handle);
            return 0;
        });
    }

    std::string node_;
    std::unique_ptr<libuio_dev_t, decltype(&close)> handle_ = {nullptr, close};
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
              .add("emulated", libuio_is_emul(device.node().c_str()) == 1)
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
            .add_hex("value", value, static_cast<int>(width_ / 4))
            .add_hidden("value_hex", hex(value)); // which no reader rounds
    }

private:
    void *window()
    {
        const std::string what = fmt::format("map window {} of {}", index_, device_.node());
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
            throw failure(what, mapped.error ? std::strerror(mapped.error) : "there is none", hint,
                          mapped.error);
        const size_t bytes = width_ / 8;
        if (offset_ % bytes != 0)
            throw usage_error(
                fmt::format("the offset must be a multiple of {} bytes, the width", bytes));
        if (size < bytes || offset_ > size - bytes)
            throw failure(fmt::format("reach offset {:#x} of map {}", offset_, index_),
                          fmt::format("the window has {:#x} bytes", size), hint);
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
    const uio_register place(arguments);
    place.write(value);
    print_done(place.describe(value));
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
    const auto fail_with = [&](const char *what, int error) {
        throw failure(fmt::format("{} of {}", what, device.node()), std::strerror(error),
                      wait_hint(error), error);
    };
    // A driver without interrupt control has its interrupt enabled always.
    const auto enabled = ask([&] { return libuio_irqcontrol(device.handle(), 1); });
    if (enabled.result != 0 && enabled.error != ENOSYS)
        fail_with("enable the interrupt", enabled.error);
    const timespec deadline = after(arguments.timeout);
    uint32_t count = 0;
    const auto waited = ask([&] {
        return libuio_irqwait(device.handle(), arguments.timeout < 0 ? nullptr : &deadline, &count);
    });
    if (waited.result != 0)
        fail_with("see an interrupt", waited.error);
    print(record().add("node", device.node()).add("event_count", count));
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

class uio_family : public command_family<uio_arguments>
{
public:
    using command_family::command_family;

    CLI::App *add_for_node(const std::string &name, const std::string &description, action act)
    {
        CLI::App *command = add(name, description, act);
        offer(command->add_option("NODE", arguments->node,
                                  "/dev/uioN, uioN, N, or sysfs_pci:REGION.SLOT[.FPGA]"),
              node_names)
            ->required();
        return command;
    }

    CLI::App *add_for_register(const std::string &name, const std::string &description, action act)
    {
        CLI::App *command = add_for_node(name, description, act);
        command->add_option("MAP", arguments->map, "number of the window")->required();
        command->add_option("OFFSET", arguments->offset, "of the register, in bytes")->required();
        one_of(command->add_option("--width", arguments->width, "of the register, in bits"),
               {"8", "16", "32", "64"})
            ->capture_default_str();
        return command;
    }
};

// Also refuses what is no number at all, which compares as in no range.
std::string time_problem(const std::string &text)
{
    double seconds = 0;
    const bool good = CLI::detail::lexical_cast(text, seconds) && std::isfinite(seconds) &&
                      seconds >= 0 && seconds <= 1e9;
    return good ? "" : "'" + text + "' is no number of seconds from 0 to 1e9";
}

} // namespace

void add_uio_commands(CLI::App &program)
{
    uio_family uio(program, "uio", "UIO devices, and those emulated over PCI");
    uio.add("list", "List the devices with a UIO driver", list);
    uio.add_for_node("info", "Show a device's directories and windows", info);
    uio.add_for_register("read", "Read a register", read);
    uio.add_for_register("write", "Write a register", write)
        ->add_option("VALUE", uio.arguments->value, "to write")
        ->required();
    uio.add_for_node("wait", "Enable the interrupt and wait for it", wait)
        ->add_option("--timeout", uio.arguments->timeout, "seconds; without it, wait without limit")
        ->check(CLI::Validator(time_problem, "SECONDS"));
}

} // namespace devaccess

// Writes the directories of PCI functions, buses and slots into /sys, and moves them.
#include "sim/parts/pci_tree.h"

#include "sim/base/files.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <string_view>

#include <fcntl.h>
#include <unistd.h>

namespace chassis_sim
{
namespace
{

namespace fs = std::filesystem;

std::string resource_line(const pci_window &window)
{
    const bool used = window.size != 0;
    char text[64];
    std::snprintf(text, sizeof text, "0x%016llx 0x%016llx 0x%016llx\n",
                  static_cast<unsigned long long>(used ? window.start : 0),
                  static_cast<unsigned long long>(used ? window.start + window.size - 1 : 0),
                  static_cast<unsigned long long>(used ? window.flags : 0));
    return text;
}

std::string speed_text(unsigned int code)
{
    constexpr const char *speeds[] = {"Unknown",       "2.5 GT/s PCIe",  "5.0 GT/s PCIe",
                                      "8.0 GT/s PCIe", "16.0 GT/s PCIe", "32.0 GT/s PCIe",
                                      "64.0 GT/s PCIe"};
    return std::string(speeds[code < std::size(speeds) ? code : 0]) + "\n";
}

void write_link_attributes(const std::string &dir, const char *which, unsigned int register_value)
{
    write_file(dir + "/" + which + "_link_speed", speed_text(register_value & 0xf), 0444);
    write_file(dir + "/" + which + "_link_width", std::to_string(register_value >> 4 & 0x3f) + "\n",
               0444);
}

[[gnu::format(printf, 1, 2)]] std::string line(const char *format, ...)
{
    char text[128];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    return std::string(text) + "\n";
}

// What says which driver to load.
std::string modalias(const pci_function &f)
{
    return line("pci:v%08Xd%08Xsv%08Xsd%08Xbc%02Xsc%02Xi%02X", f.vendor, f.device,
                f.subsystem_vendor, f.subsystem_device, f.class_code >> 16,
                f.class_code >> 8 & 0xff, f.class_code & 0xff);
}

void write_power_directory(const std::string &dir)
{
    write_file(dir + "/power/control", "on\n");
    write_file(dir + "/power/runtime_status", "active\n", 0444);
}

void write_fixed_attributes(const std::string &dir, const pci_function &f, unsigned int revision)
{
    const std::string texts[][2] = {
        {"vendor", line("0x%04x", f.vendor)},
        {"device", line("0x%04x", f.device)},
        {"subsystem_vendor", line("0x%04x", f.subsystem_vendor)},
        {"subsystem_device", line("0x%04x", f.subsystem_device)},
        {"class", line("0x%06x", f.class_code)},
        {"revision", line("0x%02x", revision)},
        {"irq", "0\n"},
        {"modalias", modalias(f)},
        {"numa_node", "-1\n"},
        {"local_cpus", "1\n"},
        {"local_cpulist", "0\n"},
        {"ari_enabled", "0\n"},
        {"power_state", "D0\n"},
        {"dma_mask_bits", "32\n"},
        {"consistent_dma_mask_bits", "32\n"},
    };
    for (const auto &[name, text] : texts)
        write_file(dir + "/" + name, text, 0444);
}

void write_changeable_attributes(const std::string &dir, const pci_function &f,
                                 const std::string &driver)
{
    const std::string texts[][2] = {
        {"enable", "0\n"},
        {"broken_parity_status", "0\n"},
        {"d3cold_allowed", "1\n"},
        {"driver_override", "(null)\n"},
        {"msi_bus", "1\n"},
        {"uevent", (driver.empty() ? "" : "DRIVER=" + driver + "\n") +
                       line("PCI_CLASS=%04X", f.class_code) +
                       line("PCI_ID=%04X:%04X", f.vendor, f.device) +
                       line("PCI_SUBSYS_ID=%04X:%04X", f.subsystem_vendor, f.subsystem_device) +
                       "PCI_SLOT_NAME=" + f.id + "\nMODALIAS=" + modalias(f)},
    };
    for (const auto &[name, text] : texts)
        write_file(dir + "/" + name, text);
    for (const char *name : {"remove", "rescan"})
        write_file(dir + "/" + name, "", 0200);
}

// The attributes that the kernel gives every function.
void write_attributes(const std::string &dir, const pci_function &f, const config_space &config)
{
    const size_t pcie = pcie_position(config);
    const std::string driver =
        pcie != 0 && is_bridge(config) ? "pcieport" : ""; // others are free for the chassis's own
    write_fixed_attributes(dir, f, config.size() > 8 ? config[8] : 0);
    write_changeable_attributes(dir, f, driver);
    write_power_directory(dir);
    make_relative_symlink(dir + "/subsystem", "/sys/bus/pci");
    if (!driver.empty()) {
        const std::string place = "/sys/bus/pci/drivers/" + driver;
        make_directory(place);
        make_relative_symlink(dir + "/driver", place);
    }
    if (pcie == 0)
        return;
    const auto word = [&config](size_t at) {
        return static_cast<unsigned int>(config[at] | config[at + 1] << 8);
    };
    write_link_attributes(dir, "max", word(pcie + link_capability_register));
    write_link_attributes(dir, "current", word(pcie + link_status_register));
}

// Numbers a bridge's buses so that this one is behind it, and the bridges' above.
void give_bus(const std::string &bridge, unsigned int bus)
{
    const fs::path dir = fs::canonical(pci_link(bridge));
    const std::string path = dir / "config";
    const owned_fd config(must(::open(path.c_str(), O_RDWR | O_CLOEXEC), "open " + path));
    uint8_t buses[3] = {};
    if (::pread(config.get(), buses, sizeof buses, bus_registers) != sizeof buses)
        return; // it is too short for a bridge
    buses[0] = static_cast<uint8_t>(std::stoul(bridge.substr(5, 2), nullptr, 16));
    if (buses[1] == 0)
        buses[1] = static_cast<uint8_t>(bus);
    buses[2] = std::max(buses[2], static_cast<uint8_t>(bus));
    must(static_cast<int>(::pwrite(config.get(), buses, sizeof buses, bus_registers)), path);
    write_file(dir / "secondary_bus_number", std::to_string(buses[1]) + "\n", 0444);
    write_file(dir / "subordinate_bus_number", std::to_string(buses[2]) + "\n", 0444);
    const std::string above = dir.parent_path().filename();
    if (above.size() == bridge.size())
        give_bus(above, bus);
}

// The directory of a bus, in that of the bridge it is behind.
void write_bus(const std::string &above, const std::string &bus)
{
    const std::string dir = above + "/pci_bus/" + bus;
    if (fs::exists(dir))
        return;
    write_file(dir + "/cpuaffinity", "1\n", 0444);
    write_file(dir + "/cpulistaffinity", "0\n", 0444);
    write_file(dir + "/rescan", "", 0200);
    write_file(dir + "/uevent", "");
    write_power_directory(dir);
    make_relative_symlink(dir + "/device", above);
    make_relative_symlink(dir + "/subsystem", "/sys/class/pci_bus");
    const std::string link = "/sys/class/pci_bus/" + bus;
    fs::remove(link); // of a bridge that has gone
    make_relative_symlink(link, dir);
}

// What the bus itself has.
void write_pci_bus_type()
{
    if (fs::exists("/sys/bus/pci/rescan"))
        return;
    make_directory("/sys/bus/pci/drivers");
    make_directory("/sys/bus/pci/slots");
    write_file("/sys/bus/pci/drivers_autoprobe", "1\n");
    write_file("/sys/bus/pci/resource_alignment", "\n");
    for (const char *name : {"drivers_probe", "rescan", "uevent"})
        write_file(std::string("/sys/bus/pci/") + name, "", 0200);
}

// The files that are mapped.
void write_window_files(const std::string &dir, size_t bar, const pci_window &window)
{
    if (window.size == 0)
        return;
    const std::string file = dir + "/resource" + std::to_string(bar);
    for (const char *suffix : {"", "_wc"}) {
        if (*suffix && !(window.flags & resource_prefetch))
            continue;
        write_file(file + suffix, "", 0600);
        must(::truncate((file + suffix).c_str(), static_cast<off_t>(window.size)),
             "truncate " + file + suffix);
    }
}

// Where what was unplugged is kept, and a link to where it was.
std::string aside(const std::string &id)
{
    return "/.chassis/absent/" + id;
}
std::string place_of(const std::string &id)
{
    return aside(id) + ".place";
}

// The links to a function's directory and to those of the functions and buses below it.
std::vector<std::pair<std::string, std::string>> links_to(const fs::path &dir)
{
    std::vector<std::pair<std::string, std::string>> links;
    const auto add = [&links](const fs::path &path) {
        const std::string name = path.filename();
        if (fs::exists(path / "vendor"))
            links.emplace_back(pci_link(name), path);
        else if (path.parent_path().filename() == "pci_bus")
            links.emplace_back("/sys/class/pci_bus/" + name, path);
    };
    add(dir);
    for (const auto &entry : fs::recursive_directory_iterator(dir))
        if (entry.is_directory() && !entry.is_symlink())
            add(entry.path());
    return links;
}

} // namespace

std::string pci_link(const std::string &id)
{
    return "/sys/bus/pci/devices/" + id;
}

bool is_pci_id(const std::string &text)
{
    constexpr char shape[] = "xxxx:xx:1x.7"; // the last digits of a device and a function are less
    return text.size() == sizeof shape - 1 &&
           std::equal(text.begin(), text.end(), shape, [](char is, char may_be) {
               const bool hex = (is >= '0' && is <= '9') || (is >= 'a' && is <= 'f');
               return may_be == 'x'                    ? hex
                      : may_be == ':' || may_be == '.' ? is == may_be
                                                       : is >= '0' && is <= may_be;
           });
}

std::string window_path(const std::string &id, size_t bar)
{
    const std::string dir = fs::exists(pci_link(id)) ? pci_link(id) : aside(id);
    return dir + "/resource" + std::to_string(bar);
}

void add_pci(const pci_function &function)
{
    const std::string bus = function.id.substr(0, 7);
    std::string above = "/sys/devices/pci" + bus;
    if (!function.parent.empty()) {
        above = fs::canonical(pci_link(function.parent)).string();
        make_directory(above + "/" + function.parent + ":pcie001"); // a service of the port
        give_bus(function.parent,
                 static_cast<unsigned int>(std::stoul(bus.substr(5), nullptr, 16)));
    }
    write_pci_bus_type();
    write_bus(above, bus);
    const std::string dir = above + "/" + function.id;
    const config_space config = configuration_of(function);
    write_attributes(dir, function, config);
    write_file(dir + "/config",
               std::string_view(reinterpret_cast<const char *>(config.data()), config.size()));
    std::string lines;
    const size_t line_count = is_bridge(config) ? 17 : 13; // six BARs, the ROM, and more
    for (size_t bar = 0; bar < line_count; ++bar) {
        const pci_window window =
            bar < function.windows.size() ? function.windows[bar] : pci_window();
        lines += resource_line(window);
        write_window_files(dir, bar, window);
    }
    write_file(dir + "/resource", lines, 0444);
    make_relative_symlink(pci_link(function.id), dir);
    for (size_t bar = 0; bar < function.windows.size(); ++bar)
        for (const register_map::reg &one : function.windows[bar].registers)
            write_window(function.id, bar,
                         {one.offset, static_cast<uint32_t>(one.reset), one.width()});
}

void complete_pci(const std::string &dir)
{
    constexpr uint64_t largest = uint64_t{1} << 32; // files of that size are sparse
    constexpr size_t bars = 6;
    write_pci_bus_type();
    for (const char *name : {"remove", "rescan"})
        write_file(dir + "/" + name, "", 0200);
    std::istringstream lines(file_text(dir + "/resource"));
    std::string line;
    for (size_t bar = 0; bar < bars && std::getline(lines, line); ++bar) {
        unsigned long long start = 0, end = 0, flags = 0;
        if (std::sscanf(line.c_str(), "%llx %llx %llx", &start, &end, &flags) == 3 && end > start &&
            end - start < largest)
            write_window_files(dir, bar, {start, end - start + 1, flags});
    }
}

void write_config16(const std::string &id, size_t offset, uint16_t value)
{
    const std::string path = pci_link(id) + "/config";
    const int fd = must(::open(path.c_str(), O_WRONLY | O_CLOEXEC), "open " + path);
    const uint8_t bytes[] = {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8)};
    must(static_cast<int>(::pwrite(fd, bytes, sizeof bytes, static_cast<off_t>(offset))),
         "write " + path);
    ::close(fd);
}

void remove_pci(const std::string &id)
{
    unplug_pci(id);
    fs::remove_all(aside(id));
    fs::remove(place_of(id));
}

bool unplug_pci(const std::string &id)
{
    if (!fs::exists(pci_link(id)))
        return false;
    const fs::path dir = fs::canonical(pci_link(id));
    for (const auto &[link, target] : links_to(dir))
        fs::remove(link);
    make_symlink(place_of(id), dir.string());
    must(::rename(dir.c_str(), aside(id).c_str()), "unplug " + id);
    return true;
}

bool plug_pci(const std::string &id)
{
    if (!fs::exists(aside(id)))
        return false;
    const fs::path dir = fs::read_symlink(place_of(id));
    // Who has its configuration space open has that of the function that went.
    const std::string config = file_text(aside(id) + "/config");
    fs::remove(aside(id) + "/config");
    write_file(aside(id) + "/config", config);
    // Whoever sees the directory finds the link too.
    make_relative_symlink(pci_link(id), dir.string());
    must(::rename(aside(id).c_str(), dir.c_str()), "plug " + id);
    fs::remove(place_of(id));
    for (const auto &[link, target] : links_to(dir))
        if (!fs::is_symlink(link))
            make_relative_symlink(link, target);
    return true;
}

void add_chassis_pci()
{
    for (const pci_function &function : chassis_functions())
        add_pci(function);
    add_pci_slot("3", "0000:03:00");
}

void add_pci_slot(const std::string &name, const std::string &address)
{
    const std::string texts[][2] = {{"address", address + "\n"},
                                    {"adapter", "1\n"},
                                    {"attention", "0\n"},
                                    {"latch", "0\n"},
                                    {"power", "1\n"},
                                    {"cur_bus_speed", speed_text(1)},
                                    {"max_bus_speed", speed_text(1)}};
    for (const auto &[attribute, text] : texts)
        write_file("/sys/bus/pci/slots/" + name + "/" + attribute, text);
}

void write_window(const std::string &id, size_t bar, const register_value &change)
{
    const std::string path = pci_link(id) + "/resource" + std::to_string(bar);
    const owned_fd window(must(::open(path.c_str(), O_WRONLY | O_CLOEXEC), "open " + path));
    const size_t width = std::min<size_t>(change.width, sizeof change.value);
    must(static_cast<int>(::pwrite(window.get(), &change.value, width, change.offset)),
         "write " + path);
}

void set_link(const std::string &id, uint16_t link_status)
{
    if (!is_pci_id(id) || !fs::exists(pci_link(id)))
        throw failure("there is no function '" + id + "'");
    const std::string config = file_text(pci_link(id) + "/config");
    const size_t pcie = pcie_position(config_space(config.begin(), config.end()));
    if (pcie == 0)
        throw failure(id + " has no PCI Express capability");
    const int type = config[pcie + 2] >> 4 & 0xf;
    if (type != pcie_capability::root_port && type != pcie_capability::downstream_port)
        throw failure(id + " is not a port");
    write_config16(id, pcie + link_status_register, link_status);
    write_link_attributes(fs::canonical(pci_link(id)), "current", link_status);
}

} // namespace chassis_sim

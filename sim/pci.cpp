#include "sim/pci.h"

#include "sim/support.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string_view>

#include <fcntl.h>
#include <unistd.h>

namespace chassis_sim
{
namespace
{

namespace fs = std::filesystem;

std::string hex_line(uint16_t number)
{
    char text[8];
    std::snprintf(text, sizeof text, "0x%04x\n", number);
    return text;
}

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

constexpr size_t status_register = 0x06;
constexpr size_t header_type_register = 0x0e;
constexpr size_t first_bar_register = 0x10;
constexpr size_t link_status_register = 0x12; // of the PCI Express capability

// The kernel's resource flags.
constexpr uint64_t resource_io = 0x100;
constexpr uint64_t resource_prefetch = 0x2000;
constexpr uint64_t resource_64_bits = 0x100000;

uint32_t bar_register(const pci_window &window)
{
    const auto start = static_cast<uint32_t>(window.start);
    if (window.flags & resource_io)
        return start | 0x1;
    return start | (window.flags & resource_64_bits ? 0x4u : 0) |
           (window.flags & resource_prefetch ? 0x8u : 0);
}

config_space finished_config(const pci_function &function)
{
    config_space config = function.config;
    const auto fill = [&config](size_t offset, uint32_t value, size_t width) {
        if (config.size() < offset + width ||
            std::any_of(&config[offset], &config[offset] + width, [](int byte) { return byte; }))
            return;
        for (size_t i = 0; i < width; ++i)
            config[offset + i] = static_cast<uint8_t>(value >> 8 * i);
    };
    fill(0x00, function.vendor, 2);
    fill(0x02, function.device, 2);
    fill(0x09, function.class_code, 3);
    for (size_t bar = 0; bar < std::min<size_t>(function.windows.size(), 6); ++bar)
        if (function.windows[bar].size != 0)
            fill(first_bar_register + 4 * bar, bar_register(function.windows[bar]), 4);
    const bool is_bridge = config.size() > header_type_register && config[header_type_register] & 1;
    if (!is_bridge) {
        fill(0x2c, function.subsystem_vendor, 2);
        fill(0x2e, function.subsystem_device, 2);
    }
    return config;
}

pci_function make_function(const char *id, uint16_t device, uint32_t class_code,
                           const config_builder &config)
{
    pci_function function;
    function.id = id;
    function.device = device;
    function.class_code = class_code;
    function.config = config.bytes();
    return function;
}

// Where the root port's PCI Express capability is: behind that of power management.
constexpr size_t root_port_pcie = 0x48;

void add_root_port(uint16_t link_status)
{
    config_builder config(1, 4096);
    config.power_management();
    config.pcie({.type = pcie_capability::root_port,
                 .slot = true,
                 .hotplug = true,
                 .link_status = link_status});
    add_pci(make_function(pci_root_port, 0x0010, 0x060400, config));
}

void add_slot_device()
{
    config_builder config(0, 4096);
    config.power_management();
    config.msi();
    config.pcie({});
    pci_function device = make_function(pci_slot_device, 0x0020, 0x058000, config);
    device.parent = pci_root_port;
    device.windows = {
        {0xf0000000, 0x10000}, {0x2000, 0x100, 0x40101}, {0x4'0000'0000, 0x100000, 0x14220c}};
    add_pci(device);
}

void add_functions_of_the_root_bus()
{
    add_pci(make_function("0000:00:00.0", 0x0001, 0x060000, config_builder()));

    config_builder plain;
    plain.power_management();
    plain.msi();
    pci_function endpoint = make_function("0000:00:19.0", 0x0002, 0x020000, plain);
    endpoint.windows = {{0xf1000000, 0x20000}};
    add_pci(endpoint);

    config_builder several(0x80);
    several.power_management();
    add_pci(make_function("0000:00:1f.0", 0x0003, 0x060100, several));
    add_pci(make_function("0000:00:1f.3", 0x0004, 0x0c0500, several));
}

} // namespace

config_builder::config_builder(uint8_t header_type, size_t size)
    : bytes_(size), link_((header_type & 0x7f) == 2 ? 0x14 : 0x34)
{
    put8(header_type_register, header_type);
}

config_builder &config_builder::put8(size_t offset, uint8_t value)
{
    bytes_.at(offset) = value;
    return *this;
}

config_builder &config_builder::put16(size_t offset, uint16_t value)
{
    return put8(offset, static_cast<uint8_t>(value))
        .put8(offset + 1, static_cast<uint8_t>(value >> 8));
}

config_builder &config_builder::put32(size_t offset, uint32_t value)
{
    return put16(offset, static_cast<uint16_t>(value))
        .put16(offset + 2, static_cast<uint16_t>(value >> 16));
}

uint8_t config_builder::capability(uint8_t id, size_t size)
{
    const auto offset = static_cast<uint8_t>(next_);
    put8(status_register, 0x10); // there is a list
    put8(link_, offset);
    put8(offset, id);
    link_ = next_ + 1;
    next_ += (size + 3) / 4 * 4;
    return offset;
}

uint8_t config_builder::power_management()
{
    const uint8_t offset = capability(0x01, 8);
    put16(offset + 2u, 0x0003); // version 1.2
    return offset;
}

uint8_t config_builder::msi()
{
    const uint8_t offset = capability(0x05, 14);
    put16(offset + 2u, 0x0080); // 64-bit addresses
    return offset;
}

uint8_t config_builder::pcie(const pcie_capability &description)
{
    const uint8_t offset = capability(0x10, 0x3c);
    put16(offset + 0x02u,
          static_cast<uint16_t>(0x0002 | description.type << 4 | (description.slot ? 0x100 : 0)));
    put32(offset + 0x0cu, 0x41u | (description.reports_active ? 0x100000u : 0));
    put16(offset + link_status_register, description.link_status);
    put32(offset + 0x14u, description.hotplug ? 0x40 : 0);
    return offset;
}

std::string pci_link(const std::string &id)
{
    return "/sys/bus/pci/devices/" + id;
}

void add_pci(const pci_function &function)
{
    const std::string above = function.parent.empty()
                                  ? "/sys/devices/pci" + function.id.substr(0, 7)
                                  : fs::canonical(pci_link(function.parent)).string();
    if (!function.parent.empty()) {
        make_directory(above + "/" + function.parent + ":pcie001"); // a service of the port
        make_directory(above + "/pci_bus/" + function.id.substr(0, 7));
    }
    const std::string dir = above + "/" + function.id;
    write_file(dir + "/vendor", hex_line(function.vendor));
    write_file(dir + "/device", hex_line(function.device));
    write_file(dir + "/subsystem_vendor", hex_line(function.subsystem_vendor));
    write_file(dir + "/subsystem_device", hex_line(function.subsystem_device));
    write_file(dir + "/enable", "0\n");
    char class_line[16];
    std::snprintf(class_line, sizeof class_line, "0x%06x\n", function.class_code);
    write_file(dir + "/class", class_line);
    const config_space config = finished_config(function);
    write_file(dir + "/config",
               std::string_view(reinterpret_cast<const char *>(config.data()), config.size()));
    std::string lines;
    const bool is_bridge = config.size() > header_type_register && config[header_type_register] & 1;
    const size_t line_count = is_bridge ? 17 : 13; // six BARs, the ROM, and more
    for (size_t bar = 0; bar < line_count; ++bar) {
        const pci_window window =
            bar < function.windows.size() ? function.windows[bar] : pci_window();
        lines += resource_line(window);
        if (window.size == 0)
            continue;
        const std::string file = dir + "/resource" + std::to_string(bar);
        for (const char *suffix : {"", "_wc"}) {
            if (*suffix && !(window.flags & resource_prefetch))
                continue;
            write_file(file + suffix, "", 0600);
            must(::truncate((file + suffix).c_str(), static_cast<off_t>(window.size)),
                 "truncate " + file + suffix);
        }
    }
    write_file(dir + "/resource", lines);
    make_symlink(pci_link(function.id), dir);
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
    const fs::path dir = fs::canonical(pci_link(id));
    for (const auto &entry : fs::recursive_directory_iterator(dir))
        if (entry.is_directory())
            fs::remove(pci_link(entry.path().filename().string()));
    fs::remove(pci_link(id));
    fs::remove_all(dir);
}

void add_chassis_pci(uint16_t link_status)
{
    add_functions_of_the_root_bus();
    add_root_port(link_status);
    add_slot_device();
}

void set_root_port_link(uint16_t link_status)
{
    write_config16(pci_root_port, root_port_pcie + link_status_register, link_status);
}

} // namespace chassis_sim

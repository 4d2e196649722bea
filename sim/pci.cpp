#include "sim/pci.h"

#include "sim/support.h"

#include <cstdio>
#include <filesystem>
#include <string_view>

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

std::string config_text(const pci_function &function)
{
    std::string config(function.config.begin(), function.config.end());
    const auto fill = [&config](size_t offset, uint16_t id) {
        if (config.size() < offset + 2 || config[offset] || config[offset + 1])
            return;
        config[offset] = static_cast<char>(id);
        config[offset + 1] = static_cast<char>(id >> 8);
    };
    fill(0x00, function.vendor);
    fill(0x02, function.device);
    fill(0x2c, function.subsystem_vendor);
    fill(0x2e, function.subsystem_device);
    return config;
}

} // namespace

std::string pci_link(const std::string &id)
{
    return "/sys/bus/pci/devices/" + id;
}

void add_pci(const pci_function &function)
{
    const std::string above = function.parent.empty()
                                  ? "/sys/devices/pci" + function.id.substr(0, 7)
                                  : fs::canonical(pci_link(function.parent)).string();
    const std::string dir = above + "/" + function.id;
    write_file(dir + "/vendor", hex_line(function.vendor));
    write_file(dir + "/device", hex_line(function.device));
    write_file(dir + "/subsystem_vendor", hex_line(function.subsystem_vendor));
    write_file(dir + "/subsystem_device", hex_line(function.subsystem_device));
    write_file(dir + "/enable", "0\n");
    write_file(dir + "/config", config_text(function));
    std::string lines;
    for (size_t bar = 0; bar < 13; ++bar) { // six BARs, the ROM, and bridge windows
        const pci_window window =
            bar < function.windows.size() ? function.windows[bar] : pci_window();
        lines += resource_line(window);
        if (window.size == 0)
            continue;
        const std::string file = dir + "/resource" + std::to_string(bar);
        write_file(file, "", 0600);
        must(::truncate(file.c_str(), static_cast<off_t>(window.size)), "truncate " + file);
    }
    write_file(dir + "/resource", lines);
    make_symlink(pci_link(function.id), dir);
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

} // namespace chassis_sim

// Writes and reads dumps of configuration spaces.
#include "tools/pci/dump.h"

#include "tools/base/errors.h"
#include "tools/base/files.h"
#include "tools/pci/device.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <sstream>

#include <fmt/format.h>
#include <linux/pci_regs.h>

namespace devaccess
{
namespace
{

constexpr size_t config_space_size = PCI_CFG_SPACE_EXP_SIZE;
constexpr size_t most_of_a_dump = size_t{1} << 28; // bytes

// "1f0: 86 80 ..."; false when it is no such line. Bytes follow what is there.
bool take_bytes(const std::string &line, std::string &bytes)
{
    unsigned long offset = 0;
    int at = 0;
    if (std::sscanf(line.c_str(), "%3lx:%n", &offset, &at) != 1 || at == 0 ||
        line[static_cast<size_t>(at)] != ' ' || offset != bytes.size())
        return false;
    unsigned value = 0;
    for (int size = 0; bytes.size() < config_space_size &&
                       std::sscanf(line.c_str() + at, " %2x%n", &value, &size) == 1;
         at += size)
        bytes += static_cast<char>(value);
    return true;
}

} // namespace

std::string dump_of(const config_space &config, const pci_names &names)
{
    const std::string bytes = config.all_bytes();
    std::string text = fmt::format(
        "{} {}\n", config.id(),
        names.heading(config.read(PCI_VENDOR_ID, 16), config.read(PCI_DEVICE_ID, 16),
                      config.read(PCI_CLASS_REVISION, 32) >> 8, config.read(PCI_REVISION_ID, 8)));
    for (size_t at = 0; at < bytes.size(); ++at)
        text += fmt::format("{}{:02x}{}", at % 16 == 0 ? fmt::format("{:02x}: ", at) : " ",
                            static_cast<unsigned char>(bytes[at]),
                            at % 16 == 15 || at + 1 == bytes.size() ? "\n" : "");
    return text + '\n';
}

std::vector<config_space> read_dump(const std::string &path)
{
    std::error_code none;
    const bool is_endless = std::filesystem::is_character_file(path, none);
    const auto text = is_endless ? "" : read_file(path, most_of_a_dump);
    if (!text)
        throw failure("read " + path, std::strerror(ENOENT), "is it a file, and is the name right?",
                      ENOENT);
    std::istringstream file(*text);
    std::vector<config_space> functions;
    std::string id, bytes;
    const auto finish = [&] {
        if (bytes.size() >= PCI_STD_HEADER_SIZEOF)
            functions.emplace_back(id, bytes);
        bytes.clear();
    };
    for (std::string line; std::getline(file, line);) {
        if (!id.empty() && take_bytes(line, bytes))
            continue;
        if (const auto device = parse_pci_device(line.substr(0, line.find(' ')))) {
            finish();
            id = device->str;
        }
    }
    finish();
    if (functions.empty())
        throw failure("read " + path, "no function's registers are in it",
                      "'devaccess pci dump' and 'lspci -xxx' write such files");
    return functions;
}

} // namespace devaccess

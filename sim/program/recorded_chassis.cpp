// Reads a recording with libarchive, and builds what was recorded. It may come from anywhere.
#include "sim/program/recorded_chassis.h"

#include "access_trace/loaded_library.h"
#include "sim/program/chassis.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <map>
#include <memory>

#include <archive.h>
#include <archive_entry.h>

namespace chassis_sim
{
namespace
{

namespace fs = std::filesystem;

constexpr size_t largest_file = 16 << 20;
constexpr size_t largest_recording = 256 << 20;

// A function of the library.
#define LIBARCHIVE(function)                                                                       \
    (*access_trace::loaded<decltype(function)>("libarchive.so.13", #function, "a recording"))

struct recording {
    std::map<std::string, std::string> files; // by their absolute paths
    std::map<std::string, std::string> links;
};

// POD logs and inventory records.
bool is_card_file(const std::string &path)
{
    return path.starts_with("/var/pod/") || path.starts_with("/flash/diags/") ||
           path.starts_with("/var/log/diags/");
}

// Whether it is where a recording has something, and nowhere else.
bool is_recorded_place(const std::string &path)
{
    return is_card_file(path) || path.starts_with("/sys/bus/pci/") ||
           path.starts_with("/sys/class/") || path.starts_with("/sys/devices/") ||
           path.starts_with("/dev/nvlog-");
}

bool leads_astray(const fs::path &path)
{
    return std::any_of(path.begin(), path.end(), [](const auto &part) { return part == ".."; });
}

std::string bytes_of(archive *tar, const std::string &path)
{
    std::string bytes;
    char block[65536];
    for (ssize_t length; (length = LIBARCHIVE(archive_read_data)(tar, block, sizeof block)) != 0;) {
        if (length < 0)
            throw failure("cannot read " + path + " from the recording");
        bytes.append(block, static_cast<size_t>(length));
        if (bytes.size() > largest_file)
            throw failure(path + " is too large for a recording");
    }
    return bytes;
}

using archive_reader = std::unique_ptr<archive, int (*)(archive *)>;

archive_reader new_reader()
{
    archive_reader tar(LIBARCHIVE(archive_read_new)(), &LIBARCHIVE(archive_read_free));
    LIBARCHIVE(archive_read_support_format_tar)(tar.get());
    LIBARCHIVE(archive_read_support_filter_all)(tar.get());
    return tar;
}

recording entries_of(archive *tar, const std::string &file)
{
    recording made;
    size_t size = 0;
    archive_entry *entry;
    int result;
    while ((result = LIBARCHIVE(archive_read_next_header)(tar, &entry)) == ARCHIVE_OK) {
        const char *const name = LIBARCHIVE(archive_entry_pathname)(entry);
        const fs::path path = fs::path("/") / (name ? name : "");
        if (leads_astray(path))
            continue;
        if (const char *const target = LIBARCHIVE(archive_entry_symlink)(entry)) {
            if (is_recorded_place(path))
                made.links[path] = target;
        } else if (LIBARCHIVE(archive_entry_filetype)(entry) == AE_IFREG)
            size += (made.files[path] = bytes_of(tar, path)).size();
        if (size > largest_recording || made.links.size() + made.files.size() > 1000000)
            throw failure(file + " is too large for a recording");
    }
    const bool is_foreign = std::none_of(made.files.begin(), made.files.end(), [](const auto &one) {
        return is_recorded_place(one.first);
    });
    if (result != ARCHIVE_EOF || is_foreign)
        throw failure("cannot read a recording from " + file);
    return made;
}

recording read_recording(const std::string &file)
{
    const archive_reader tar = new_reader();
    std::error_code error;
    if (!fs::is_regular_file(file, error) ||
        LIBARCHIVE(archive_read_open_filename)(tar.get(), file.c_str(), 65536) != ARCHIVE_OK)
        throw failure("cannot read a recording from " + file);
    return entries_of(tar.get(), file);
}

// Links, and what is reached through them, are of the chassis: all else in its root is the
// machine's.
void require_inside(const fs::path &path)
{
    const std::string place = fs::weakly_canonical(path).string();
    if (!place.starts_with("/sys/") && !is_card_file(place))
        throw failure("a link of the recording leads to " + place);
}

// What a card's file leads to, where that lies elsewhere on the machine; else NULL.
const std::string *file_elsewhere(const recording &recorded, const fs::path &link,
                                  const std::string &target)
{
    const auto found = recorded.files.find((link.parent_path() / target).lexically_normal());
    return is_card_file(link) && found != recorded.files.end() && !is_recorded_place(found->first)
               ? &found->second
               : nullptr;
}

void write_links(const recording &recorded)
{
    size_t copied = 0;
    for (const auto &[path, target] : recorded.links) {
        require_inside(fs::path(path).parent_path() / "link");
        const std::string *const bytes = file_elsewhere(recorded, path, target);
        copied += bytes ? bytes->size() : 0;
        if (copied > largest_recording)
            throw failure("the recording's links lead to too much");
        if (bytes)
            write_file(path, *bytes, 0666);
        else
            make_symlink(path, target);
    }
    for (const auto &[path, target] : recorded.links)
        require_inside(path);
}

void write_tree(const recording &recorded)
{
    for (const auto &[path, bytes] : recorded.files)
        if (is_recorded_place(path) && !path.starts_with("/dev/"))
            write_file(path, bytes, 0666);
    write_links(recorded);
}

std::vector<fs::path> entries_of(const std::string &directory)
{
    std::vector<fs::path> entries;
    std::error_code none;
    for (const auto &entry : fs::directory_iterator(directory, none))
        entries.push_back(entry.path());
    std::sort(entries.begin(), entries.end());
    return entries;
}

// Nodes here have other numbers than on the machine.
device_number renumber(const fs::path &directory, unsigned int index)
{
    const device_number number = simulated_device_number(index);
    write_file(directory / "dev",
               std::to_string(number.major) + ":" + std::to_string(number.minor) + "\n");
    return number;
}

void add_uio_nodes(device_server &devices)
{
    unsigned int index = 0;
    for (const fs::path &link : entries_of("/sys/class/uio")) {
        std::error_code wrong;
        const fs::path directory = fs::canonical(link, wrong);
        const fs::path device = fs::canonical(link / "device", wrong);
        if (wrong)
            continue;
        uio_node node;
        node.name = link.filename();
        node.node = "/dev/" + node.name;
        node.number = renumber(directory, index++);
        node.device_dir = device;
        node.event_attr = directory / "event";
        node.links = {{link, directory}};
        for (const fs::path &map : entries_of((directory / "maps").string()))
            if (const auto range = map_range(map.filename(), file_text(map / "size")))
                node.maps.push_back(*range);
        if (fs::exists(device / "uio_maps"))
            node.removal_attr = device / "uio_maps";
        devices.add(node);
    }
}

void add_nvram_nodes(device_server &devices, const recording &recorded)
{
    constexpr unsigned int first_index = 64; // after those of UIO devices
    unsigned int index = first_index;
    for (const fs::path &link : entries_of("/sys/class/zmt_nvram")) {
        std::string name = file_text(link / "name");
        name.resize(std::min(name.find('\n'), name.size()));
        const auto contents = recorded.files.find("/dev/" + name);
        const device_number number = renumber(link, index++);
        if (contents != recorded.files.end())
            devices.add(storage_node{contents->first, contents->second, true, number});
    }
}

} // namespace

void write_recorded_tree(std::string_view archive)
{
    const archive_reader tar = new_reader();
    if (LIBARCHIVE(archive_read_open_memory)(tar.get(), archive.data(), archive.size()) !=
        ARCHIVE_OK)
        throw failure("cannot read a recording");
    write_tree(entries_of(tar.get(), "the archive"));
}

std::vector<pid_t> build_recorded_chassis(const std::string &archive, recorded_trace *trace)
{
    const recording recorded = read_recording(archive);
    enter_private_root();
    stay_in_root_file_system();
    make_directory("/var/log");
    write_tree(recorded);
    for (const fs::path &function : entries_of("/sys/bus/pci/devices"))
        if (std::error_code wrong; fs::exists(function / "config", wrong))
            complete_pci(fs::canonical(function));
    replace_modprobe();
    device_server devices;
    add_uio_nodes(devices);
    add_nvram_nodes(devices, recorded);
    play_trace(devices, trace);
    return {devices.start()};
}

} // namespace chassis_sim

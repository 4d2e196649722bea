// Records a machine: its PCI functions, UIO devices and logs, in an archive whose paths are those
// of the machine.
#include "tools/base/errors.h"
#include "tools/base/files.h"
#include "tools/base/machine_source.h"
#include "tools/base/output.h"
#include "tools/base/tar_archive.h"
#include "tools/machine/machine_commands.h"
#include "tools/podlog/storage.h"
#include "tools/postlog/blocks.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <map>
#include <span>

#include <fmt/format.h>
#include <sys/utsname.h>
#include <unistd.h>

namespace devaccess
{
namespace
{

namespace fs = std::filesystem;

struct collect_arguments {
    std::string file;
    bool force = false;
    bool anonymous = false;
};

// What is read. All else stays behind: windows and option ROMs, which a read can change, product
// data, which is slow and has serial numbers, and what drivers add, of which nobody knows what it
// does and tells.
constexpr const char *function_attributes[] = {"aer_dev_correctable",
                                               "aer_dev_fatal",
                                               "aer_dev_nonfatal",
                                               "ari_enabled",
                                               "bridge_enable",
                                               "broken_parity_status",
                                               "class",
                                               "config",
                                               "consistent_dma_mask_bits",
                                               "current_link_speed",
                                               "current_link_width",
                                               "d3cold_allowed",
                                               "device",
                                               "dma_mask_bits",
                                               "driver",
                                               "driver_override",
                                               "enable",
                                               "irq",
                                               "local_cpulist",
                                               "local_cpus",
                                               "max_link_speed",
                                               "max_link_width",
                                               "modalias",
                                               "msi_bus",
                                               "numa_node",
                                               "physfn",
                                               "power_state",
                                               "resource",
                                               "revision",
                                               "secondary_bus_number",
                                               "subordinate_bus_number",
                                               "subsystem",
                                               "subsystem_device",
                                               "subsystem_vendor",
                                               "uevent",
                                               "vendor"};
constexpr const char *slot_attributes[] = {"address",       "adapter",       "attention", "latch",
                                           "cur_bus_speed", "max_bus_speed", "power"};
constexpr const char *node_attributes[] = {"dev",       "device", "event",  "name",
                                           "subsystem", "uevent", "version"};
constexpr const char *window_attributes[] = {"addr", "name", "offset", "porttype", "size", "start"};
constexpr const char *device_attributes[] = {"driver", "modalias", "subsystem", "uevent",
                                             "uio_maps"};
constexpr const char *nvram_attributes[] = {"baseaddr", "dev", "mode", "name", "size"};

// Files and links by their paths, and why others are missing.
class recorder
{
public:
    void add_file(const std::string &path, const std::string &bytes) { files_[path] = bytes; }

    void leave_out(const std::string &path, const std::string &problem)
    {
        left_out_.rows.push_back(
            record().add("path", printable(path)).add("problem", printable(problem)));
    }

    // These files and links of a directory, as far as it has them.
    void add_attributes(const fs::path &directory, std::span<const char *const> names)
    {
        for (const char *const name : names)
            if (!add_link(directory / name))
                add_attribute(directory / name);
    }

    // A file with the bytes behind its link, or why it is missing.
    void add_whole(const fs::path &path)
    {
        std::error_code wrong;
        const bool is_link = add_link(path);
        const fs::path file = is_link ? fs::canonical(path, wrong) : path;
        if (wrong)
            return leave_out(path, "it is a link to a file that is missing");
        if (!fs::is_regular_file(file, wrong))
            return leave_out(path, "it is not a regular file");
        const auto size = fs::file_size(file, wrong);
        add_attribute(file);
        if (const auto found = files_.find(file);
            found != files_.end() && found->second.size() < size)
            leave_out(path, fmt::format("only its first {} bytes of {} are recorded",
                                        found->second.size(), size));
    }

    // The directories in one, as they are called there, links being recorded and followed.
    std::vector<fs::path> add_directories(const fs::path &parent)
    {
        std::vector<fs::path> found;
        std::error_code none;
        for (const auto &entry : fs::directory_iterator(parent, none)) {
            add_link(entry.path());
            const fs::path directory = fs::canonical(entry.path(), none);
            if (fs::is_directory(directory, none))
                found.push_back(directory);
        }
        return found;
    }

    tar_archive archive(time_t when, const std::string &manifest) const
    {
        tar_archive made(when);
        made.add_file("manifest.json", manifest);
        for (const auto &[path, bytes] : files_)
            made.add_file(path.substr(1), bytes);
        for (const auto &[path, target] : links_)
            made.add_link(path.substr(1), target);
        return made;
    }

    const record_set &left_out() const { return left_out_; }

private:
    bool add_link(const fs::path &path)
    {
        std::error_code wrong;
        const fs::path target = fs::read_symlink(path, wrong);
        if (!wrong)
            links_[path] = target;
        return !wrong;
    }

    void add_attribute(const fs::path &path)
    {
        std::error_code none;
        if (!fs::is_regular_file(path, none))
            return;
        try {
            if (const auto bytes = read_file(path))
                add_file(path, *bytes);
        } catch (const failure &failed) {
            leave_out(path, failed.what());
        }
    }

    std::map<std::string, std::string> files_;
    std::map<std::string, std::string> links_;
    record_set left_out_ = {"left_out", {}};
};

size_t add_functions(recorder &machine)
{
    const auto functions = machine.add_directories("/sys/bus/pci/devices");
    for (const fs::path &function : functions)
        machine.add_attributes(function, function_attributes);
    for (const fs::path &slot : machine.add_directories("/sys/bus/pci/slots"))
        machine.add_attributes(slot, slot_attributes);
    return functions.size();
}

size_t add_nodes(recorder &machine)
{
    const auto nodes = machine.add_directories("/sys/class/uio");
    for (const fs::path &node : nodes) {
        machine.add_attributes(node, node_attributes);
        for (const char *kind : {"maps", "portio"})
            for (const fs::path &window : machine.add_directories(node / kind))
                machine.add_attributes(window, window_attributes);
        std::error_code none;
        if (const fs::path device = fs::canonical(node / "device", none); !device.empty())
            machine.add_attributes(device, device_attributes);
    }
    return nodes.size();
}

//--- logs -----------------------------------------------------------------------------------------

// Files of the cards, whichever the chassis has.
size_t add_log_files(recorder &machine)
{
    size_t count = 0;
    std::error_code none;
    const fs::directory_iterator files("/var/pod", none);
    if (none && none != std::errc::no_such_file_or_directory)
        machine.leave_out("/var/pod", none.message());
    for (const auto &entry : files) {
        const std::string name = entry.path().filename();
        if (name.rfind("pod_", 0) != 0 || !name.ends_with(".hex"))
            continue;
        machine.add_whole(entry.path());
        ++count;
    }
    return count;
}

// Inventory records have serial numbers.
void add_inventory(recorder &machine)
{
    for (const fs::path directory : {"/flash/diags", "/var/log/diags"}) {
        std::error_code none;
        for (const auto &entry : fs::directory_iterator(directory, none))
            if (entry.path().extension() == ".div")
                machine.add_whole(entry.path());
    }
}

// A block of NVRAM is read through its device. Through a controller it would be written to for
// that.
template <typename Read>
size_t add_block(recorder &machine, const std::string &name, size_t size, Read read)
{
    try {
        const std::string bytes = read();
        machine.add_file("/dev/" + name, bytes);
        if (bytes.size() < size)
            machine.leave_out("/dev/" + name,
                              fmt::format("{} bytes of {} are missing", size - bytes.size(), size));
        return 1;
    } catch (const failure &failed) {
        machine.leave_out("/dev/" + name, failed.what());
        return 0;
    }
}

constexpr size_t post_sizes[] = {8192, 16384, 32768}; // of the blocks event, test and error

size_t add_blocks(recorder &machine)
{
    size_t count = 0;
    const std::vector<post_block> post_blocks = open_blocks({});
    for (const fs::path &block : machine.add_directories("/sys/class/zmt_nvram")) {
        machine.add_attributes(block, nvram_attributes);
        std::string name = read_file(block / "name").value_or("");
        name = name.substr(0, name.find('\n'));
        if (name == "nvlog-pod")
            count += add_block(machine, name, nvram_layout.size, [] {
                const pod_card local = {"", 0, {}, PODSTORAGE_NVRAM, 0, {}};
                return log_storage({}, local).bytes().value_or("");
            });
        for (size_t i = 0; i < post_blocks.size(); ++i)
            if ("/dev/" + name == post_blocks[i].path())
                count += add_block(machine, name, post_sizes[i],
                                   [&] { return post_blocks[i].expect_bytes(); });
    }
    return count;
}

//--- the command ----------------------------------------------------------------------------------

// What of the kernel and of this user's rights can stop work.
field_value settings_of(const machine_facts &facts)
{
    field_value::array parameters;
    for (const std::string &parameter : facts.parameters)
        parameters.emplace_back(parameter);
    field_value::array nodes;
    for (const auto &node : facts.nodes)
        nodes.push_back(field_value::object{{"name", node.name}, {"problem", node.problem}});
    return field_value::object{{"lockdown", text_or_null(facts.lockdown)},
                               {"parameters", parameters},
                               {"unusable_nodes", nodes}};
}

std::string manifest(const collect_arguments &arguments, time_t when, const record_set &left_out)
{
    utsname kernel = {};
    ::uname(&kernel);
    const machine_facts &facts = this_machine().facts();
    const record content =
        record()
            .add("format", json_format)
            .add("program", "devaccess " DEVICE_ACCESS_VERSION)
            .add_time("time", when)
            .add("host", arguments.anonymous ? field_value() : text_or_null(printable(facts.host)))
            .add("chassis", text_or_null(facts.chassis))
            .add("rp2", facts.is_rp2)
            .add("kernel", kernel.release)
            .add("machine", kernel.machine)
            .add("settings", settings_of(facts))
            .add(left_out);
    return content.as_json(2) + "\n";
}

void collect(const collect_arguments &arguments)
{
    const time_t when = ::time(nullptr);
    recorder machine;
    record done = record().add("file", arguments.file);
    done.add("functions", add_functions(machine)).add("nodes", add_nodes(machine));
    done.add("logs", add_log_files(machine) + add_blocks(machine));
    if (!arguments.anonymous)
        add_inventory(machine);
    const record_set &left_out = machine.left_out();
    tar_archive archive = machine.archive(when, manifest(arguments, when, left_out));
    write_file(arguments.file, archive.finish(), !arguments.force);
    if (!left_out.rows.empty())
        note(
            fmt::format("{} files could not be read whole; manifest.json in the archive names them",
                        left_out.rows.size()));
    if (arguments.file != standard_stream)
        print(add_records(done, left_out));
}

void add_archive(command &to, collect_arguments &arguments)
{
    to.argument("FILE", arguments.file, "The archive to write, in tar format; - is standard output")
        .paths()
        .required();
    to.add_flag("--force", arguments.force, "Replace the file if it exists");
    to.add_flag("--anonymous", arguments.anonymous,
                "Leave out the name of the host and the inventory's serial numbers");
}

} // namespace

void describe_collect(command &to)
{
    to.takes(add_archive, collect);
}

} // namespace devaccess

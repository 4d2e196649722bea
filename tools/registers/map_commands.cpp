// Register maps: map list, check, import.
#include "tools/base/errors.h"
#include "tools/base/files.h"
#include "tools/base/output.h"
#include "tools/registers/device_map.h"
#include "tools/registers/register_commands.h"
#include "tools/registers/svd.h"

#include <algorithm>
#include <filesystem>

#include <fmt/format.h>

namespace devaccess
{
namespace
{

namespace fs = std::filesystem;

struct map_arguments {
    std::string file;
    std::string peripheral;
    std::string out;
};

//--- list -----------------------------------------------------------------------------------------

void add_nothing(command &, map_arguments &) {}

// Every map that a name finds; one of a directory before hides those after it.
void list(const map_arguments &)
{
    record_set maps = {"maps", {}};
    std::vector<std::string> seen;
    for (const std::string &directory : register_map::directories()) {
        std::error_code none;
        std::vector<fs::path> files;
        for (const auto &entry : fs::directory_iterator(directory, none))
            if (entry.path().extension() == ".json")
                files.push_back(entry.path());
        std::sort(files.begin(), files.end());
        for (const fs::path &file : files) {
            const std::string name = file.stem();
            if (std::find(seen.begin(), seen.end(), name) != seen.end())
                continue;
            seen.push_back(name);
            maps.rows.push_back(
                record().add("name", printable(name)).add("file", printable(file.string())));
        }
    }
    print(std::move(maps));
}

//--- check ----------------------------------------------------------------------------------------

record summary_of(const std::string &file, const register_map::map &map)
{
    size_t fields = 0;
    for (const register_map::reg &one : map.registers)
        fields += one.fields.size();
    return record()
        .add("file", file)
        .add("name", text_or_null(printable(map.name)))
        .add("registers", map.registers.size())
        .add("fields", fields);
}

record_set fault_rows(const std::vector<std::string> &faults)
{
    record_set rows = {"faults", {}};
    for (const std::string &fault : faults)
        rows.rows.push_back(record().add("fault", printable(fault)));
    return rows;
}

[[noreturn]] void fail_on(const std::string &file, const std::vector<std::string> &faults)
{
    throw failure("use the map " + file, faults.front(),
                  faults.size() == 1 ? "" : fmt::format("it has {} more faults", faults.size() - 1),
                  0, exit_damaged);
}

void check(const map_arguments &arguments)
{
    const std::string file = map_file(arguments.file, {});
    std::vector<std::string> faults;
    register_map::map map;
    try {
        map = register_map::read(file, faults);
    } catch (const std::runtime_error &wrong) {
        faults.push_back(wrong.what());
    }
    for (std::string &fault : faults)
        if (fault.starts_with(file + ": "))
            fault.erase(0, file.size() + 2);
    record shown = summary_of(file, map);
    print(add_records(shown, fault_rows(faults)));
    if (!faults.empty())
        fail_on(file, faults);
}

void add_check(command &to, map_arguments &arguments)
{
    to.argument("FILE", arguments.file, "Register map, or NAME for that of the directories of maps")
        .paths()
        .required();
}

//--- import ---------------------------------------------------------------------------------------

void list_peripherals(const svd_file &svd)
{
    record_set peripherals = {"peripherals", {}};
    for (const svd_peripheral &one : svd.peripherals())
        peripherals.rows.push_back(record()
                                       .add("name", printable(one.name))
                                       .add_hex("address", one.address, 8)
                                       .add("description", printable(one.description)));
    print(std::move(peripherals));
}

void import(const map_arguments &arguments)
{
    const svd_file svd(arguments.file);
    if (arguments.peripheral.empty())
        return list_peripherals(svd);
    const register_map::map map = svd.map_of(arguments.peripheral);
    const std::string out = arguments.out.empty() ? standard_stream : arguments.out;
    write_file(out, register_map::text_of(map), false);
    const std::vector<std::string> faults = register_map::faults_of(map);
    if (out != standard_stream) {
        record shown = summary_of(out, map);
        print(add_records(shown, fault_rows(faults)));
    }
    if (!faults.empty())
        fail_on(out, faults);
}

void add_import(command &to, map_arguments &arguments)
{
    to.argument("FILE", arguments.file, "Description of a device, in CMSIS-SVD").paths().required();
    to.argument("PERIPHERAL", arguments.peripheral,
                "The part of it whose registers are wanted (default: list them)");
    to.add_option("--out", "FILE", arguments.out, "Write to this file (default: standard output)")
        .paths();
}

} // namespace

void describe_map(command &map)
{
    map.add("list", "List the register maps that are found by name", add_nothing, list);
    map.add("check", "Say what is wrong with a register map", add_check, check);
    map.add("import", "Make a register map of a vendor's SVD file", add_import, import);
}

} // namespace devaccess

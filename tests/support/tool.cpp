#include "support/tool.h"

#include <nlohmann/json.hpp>

#include <filesystem>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tool
{

namespace fs = std::filesystem;
using chassis_sim::write_file;
using nlohmann::json;
using std::string;

pid_t start(const string &line, const char *out, const char *error)
{
    const pid_t pid = ::fork();
    if (pid != 0)
        return pid;
    ::setenv("PATH", PROGRAMS ":/usr/bin:/bin:/usr/sbin:/sbin", 1);
    ::dup2(::open(out, O_WRONLY | O_CREAT | O_TRUNC, 0666), STDOUT_FILENO);
    ::dup2(::open(error, O_WRONLY | O_CREAT | O_TRUNC, 0666), STDERR_FILENO);
    ::execl("/bin/sh", "sh", "-c", line.c_str(), nullptr);
    ::_exit(127);
}

namespace
{

json documents; // all that was printed as JSON, behind its command

json without_times(json value)
{
    if (value.is_object() && value.erase("time_raw")) {
        EXPECT_EQ(value["time"].get<string>().size(), sizeof "2026-01-01T00:00:00Z" - 1);
        value.erase("time");
    }
    if (value.is_structured())
        for (json &part : value)
            part = without_times(part);
    return value;
}

// A JSON text becomes one line without times.
void note_document(const string &line, string &text)
{
    const json document = json::parse(text, nullptr, false);
    if (!document.is_object())
        return;
    documents.push_back({line, document});
    text = without_times(document).dump();
}

} // namespace

result run(const string &line)
{
    const string base = fs::temp_directory_path() / ("tool." + std::to_string(::getpid()));
    const string out = base + ".out", error = base + ".error";
    int status = 0;
    ::waitpid(start(line, out.c_str(), error.c_str()), &status, 0);
    result r = {WEXITSTATUS(status), read_file(out), read_file(error)};
    fs::remove(out);
    fs::remove(error);
    note_document(line, r.out);
    note_document("error", r.error);
    return r;
}

void expect(const string &words, const string &table)
{
    const auto has = [](const string &text, const string &part) {
        return part.empty() ? text.empty() : part == "*" || text.find(part) != text.npos;
    };
    std::istringstream lines(table);
    for (string line; std::getline(lines, line);) {
        const size_t arrow = line.find(" -> ");
        if (arrow == line.npos)
            continue;
        std::vector<string> wanted;
        string rest = line.substr(arrow + 3) + " | | |";
        for (size_t end; wanted.size() < 3; rest.erase(0, end + 2)) {
            end = rest.find(" |");
            const string field =
                rest.substr(std::min<size_t>(end, 1), std::max<size_t>(end, 1) - 1);
            wanted.push_back(test::replaced(field, "\\\\n", "\n"));
        }
        const result r = run(words + line.substr(0, arrow));
        EXPECT_EQ(std::to_string(r.status), wanted[0]) << line << r.error;
        EXPECT_TRUE(has(r.out, wanted[1])) << line << "\n" << r.out;
        EXPECT_TRUE(has(r.error, wanted[2])) << line << "\n" << r.error;
        EXPECT_LT(std::count(r.error.begin(), r.error.end(), '\n'), wanted[2] == "*" ? 99 : 2);
    }
}

void expect_documented()
{
    write_file("/var/tmp/documents", documents.dump());
    write_file("/var/tmp/validate", R"(
import json, sys, jsonschema
schema = json.load(open(sys.argv[1]))
jsonschema.Draft202012Validator.check_schema(schema)
schema.pop('anyOf')
for line, document in json.load(open('/var/tmp/documents')):
    name = max((n for n in schema['$defs'] if n in line.replace('--json ', '')), key=len)
    name += ' --follow' * ('--follow' in line)
    schema['$ref'] = '#/$defs/' + name.replace(' ', '%20')
    jsonschema.validate(document, schema)
    print(name)
)");
    expect("python3 /var/tmp/validate ", SCHEMA " -> 0 | *");
}

void start_chassis(const char *type)
{
    chassis_sim::enter_private_root();
    chassis_sim::device_server devices;
    chassis_sim::uio_description block;
    block.maps = {{"map0", "0x1000\n"}, {"map1", "0x2000\n"}};
    block.irq_delay_ms = 20;
    chassis_sim::add_uio(devices, block);
    chassis_sim::add_post_logs(devices, chassis_sim::sample_post_logs(), 0);
    chassis_sim::nvram_description pod;
    pod.number = 3;
    chassis_sim::add_nvram(devices, pod);
    devices.start();
    chassis_sim::add_chassis_pci();
    chassis_sim::add_chassis_hotswap();
    chassis_sim::make_directory("/flash/diags");
    ::setenv("DEVACCESS_CHASSIS", type, 1);
    ::setenv("LONG", string(64, 'x').c_str(), 1);
    ::setenv("USER1", "setpriv --reuid=1 --regid=1 --clear-groups devaccess", 1);
}

} // namespace tool

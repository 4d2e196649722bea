#include "support/tool.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <sstream>

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

// A JSON document is kept, and shown as one; so are JSON lines kept.
void note_document(const string &line, string &text)
{
    const json document = json::parse(text, nullptr, false);
    if (document.is_object()) {
        documents.push_back({line, document});
        text = document.dump(1) + "\n";
        return;
    }
    std::istringstream lines(text);
    for (string one; std::getline(lines, one);)
        if (const json object = json::parse(one, nullptr, false); object.is_object())
            documents.push_back({line, object});
}

// Without what is another thing in another run or another build.
string lasting(const string &text)
{
    using clock = std::chrono::system_clock;
    const std::time_t now = clock::to_time_t(clock::now());
    string result = text;
    for (const std::time_t day : {now, now - 86400}) {
        char date[16];
        std::strftime(date, sizeof date, "%Y-%m-%d", std::gmtime(&day));
        result = test::replaced(result, (string(date) + "T[0-9:]+Z").c_str(), "<now>");
        const string seconds = std::to_string(day).substr(0, 5);
        result = test::replaced(result, ("\\b" + seconds + "[0-9]{5}\\b").c_str(), "<now>");
    }
    result = test::replaced(result, "[0-9]{8}T[0-9]{6}Z", "<now>");
    // An ordinary user's chassis has other devices' numbers.
    result = test::replaced(result, "\"number\": \"[0-9]+:[0-9]+\"", "\"number\": \"<number>\"");
    // Of traces.
    result = test::replaced(result, "(^|\n) +[0-9]+\\.[0-9]{6} +[0-9]+ ", "$1<time> <thread> ");
    result = test::replaced(result, "(\"time\"|\"thread\"|_(us|ms)\"): [0-9.e-]+", "$1: <number>");
    result = test::replaced(result, "(, after|in) [0-9.]+ [mu]?s\\b", "$1 <time>");
    result = test::replaced(result, "(\"elapsed\": |<now> +)[0-9][0-9.e-]*", "$1<seconds>");
    return test::replaced(result, "\\b" VERSION "\\b", "<version>");
}

string indented(const string &text, const string &mark)
{
    std::istringstream lines(text);
    string result;
    for (string line; std::getline(lines, line);)
        result += "  " + mark + line + "\n";
    return result;
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
    r.out = lasting(r.out);
    r.error = lasting(r.error);
    return r;
}

void follow(const string &name)
{
    std::istringstream lines(read_file(SOURCE "/tests/expected/" + name));
    string transcript;
    for (string line; std::getline(lines, line);) {
        if (line.empty() || line[0] == ' ')
            continue;
        transcript += line + "\n";
        if (!line.starts_with("$ "))
            continue;
        const result seen = run(line.substr(2));
        transcript += indented(seen.out, "") + indented(seen.error, "! ");
        if (seen.status != 0)
            transcript += "  = " + std::to_string(seen.status) + "\n";
    }
    EXPECT_TEXT(name, transcript);
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
    name = 'problem' if 'problem' in document else name
    schema['$ref'] = '#/$defs/' + name.replace(' ', '%20')
    jsonschema.validate(document, schema)
    print(name)
)");
    const result validated = run("python3 /var/tmp/validate " SCHEMA);
    EXPECT_EQ(validated.status, 0) << validated.error;
}

void start_chassis(const char *type)
{
    chassis_sim::enter_private_root();
    chassis_sim::device_server devices;
    chassis_sim::uio_description block;
    block.maps = {{"map0", "0x1000\n"}, {"map1", "0x2000\n"}};
    block.irq_delay_ms = 200; // so long that a busy machine, too, sees none at once
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

// What programs do with their devices: trace, trace stats.
#include "tools/trace/trace_commands.h"

#include "access_trace/trace_line.h"
#include "tools/base/errors.h"
#include "tools/base/output.h"
#include "tools/trace/exact_trace.h"
#include "tools/trace/preloaded_trace.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <set>
#include <tuple>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <unistd.h>

namespace devaccess
{
namespace
{

//--- trace ----------------------------------------------------------------------------------------

struct trace_arguments {
    std::vector<std::string> command;
    std::string format = "text";
    std::string file;
    std::string map;
    bool exactly = false;
};

// Two traces do not write to one file.
std::FILE *open_trace(const std::string &path)
{
    if (path.empty())
        return stderr;
    if (path == "-")
        return stdout;
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0)
        throw failure("write " + path, std::strerror(errno), "", errno);
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0)
        throw failure("write " + path, "another trace is writing it", "give each a file", errno);
    if (::ftruncate(fd, 0) != 0 && errno != EINVAL) // of what is no plain file
        throw failure("write " + path, std::strerror(errno), "", errno);
    return ::fdopen(fd, "w");
}

void trace(const trace_arguments &arguments)
{
    if (arguments.command.empty())
        throw usage_error("a command is required, after --");
    traced_windows windows(arguments.map);
    std::FILE *const to = open_trace(arguments.file);
    std::setvbuf(to, nullptr, _IOFBF, 1 << 16);
    const auto run = arguments.exactly ? trace_exactly : trace_preloaded;
    const int status = run(arguments.command, windows, arguments.format, to);
    finish_output();
    ::_exit(status);
}

//--- trace stats ----------------------------------------------------------------------------------

struct stats_arguments {
    std::string file;
};

struct register_stats {
    std::string name;
    uint64_t reads = 0, writes = 0;
    std::set<unsigned> widths;
    double first = 0, last = 0;
    uint64_t longest_poll = 0; // reads
    double poll_seconds = 0;   // of the poll that took longest

    // Nothing: there was one only.
    std::optional<double> mean_interval() const
    {
        if (reads + writes < 2)
            return std::nullopt;
        return (last - first) / static_cast<double>(reads + writes - 1);
    }
};

using register_key = std::tuple<std::string, std::string, uint64_t>; // device, map, offset

class trace_stats
{
public:
    // How long equal reads went on is told by what their thread did next.
    void add(const access_trace::trace_line &line)
    {
        if (const auto poll = polls_.find(line.thread); poll != polls_.end()) {
            end_poll(poll->second, line.time);
            polls_.erase(poll);
        }
        if (!line.event.empty())
            return;
        const std::string map = line.is_configuration ? "config"
                                : line.map            ? std::to_string(*line.map)
                                                      : "";
        register_stats &of = registers_[{line.device, map, line.offset}];
        if (of.reads + of.writes == 0)
            of.first = line.time;
        if (of.name.empty())
            of.name = line.name;
        (line.is_write ? of.writes : of.reads) += line.count;
        of.widths.insert(line.width);
        of.last = line.time;
        if (line.count > 1)
            polls_[line.thread] = {&of, line.time, line.count};
    }

    record_set rows() const
    {
        record_set set = {"registers", {}};
        for (const auto &[key, of] : registers_)
            set.rows.push_back(row(key, of));
        return set;
    }

private:
    struct open_poll {
        register_stats *of;
        double since;
        uint64_t reads;
    };

    static void end_poll(const open_poll &poll, double time)
    {
        poll.of->last = std::max(poll.of->last, time);
        poll.of->longest_poll = std::max(poll.of->longest_poll, poll.reads);
        poll.of->poll_seconds = std::max(poll.of->poll_seconds, time - poll.since);
    }

    static record row(const register_key &key, const register_stats &of)
    {
        const auto &[device, map, offset] = key;
        const std::optional<double> mean = of.mean_interval();
        return record()
            .add("device", text_or_null(device))
            .add("map", text_or_null(map))
            .add_hex("offset", offset, 2)
            .add("name", text_or_null(printable(of.name)))
            .add("widths", fmt::format("{}", fmt::join(of.widths, ",")))
            .add("reads", of.reads)
            .add("writes", of.writes)
            .add("mean_us", mean ? field_value(*mean * 1e6) : field_value(),
                 mean ? fmt::format("{:.1f}", *mean * 1e6) : "-")
            .add("poll_reads", of.longest_poll)
            .add("poll_ms", of.poll_seconds * 1e3, fmt::format("{:.3f}", of.poll_seconds * 1e3));
    }

    std::map<register_key, register_stats> registers_;
    std::map<int64_t, open_poll> polls_; // by thread
};

void stats(const stats_arguments &arguments)
{
    trace_stats all;
    access_trace::trace_reader reader(arguments.file);
    while (const auto line = reader.next())
        all.add(*line);
    print(all.rows());
    if (!reader.problem().empty())
        throw failure("read all of the trace", reader.problem(),
                      "what comes before it is counted; --format jsonl makes such traces");
}

//--- command line ---------------------------------------------------------------------------------

void add_trace(command &to, trace_arguments &arguments)
{
    to.argument("COMMAND", arguments.command, "The command and its arguments, after --").paths();
    to.add_option("--format", "FORMAT", arguments.format,
                  "text, jsonl: a JSON object on each line, or chrome: what trace viewers open")
        .one_of({"text", "jsonl", "chrome"})
        .show_default();
    to.add_option("--out", "FILE", arguments.file,
                  "Write the trace to the file instead of standard error; - is standard output")
        .paths();
    to.add_option("--map", "FILE", arguments.map, "Name registers by this map").paths();
    to.add_flag("--exact", arguments.exactly,
                "Follow the program's own instructions: any program, tens of microseconds an "
                "access");
    to.footer("Exit status: that of the command.");
    to.add(
        "stats", "Count the accesses to each register in a trace in JSON lines",
        +[](command &stats_of, stats_arguments &taken) {
            stats_of.argument("FILE", taken.file, "What 'trace --format jsonl' wrote")
                .paths()
                .required();
        },
        stats);
}

} // namespace

void describe_trace(command &family)
{
    family.takes(add_trace, trace);
}

} // namespace devaccess

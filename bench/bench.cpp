// Measures all rows in one run, interleaved, and prints how the medians of processor time compare.
//
//     device_access_bench TABLE.json [options of Google Benchmark]
#include "bench/bench.h"
#include "sim/program/private_root.h"
#include "support/sweep.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <map>

#include <fcntl.h>
#include <unistd.h>

namespace bench
{
namespace
{

std::vector<row> rows;
std::FILE *table; // the standard output that the program was given

// What the library says goes nowhere.
void silence()
{
    table = ::fdopen(::dup(STDOUT_FILENO), "w");
    const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    require(table && ::dup2(nowhere, STDOUT_FILENO) >= 0, "silencing the library");
    ::close(nowhere);
}

struct result {
    double nanoseconds = 0;
    double system_calls = 0;
};
std::map<std::string, result> results; // by the benchmark's name

std::string full_name(const row &r, const contender &c)
{
    return r.name + "/" + c.name;
}

void add_benchmark(const row &r, const contender &c)
{
    const auto run = [prepare = c.prepare](benchmark::State &state) {
        const work_t work = prepare();
        for (auto _ : state)
            work();
    };
    benchmark::RegisterBenchmark(full_name(r, c).c_str(), run);
}

void count_system_calls(const row &r, const contender &c)
{
    const work_t work = c.prepare();
    work(); // what only the first time does is not counted
    int calls = 0;
    for (const auto &[name, count] : test::system_calls_of(work))
        calls += count;
    results[full_name(r, c)].system_calls = double(calls) / r.operations;
}

template <typename Function>
void for_all(Function function)
{
    for (const row &r : rows) {
        function(r, r.library);
        for (const contender &peer : r.peers)
            function(r, peer);
    }
}

int open_directory(const char *path)
{
    const int fd = ::open(path, O_PATH | O_DIRECTORY | O_CLOEXEC);
    require(fd >= 0, path);
    return fd;
}

void enter_root(int root)
{
    require(::fchdir(root) == 0 && ::chroot(".") == 0, "changing the root directory");
}

int real_root;
int chassis_root;

class collector : public benchmark::BenchmarkReporter
{
public:
    bool ReportContext(const Context &) override { return true; }
    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (const Run &run : runs)
            if (run.aggregate_name == "median")
                results[run.run_name.function_name].nanoseconds = run.GetAdjustedCPUTime();
    }
};

void print_row(const row &r, const contender &peer, std::FILE *json, bool &first)
{
    const result &ours = results[full_name(r, r.library)];
    const result &theirs = results[full_name(r, peer)];
    const double time = ours.nanoseconds / r.operations;
    const double peer_time = theirs.nanoseconds / r.operations;
    if (time == 0 || peer_time == 0)
        return; // filtered out
    std::fprintf(table, "| %-38s | %10.3f | %7.1f | %-34s | %10.3f | %7.1f | %5.2f |\n",
                 r.name.c_str(), time / 1000, ours.system_calls, peer.name.c_str(),
                 peer_time / 1000, theirs.system_calls, time / peer_time);
    std::fprintf(
        json,
        "%s\n  {\"operation\": \"%s\", \"ns\": %.1f, \"system_calls\": %.1f, \"compared_with\": "
        "\"%s\", \"compared_ns\": %.1f, \"compared_system_calls\": %.1f, \"ratio\": %.3f}",
        first ? "" : ",", r.name.c_str(), time, ours.system_calls, peer.name.c_str(), peer_time,
        theirs.system_calls, time / peer_time);
    first = false;
}

void print_table(const char *json_path)
{
    std::FILE *json = std::fopen(json_path, "w");
    require(json != nullptr, json_path);
    std::fprintf(table, "| %-38s | %10s | %7s | %-34s | %10s | %7s | %5s |\n", "operation", "us",
                 "calls", "compared with", "us", "calls", "ratio");
    std::fprintf(table, "| --- | ---: | ---: | --- | ---: | ---: | ---: |\n");
    std::fprintf(json, "[");
    bool first = true;
    for (const row &r : rows)
        for (const contender &peer : r.peers)
            print_row(r, peer, json, first);
    std::fprintf(json, "\n]\n");
    require(std::fclose(json) == 0, json_path);
}

// What each function more costs a scan.
double growth(const std::string &name, int from, int to)
{
    const auto time = [&](int size) {
        return results["scan of " + std::to_string(size) + " functions/" + name].nanoseconds;
    };
    return (time(to) - time(from)) / (to - from) / 1000;
}

void print_growth()
{
    const auto print = [](const char *name) {
        const double near = growth(name, 100, 1000);
        const double far = growth(name, 1000, 4096);
        if (near > 0 && far > 0)
            std::fprintf(table,
                         "A scan by %s grows by %.2f us for each function from 100 to 1000, by "
                         "%.2f us from 1000 to 4096.\n",
                         name, near, far);
    };
    std::fprintf(table, "\n");
    for (const char *name : {"library", "libpci", "libpci, subsystem ids too"})
        print(name);
}

} // namespace

void add(row added)
{
    rows.push_back(std::move(added));
}

void real_machine::remember()
{
    real_root = open_directory("/");
}

real_machine::real_machine()
{
    enter_root(real_root);
}

real_machine::~real_machine()
{
    enter_root(chassis_root);
}

} // namespace bench

int main(int argc, char **argv)
{
    using namespace bench;
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s TABLE.json [options of Google Benchmark]\n", argv[0]);
        return 2;
    }
    const char *const json_path = argv[1];
    argv[1] = argv[0];
    int options = argc - 1;
    benchmark::Initialize(&options, argv + 1);
    if (benchmark::ReportUnrecognizedArguments(options, argv + 1))
        return 2;

    silence();
    const int working_directory = open_directory(".");
    real_machine::remember();
    chassis_sim::enter_private_root();
    chassis_root = open_directory("/");
    add_pci_rows();
    add_uio_rows();
    add_pod_log_rows();
    add_crc_rows();
    for_all(count_system_calls);
    for_all(add_benchmark);
    // Whose files are named as the caller sees them.
    const auto return_to_working_directory = [&] {
        require(::fchdir(working_directory) == 0, "returning to the working directory");
    };
    return_to_working_directory();
    collector display;
    benchmark::RunSpecifiedBenchmarks(&display);
    return_to_working_directory();
    print_table(json_path);
    print_growth();
    return 0;
}

// A configuration register beside a bare pread, and the scan beside libpci's, on one simulated
// tree.
#include "sim/chassis.h"

#include <device_access/pci_config.h>
#include <device_access/pci_sysfs.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

extern "C" {
#include <pci/pci.h>
}

namespace
{

namespace fs = std::filesystem;

const std::string devices = "/sys/bus/pci/devices";
constexpr int sizes[] = {10, 100, 1000};
const sysfs_pci_identity_t first = {"0000:00:00.0", {}};

std::string tree_of(int count)
{
    return devices + "." + std::to_string(count);
}

// One tree of links for each size, all to the same functions.
void build_trees()
{
    int count = 0;
    for (int size : sizes) {
        for (; count < size; ++count) {
            char id[13];
            std::snprintf(id, sizeof id, "0000:%02x:%02x.%d", count >> 8 & 0xff, count >> 3 & 0x1f,
                          count & 7);
            chassis_sim::pci_function function;
            function.id = id;
            function.windows = {{0xf0000000, 0x1000}, {}, {0x4'0000'0000, 0x100000, 0x14220c}};
            chassis_sim::add_pci(function);
        }
        fs::copy(devices, tree_of(size),
                 fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    }
    fs::remove_all(devices);
    fs::create_directory_symlink(tree_of(sizes[0]), devices);
}

// The tree of this size is the machine's while the object lives.
class selected_tree
{
public:
    explicit selected_tree(int size) : tree_(tree_of(size))
    {
        fs::remove(devices);
        fs::rename(tree_, devices);
    }
    ~selected_tree()
    {
        fs::rename(devices, tree_);
        fs::create_directory_symlink(tree_, devices);
    }

private:
    std::string tree_;
};

// The scan's own lines go nowhere while the object lives.
class silent_output
{
public:
    silent_output()
    {
        std::fflush(stdout);
        const int nowhere = ::open("/dev/null", O_WRONLY);
        ::dup2(nowhere, STDOUT_FILENO);
        ::close(nowhere);
    }
    ~silent_output()
    {
        std::fflush(stdout);
        ::dup2(saved_, STDOUT_FILENO);
        ::close(saved_);
    }

private:
    int saved_ = ::dup(STDOUT_FILENO);
};

void config_bare_pread(benchmark::State &state)
{
    const int fd = sysfs_pci_open("config", O_RDWR, &first);
    for (auto _ : state) {
        uint32_t value = 0;
        if (::pread(fd, &value, sizeof value, 0) != sizeof value)
            state.SkipWithError("pread failed");
        benchmark::DoNotOptimize(value);
    }
    ::close(fd);
}

void config_read32(benchmark::State &state)
{
    void *handle = pci_config_open(&first);
    for (auto _ : state)
        benchmark::DoNotOptimize(pci_config_read32(0, handle));
    pci_config_close(handle);
}

void scan_library(benchmark::State &state, int size)
{
    const selected_tree tree(size);
    size_t found = 0;
    {
        const silent_output silent;
        for (auto _ : state) {
            sysfs_pci_info_init();
            sysfs_pci_get_next_element_t next;
            sysfs_pci_info_fetch_init(&next);
            for (found = 0; sysfs_pci_info_fetch_next(&next);)
                ++found;
            // Scans keep their results for ever; so many would fill the memory.
            std::free(const_cast<void *>(next.seed));
        }
    }
    if (found != static_cast<size_t>(size))
        state.SkipWithError("not all functions found");
}

void scan_libpci(benchmark::State &state, int size, int fields)
{
    const selected_tree tree(size);
    size_t found = 0;
    for (auto _ : state) {
        pci_access *access = pci_alloc();
        access->method = PCI_ACCESS_SYS_BUS_PCI;
        pci_init(access);
        pci_scan_bus(access);
        found = 0;
        for (pci_dev *dev = access->devices; dev; dev = dev->next) {
            pci_fill_info(dev, fields);
            found += dev->vendor_id == 0x1d0f && dev->size[0] == 0x1000;
        }
        pci_cleanup(access);
    }
    if (found != static_cast<size_t>(size))
        state.SkipWithError("not all functions found");
}

// Prints, behind the table, how the library's median CPU times compare with the others'.
class ratio_reporter : public benchmark::ConsoleReporter
{
public:
    ratio_reporter() : ConsoleReporter(OO_Tabular) {}

    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (const Run &run : runs)
            if (run.aggregate_name == "median")
                medians_[run.run_name.function_name] = run.GetAdjustedCPUTime();
        ConsoleReporter::ReportRuns(runs);
    }

    void Finalize() override
    {
        print("config/pci_config_read32", "config/bare_pread");
        for (int size : sizes)
            for (const char *peer : {"scan/libpci/", "scan/libpci_with_subsystem/"})
                print("scan/sysfs_pci_info_init/" + std::to_string(size),
                      peer + std::to_string(size));
    }

private:
    void print(const std::string &name, const std::string &peer)
    {
        if (medians_.count(name) && medians_.count(peer))
            std::printf("%-32s takes %.2f of %s\n", name.c_str(), medians_[name] / medians_[peer],
                        peer.c_str());
    }

    std::map<std::string, double> medians_;
};

} // namespace

int main(int argc, char **argv)
{
    chassis_sim::enter_private_root();
    build_trees();
    benchmark::RegisterBenchmark("config/bare_pread", config_bare_pread);
    benchmark::RegisterBenchmark("config/pci_config_read32", config_read32);
    constexpr int ids_and_bases = PCI_FILL_IDENT | PCI_FILL_BASES | PCI_FILL_SIZES;
    for (int size : sizes) {
        const auto add = [size](const char *name, auto run, auto... arguments) {
            const std::string full_name = std::string(name) + std::to_string(size);
            benchmark::RegisterBenchmark(full_name.c_str(), run, size, arguments...);
        };
        add("scan/sysfs_pci_info_init/", scan_library);
        add("scan/libpci/", scan_libpci, ids_and_bases);
        add("scan/libpci_with_subsystem/", scan_libpci, ids_and_bases | PCI_FILL_SUBSYS);
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    ratio_reporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    return 0;
}

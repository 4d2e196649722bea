// Configuration registers and the scan, compared with bare system calls and libpci, on one
// simulated tree; the scan on the machine's own, too. The simulated tree lies in memory, where
// reading a function's "config" is as cheap as any file. On a real one each word of it is an access
// to the hardware, so what is fastest here may be the slowest there.
#include "bench/bench.h"
#include "sim/program/chassis.h"

#include <device_access/pci_config.h>
#include <device_access/pci_sysfs.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <memory>
#include <string>

#include <fcntl.h>
#include <unistd.h>

extern "C" {
#include <pci/pci.h>
}

namespace bench
{
namespace
{

namespace fs = std::filesystem;

const std::string devices = "/sys/bus/pci/devices";
constexpr int sizes[] = {10, 100, 1000, 4096};
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

//--- registers
//-------------------------------------------------------------------------------------

constexpr uint32_t scratch_register = 0x3c;

std::shared_ptr<int> open_config()
{
    return {new int(sysfs_pci_open("config", O_RDWR, &first)), [](int *fd) {
                ::close(*fd);
                delete fd;
            }};
}

work_t bare_read()
{
    return [fd = open_config()] {
        uint32_t value = 0;
        require(::pread(*fd, &value, sizeof value, 0) == sizeof value, "pread");
        benchmark::DoNotOptimize(value);
    };
}

work_t bare_write()
{
    return [fd = open_config()] {
        const uint32_t value = 5;
        require(::pwrite(*fd, &value, sizeof value, scratch_register) == sizeof value, "pwrite");
    };
}

std::shared_ptr<void> open_registers()
{
    return {pci_config_open(&first), pci_config_close};
}

work_t library_read()
{
    return [handle = open_registers()] {
        benchmark::DoNotOptimize(pci_config_read32(0, handle.get()));
    };
}

work_t library_write()
{
    return [handle = open_registers()] {
        require(pci_config_write32(5, scratch_register, handle.get()) == 0, "pci_config_write32");
    };
}

std::shared_ptr<pci_access> open_libpci()
{
    std::shared_ptr<pci_access> access(pci_alloc(), pci_cleanup);
    access->method = PCI_ACCESS_SYS_BUS_PCI;
    access->writeable = 1;
    pci_init(access.get());
    return access;
}

work_t libpci_read()
{
    const auto access = open_libpci();
    return [access, dev = pci_get_dev(access.get(), 0, 0, 0, 0)] {
        benchmark::DoNotOptimize(pci_read_long(dev, 0));
    };
}

work_t libpci_write()
{
    const auto access = open_libpci();
    return [access, dev = pci_get_dev(access.get(), 0, 0, 0, 0)] {
        require(pci_write_long(dev, scratch_register, 5) == 1, "pci_write_long");
    };
}

//--- scan
//------------------------------------------------------------------------------------------

// The work on the functions of a tree, which is there as long as the work is.
using tree_t = std::shared_ptr<void>;

work_t library_scan(int size, const tree_t &tree)
{
    return [size, tree] {
        sysfs_pci_info_init();
        sysfs_pci_get_next_element_t next;
        sysfs_pci_info_fetch_init(&next);
        int found = 0;
        while (sysfs_pci_info_fetch_next(&next))
            ++found;
        // Scans keep their results for ever; so many would fill the memory.
        std::free(const_cast<void *>(next.seed));
        require(found == size, "the scan");
    };
}

work_t libpci_scan(int size, int fields, const tree_t &tree)
{
    return [size, fields, tree] {
        const auto access = open_libpci();
        pci_scan_bus(access.get());
        int found = 0;
        for (pci_dev *dev = access->devices; dev; dev = dev->next) {
            pci_fill_info(dev, fields);
            found += dev->vendor_id != 0;
        }
        require(found == size, "libpci's scan");
    };
}

// Both ways to name what the library fills; select_tree() makes a tree_t.
template <typename Select>
void add_scan(const std::string &name, int size, int operations, Select select_tree)
{
    constexpr int fields = PCI_FILL_IDENT | PCI_FILL_BASES | PCI_FILL_SIZES;
    const auto libpci = [=](int filled) {
        return [=] { return libpci_scan(size, filled, select_tree()); };
    };
    add({.name = name,
         .library = {"library", [=] { return library_scan(size, select_tree()); }},
         .peers = {{"libpci", libpci(fields)},
                   {"libpci, subsystem ids too", libpci(fields | PCI_FILL_SUBSYS)}},
         .operations = operations});
}

int functions_of_this_machine()
{
    const real_machine machine;
    std::error_code none;
    const fs::directory_iterator links(devices, none);
    return static_cast<int>(std::distance(fs::begin(links), fs::end(links)));
}

} // namespace

void add_pci_rows()
{
    build_trees();
    add({.name = "pci_config_read32",
         .library = {"library", library_read},
         .peers = {{"pread", bare_read}, {"libpci pci_read_long", libpci_read}}});
    add({.name = "pci_config_write32",
         .library = {"library", library_write},
         .peers = {{"pwrite", bare_write}, {"libpci pci_write_long", libpci_write}}});
    for (int size : sizes) {
        const std::string name = "scan of " + std::to_string(size) + " functions";
        add_scan(name, size, 1, [size] { return std::make_shared<selected_tree>(size); });
    }
    const int real = functions_of_this_machine();
    if (real > 0)
        add_scan("scan of this machine, a function", real, real,
                 [] { return std::make_shared<real_machine>(); });
}

} // namespace bench

// Physical memory against the same memory seen through the PCI functions it belongs to.
#include "pci.h"

#include <device_access/mmap_device.h>
#include <device_access/regiomap_x86.h>

#include <cerrno>
#include <cstring>

#include <sys/mman.h>

namespace guest
{
namespace
{

// Where a BAR starts, from the function's "resource" file, which has three numbers for each.
uint64_t start_of_bar(const char *id, size_t bar)
{
    const sysfs_pci_identity_t ident = identity(id);
    int64_t numbers[18] = {};
    sysfs_pci_show_nums(numbers, 18, "resource", &ident);
    return static_cast<uint64_t>(numbers[3 * bar]);
}

} // namespace

void check_memory()
{
    constexpr uint32_t page = 4096;
    const uint64_t registers = start_of_bar(edu, 0);
    char *physical = static_cast<char *>(mmap_device_open(registers, page));
    check("memory: registers mapped", physical && physical != MAP_FAILED, std::strerror(errno));
    check_equal("memory: a register", ioread32(physical + edu_identification), edu_identity);
    iowrite32(0xa5a5a5a5, physical + edu_inverter);
    check_equal("memory: written there, read as a PCI resource",
                ioread32(mapped_bars(edu)[0] + edu_inverter), 0x5a5a5a5a);
    mmap_device_close(physical, page);

    const uint64_t high = start_of_bar(shared_memory, 2);
    check("memory: there is some above 4 GiB", high > 0xffffffff,
          text_of(static_cast<long long>(high)));
    const mapped_bars memory(shared_memory);
    iowrite32(0xcafef00d, memory[2] + page);
    physical = static_cast<char *>(mmap_device_open(high + page, page));
    check_equal("memory: written as a PCI resource, read above 4 GiB", ioread32(physical),
                0xcafef00d);
    mmap_device_close(physical, page);

    check("memory: an address within a page",
          mmap_device_open(registers + 4, page) == MAP_FAILED && errno == EINVAL,
          std::strerror(errno));
    check("memory: nothing stays mapped",
          read_text("/proc/self/maps").find("/dev/mem") == std::string::npos, "");
}

} // namespace guest

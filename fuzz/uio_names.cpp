// Pseudo node names. The input is the part after "sysfs_pci:"; the chassis has FPGAs in two slots,
// and a plain file for its physical memory.
#include "fuzz/support.h"
#include "sim/program/chassis.h"

#include <device_access/libuio.h>

#include <cstring>
#include <memory>

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    chassis_sim::enter_private_root();
    const std::vector<uint64_t> sizes = {0x40000, 0x80000, 0x80000, 0x200000, 0x8000000};
    chassis_sim::add_fpga_card({"alsw1", "0000:00:1d.0", "0000:05:00.0", 18, sizes});
    chassis_sim::add_fpga_card({"rpsw1", "0000:00:1e.0", "0000:06:00.0", 17, sizes});
    chassis_sim::add_hotswap_name("peer", "0000:00:1e.0");
    chassis_sim::write_file("/dev/mem", "memory");
    chassis_sim::write_file("/dev/enable", "");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string text = "sysfs_pci:" + std::string(reinterpret_cast<const char *>(data), size);
    // A block of exactly the name's size shows what is read past its end.
    const auto name = std::make_unique<char[]>(text.size() + 1);
    std::memcpy(name.get(), text.c_str(), text.size() + 1);

    const fuzz::descriptor_check descriptors;
    const timespec no_wait = {0, 0};
    libuio_dev_t *const uio = libuio_open_timed(name.get(), &no_wait);
    if (!uio)
        return 0;
    libuio_mmap(uio, 1);
    libuio_mmap(uio, 0);
    for (unsigned int i = 0; i < libuio_get_map_limit(uio); ++i)
        libuio_get_mapinfo(uio, i, nullptr);
    libuio_close(uio);
    return 0;
}

// The POST logs through a PCIe NVRAM controller, whose registers are reached by function calls
// here: the linker leads the library's to this file.
#include "fuzz/post_log.h"

#include <device_access/post_log_nvram_pcie_access.h>

#include <cstring>

namespace
{

constexpr size_t control_register = 0xF000;
constexpr size_t data_register = 0xF008;

constexpr uint32_t address_bits = 0xFFFFF;

std::string nvram(address_bits + sizeof(uint32_t), '\0'); // a whole word begins at every address
uint32_t address;
char window[1]; // stands for the registers, which are never touched

// Where the controller has each block.
constexpr uint32_t block_addresses[] = {0x8000, 0x18000, 0x20000};

// The library keeps a closed block closed for ever; this one is there for the next run.
void stay_open(log_type_t) {}

void fill(log_type_t blk, const std::string &image)
{
    // A block without a row is read at its offsets themselves.
    for (uint32_t start : {0u, block_addresses[blk % 3]}) {
        nvram.replace(start, fuzz::post_block_size, fuzz::post_block_size, '\0');
        nvram.replace(start, image.size(), image);
    }
    postlog_map_pcie_nvram_access(window);
    postlog_map_nvram_access(fuzz::fresh_post_table(), postlog_pcie_nvram_init,
                             postlog_pcie_nvram_rd, stay_open, postlog_pcie_rd_log_index,
                             postlog_pcie_rd_log_header, postlog_pcie_rd_log,
                             postlog_pcie_validate_log_header, postlog_pcie_validate_log_entry);
}

size_t register_at(const volatile void *addr)
{
    return static_cast<size_t>(reinterpret_cast<uintptr_t>(addr) -
                               reinterpret_cast<uintptr_t>(window));
}

} // namespace

extern "C" uint32_t __wrap_ioread32(const volatile void *addr)
{
    if (register_at(addr) != data_register)
        return 0; // never busy
    uint32_t word = 0;
    std::memcpy(&word, &nvram[address], sizeof word);
    address = (address + 4) & address_bits;
    return word;
}

extern "C" void __wrap_iowrite32(uint32_t val, volatile void *addr)
{
    if (register_at(addr) == control_register)
        address = val & address_bits;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::use_post_log({true, fill}, {reinterpret_cast<const char *>(data), size});
    return 0;
}

// POST log blocks reached through the PCIe NVRAM controller.
#include <device_access/post_log_nvram_pcie_access.h>

#include "lib/base/errors.h"
#include "lib/base/print.h"
#include "lib/postlog/access.h"

#include <device_access/regiomap_x86.h>

#include <cstddef>
#include <cstring>
#include <initializer_list>

#include <endian.h>
#include <unistd.h>

using namespace device_access;

namespace postlog
{
namespace
{

constexpr size_t control_reg = 0xF000;
constexpr size_t status_reg = 0xF004;
constexpr size_t data_reg = 0xF008;

constexpr uint32_t busy = 0x1;
constexpr uint32_t address_mask = 0xFFFFF;
constexpr uint32_t write_direction = 0x100000;
constexpr uint32_t auto_increment = 0x200000;

// The controller is asked whether it is ready before each burst; transfers of more than one need
// auto-increment.
constexpr uint32_t burst_size = 32;

nvram_dev_info_t dev_info[] = {
    {
        .path = "",
        .name = "",
        .attr = 0,
        .mem_size = 8192,
        .num_subblock = 1,
        .msg_size = 128,
        .log_align_msk = 0xFFFFFFE0,
        .subblock_size = 0,
        .fd = -1,
        .ofw_base = 0x8000,
    },
    {
        .path = "",
        .name = "",
        .attr = 0,
        .mem_size = 32768,
        .num_subblock = 10,
        .msg_size = 32,
        .log_align_msk = 0xFFFFFFE0,
        .subblock_size = 3264,
        .fd = -1,
        .ofw_base = 0xFD118000,
    },
    {
        .path = "",
        .name = "",
        .attr = 0,
        .mem_size = 32768,
        .num_subblock = 10,
        .msg_size = 128,
        .log_align_msk = 0xFFFFFFE0,
        .subblock_size = 0,
        .fd = -1,
        .ofw_base = 0x20000,
    },
};

char *nvc_base;

bool is_ready_for(const char *routine)
{
    if (check_nvc_ready())
        return true;
    return REFUSE(print_error, false, "%s(): PCIE NVRAM Busy check Timed out.\n", routine);
}

uint32_t next_word(int swap)
{
    const uint32_t word = ioread32(nvc_base + data_reg);
    return swap ? __builtin_bswap32(word) : word;
}

bool read_bytes(uint32_t ofw_base, uint32_t offset, void *buffer, uint32_t num_byte,
                const char *routine)
{
    // The controller takes 20 bits of an address: one beyond them would come round to the
    // beginning.
    const uint64_t end = uint64_t{ofw_base & address_mask} + offset + num_byte;
    if (end <= uint64_t{address_mask} + 1 &&
        pcie_nvram_read(ofw_base + offset, num_byte, static_cast<uint8_t *>(buffer), 0) == 0)
        return true;
    return REFUSE(print_error, false, "ERROR: %s(): POST NVRAM Read error!\n", routine);
}

// Between host order and the stored, big-endian one: the same in both directions.
void convert(nvram_log_index_t &index)
{
    for (uint32_t *field : {&index.magic, &index.header_index, &index.log_size})
        *field = be32toh(*field);
}

void convert(nvram_log_header_t &header)
{
    for (uint32_t *field :
         {&header.header_checksum, &header.log_size, &header.index, &header.version})
        *field = be32toh(*field);
    header.start = be64toh(header.start);
}

void convert(nvram_log_t &entry)
{
    for (uint64_t *field : {&entry.time.tv_sec, &entry.time.tv_usec, &entry.epoch_time.tv_sec,
                            &entry.epoch_time.tv_usec})
        *field = be64toh(*field);
    for (uint32_t *field : {&entry.log_checksum, &entry.entry_size})
        *field = be32toh(*field);
}

template <typename Record>
int read_record(log_type_t blk, uint32_t offset, Record &record, const char *routine)
{
    if (!read_bytes(block_row(dev_info, blk).ofw_base, offset, &record, sizeof record, routine))
        return -1;
    convert(record);
    return 1;
}

bool is_initialized(log_type_t blk, const char *routine)
{
    if (block_row(dev_info, blk).num_subblock < 2) {
        nvram_log_header_t header;
        if (postlog_rd_log_header(blk, 0, &header) == 1)
            return is_header_initialized(header, routine);
    } else {
        nvram_log_index_t index;
        if (postlog_rd_log_index(blk, 0, &index) == 1)
            return is_index_initialized(index);
    }
    return REFUSE(print_error, false, "ERROR %s: cannot read from the device file!\n", routine);
}

} // namespace

void postlog_map_pcie_nvram_access(void *mmio_base)
{
    postlog_map_nvram_access(dev_info, postlog_pcie_nvram_init, postlog_pcie_nvram_rd,
                             postlog_pcie_nvram_close, postlog_pcie_rd_log_index,
                             postlog_pcie_rd_log_header, postlog_pcie_rd_log,
                             postlog_pcie_validate_log_header, postlog_pcie_validate_log_entry);
    nvc_base = static_cast<char *>(mmio_base);
}

int check_nvc_ready(void)
{
    for (int look = 0; look < 10; ++look) {
        if ((ioread32(nvc_base + status_reg) & busy) == 0)
            return 1;
        ::usleep(1000);
    }
    return REFUSE(print_error, 0, "%s(): PCIE NVRAM Busy check Timed out.\n", __func__);
}

uint32_t set_nvc_ctl_reg(uint32_t addr, int nvc_dir, int nvc_ai, uint8_t w_data)
{
    uint32_t word = addr & address_mask;
    if (nvc_dir)
        word |= write_direction | uint32_t{w_data} << 24;
    if (nvc_ai)
        word |= auto_increment;
    return word;
}

int pcie_nvram_read(uint32_t nvram_addr, uint32_t num_bytes, uint8_t *rd_buf, int swap)
{
    if (!rd_buf || nvram_addr == 0 || num_bytes == 0)
        return REFUSE(print_error, 1, "%s(): argument error \n", __func__);
    if (!is_ready_for(__func__))
        return 1;
    iowrite32(set_nvc_ctl_reg(nvram_addr, 0, num_bytes > burst_size, 0), nvc_base + control_reg);
    for (uint32_t n = 0; n < num_bytes;) {
        if (n % burst_size == 0 && !is_ready_for(__func__))
            return 1;
        const uint32_t word = next_word(swap);
        const uint32_t remaining = num_bytes - n;
        if (remaining < sizeof word) {
            // Of the tail only this one byte is stored; readers of the log rely on no more.
            rd_buf[n] = static_cast<uint8_t>(word >> 8 * (remaining - 1));
            return 0;
        }
        std::memcpy(rd_buf + n, &word, sizeof word);
        n += static_cast<uint32_t>(sizeof word);
    }
    return 0;
}

int postlog_pcie_nvram_init(log_type_t blk)
{
    return is_initialized(blk, __func__) ? 1 : close_with(blk, -1);
}

void postlog_pcie_nvram_close(log_type_t blk)
{
    block_row(dev_info, blk).ofw_base = 0;
}

int postlog_pcie_nvram_rd(log_type_t blk, uint32_t offset, uint8_t *buffer, uint32_t num_byte)
{
    const uint32_t ofw_base = block_row(dev_info, blk).ofw_base;
    if (ofw_base == 0)
        return REFUSE(print_error, 0, "ERROR: %s(): cannot access device!\n", __func__);
    return read_bytes(ofw_base, offset, buffer, num_byte, __func__) ? static_cast<int>(num_byte)
                                                                    : 0;
}

int postlog_pcie_rd_log_index(log_type_t blk, uint32_t offset, nvram_log_index_t *blk_index)
{
    return read_record(blk, offset, *blk_index, __func__);
}

int postlog_pcie_rd_log_header(log_type_t blk, uint32_t offset, nvram_log_header_t *blk_hdr)
{
    return read_record(blk, offset, *blk_hdr, __func__);
}

int postlog_pcie_rd_log(log_type_t blk, uint32_t offset, nvram_log_t *msg_hdr)
{
    return read_record(blk, offset, *msg_hdr, __func__);
}

int postlog_pcie_validate_log_header(nvram_log_header_t *nvloghp)
{
    nvram_log_header_t stored = *nvloghp;
    convert(stored);
    return nvloghp->header_checksum == header_checksum(stored);
}

int postlog_pcie_validate_log_entry(nvram_log_t *lg)
{
    nvram_log_t stored = *lg;
    convert(stored);
    return lg->log_checksum == entry_checksum(stored);
}

} // namespace postlog

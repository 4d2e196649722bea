// The records of the POST log, and the blocks as device files show them.
#include "lib/postlog/records.h"

#include <device_access/pod_log_crc_tmp.h>

#include <cstddef>

namespace postlog
{

static_assert(sizeof(nvram_log_index_t) == 12);
static_assert(offsetof(nvram_log_index_t, magic) == 0);
static_assert(offsetof(nvram_log_index_t, header_index) == 4);
static_assert(offsetof(nvram_log_index_t, log_size) == 8);

static_assert(sizeof(nvram_log_header_t) == 24);
static_assert(offsetof(nvram_log_header_t, header_checksum) == 0);
static_assert(offsetof(nvram_log_header_t, log_size) == 4);
static_assert(offsetof(nvram_log_header_t, index) == 8);
static_assert(offsetof(nvram_log_header_t, version) == 12);
static_assert(offsetof(nvram_log_header_t, start) == 16);

static_assert(sizeof(nvram_log_t) == 40);
static_assert(offsetof(nvram_log_t, time.tv_sec) == 0);
static_assert(offsetof(nvram_log_t, time.tv_usec) == 8);
static_assert(offsetof(nvram_log_t, epoch_time.tv_sec) == 16);
static_assert(offsetof(nvram_log_t, epoch_time.tv_usec) == 24);
static_assert(offsetof(nvram_log_t, log_checksum) == 32);
static_assert(offsetof(nvram_log_t, entry_size) == 36);

nvram_dev_info_t device_file_blocks[3] = {
    {
        .path = "/dev/nvlog-ofw-event",
        .name = "nvlog-ofw-event",
        .attr = 0,
        .mem_size = 8192,
        .num_subblock = 1,
        .msg_size = 128,
        .log_align_msk = 0xFFFFFFE0,
        .subblock_size = 0,
        .fd = -1,
        .ofw_base = 0xF0004000,
    },
    {
        .path = "/dev/nvlog-diag-test",
        .name = "nvlog-diag-test",
        .attr = 0,
        .mem_size = 16384,
        .num_subblock = 10,
        .msg_size = 32,
        .log_align_msk = 0xFFFFFFE0,
        .subblock_size = 0,
        .fd = -1,
        .ofw_base = 0xF0006000,
    },
    {
        .path = "/dev/nvlog-diag-error",
        .name = "nvlog-diag-error",
        .attr = 0,
        .mem_size = 32768,
        .num_subblock = 10,
        .msg_size = 128,
        .log_align_msk = 0xFFFFFFE0,
        .subblock_size = 0,
        .fd = -1,
        .ofw_base = 0xF000A000,
    },
};

nvram_dev_info_t &block_row(nvram_dev_info_t *table, log_type_t blk)
{
    static nvram_dev_info_t no_block = {"", "", 0, 0, 0, 0, 0, 0, -1, 0};
    const bool has_row = table && blk >= OFWEVENT_LOG && blk <= OFWDIAG_ERROR_LOG;
    return has_row ? table[blk] : no_block;
}

uint32_t header_checksum(const nvram_log_header_t &stored)
{
    constexpr size_t after = sizeof stored.header_checksum;
    return crc32_cksum(reinterpret_cast<const uint8_t *>(&stored) + after, sizeof stored - after);
}

uint32_t entry_checksum(nvram_log_t stored)
{
    stored.log_checksum = 0;
    return crc32_cksum(&stored, sizeof stored);
}

} // namespace postlog

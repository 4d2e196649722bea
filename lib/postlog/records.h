// The records of a POST log block, whichever way it is reached.
#pragma once

#include <device_access/post_log_nvram.h>

namespace postlog
{

constexpr uint32_t index_magic = 0x106F11E5;

// The blocks as device files show them; in use until another table is mapped.
extern nvram_dev_info_t device_file_blocks[3];

// The block's row of a table. A block without one gets a row that stands for a closed block, which
// cannot be opened either.
nvram_dev_info_t &block_row(nvram_dev_info_t *table, log_type_t blk);

// The checksum that a record should have, computed from its stored image.
uint32_t header_checksum(const nvram_log_header_t &stored);
uint32_t entry_checksum(nvram_log_t stored);

} // namespace postlog

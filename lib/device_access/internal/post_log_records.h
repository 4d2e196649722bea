// What both ways to reach a POST log block share.
#pragma once

#include <device_access/post_log_nvram.h>

namespace postlog
{

// The block's row of a table. A block without one gets a row that stands for a closed block, which
// cannot be opened either.
nvram_dev_info_t &block_row(nvram_dev_info_t *table, log_type_t blk);

// The checksum that a record should have, computed from its stored image.
uint32_t header_checksum(const nvram_log_header_t &stored);
uint32_t entry_checksum(nvram_log_t stored);

// Whether a block's header or index, as read, shows that the firmware has set the block up. Report
// it if not; routine is whose message it is.
bool is_header_initialized(nvram_log_header_t &header, const char *routine);
bool is_index_initialized(const nvram_log_index_t &index);

} // namespace postlog

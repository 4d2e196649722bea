// How the POST log reader reaches its blocks: through the functions and the block table that one of
// the mapping calls has put in the access table.
#pragma once

#include "lib/postlog/records.h"

#include <device_access/post_log_nvram.h>

namespace postlog
{

// The block's row of the table in use.
nvram_dev_info_t &row_of(log_type_t blk);

// Positions travel in 32 bits. One beyond them lies past every block, so reading there fails as
// reading past the end does.
uint32_t offset_of(int64_t pos);

// Each reads a record through the mapped function; false when it failed.
bool read_index(log_type_t blk, nvram_log_index_t &index);
bool read_header(log_type_t blk, int pos, nvram_log_header_t &header);
bool read_entry(log_type_t blk, int64_t pos, nvram_log_t &entry);

// Without a function to check them, records count as valid.
bool is_valid(nvram_log_header_t &header);
bool is_valid(nvram_log_t &entry);

// Whether a block's header or index, as read, shows that the firmware has set the block up. Report
// it if not; routine is whose message it is.
bool is_header_initialized(nvram_log_header_t &header, const char *routine);
bool is_index_initialized(const nvram_log_index_t &index);

// Closes the block, gives the result back. errno stays, whoever's function closes.
int close_with(log_type_t blk, int result);

} // namespace postlog

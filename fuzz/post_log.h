// A POST log block with an image out of the input in it, read by every call.
//
// Input: a byte of options, then the block's contents.
//   bit 0      checksums and magic number are put right first
//   bit 1      the block ends with the input; otherwise it has its whole size
//   bits 2, 3  which block, the last value standing for none
//   bits 4, 5  the size of the reader's buffer
#pragma once

#include "fuzz/support.h"

#include <device_access/post_log_nvram.h>

#include <string>

namespace fuzz
{

constexpr int post_block_size = 1600;

// A block table of small blocks; the diagnostic logs have three histories.
nvram_dev_info_t *fresh_post_table();

struct post_method {
    bool big_endian;
    void (*fill)(log_type_t blk, const std::string &image);
};

void use_post_log(const post_method &method, std::string_view input);

} // namespace fuzz

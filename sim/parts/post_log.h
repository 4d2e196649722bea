// POST logs as the firmware writes them into NVRAM. Records are put together here byte by byte, so
// that what the library reads has not been made by the library.
#pragma once

#include "sim/base/bytes.h"
#include "sim/parts/nodes.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace chassis_sim
{

// The three records of a block, with right checksums whatever their fields say.
std::string post_index(byte_order order, uint32_t header_index, uint32_t log_size,
                       uint32_t magic = 0x106F11E5);
std::string post_header(byte_order order, uint32_t log_size, uint32_t index, uint64_t start = 0,
                        uint32_t version = 1);
std::string post_entry_head(byte_order order, uint64_t seconds, uint64_t seconds_since_boot,
                            uint32_t entry_size);

struct post_entry {
    uint64_t seconds; // wall-clock time
    uint64_t seconds_since_boot;
    std::string message; // filled up with NULs to the block's message size
};

struct post_block {
    std::string name; // of the NVRAM block
    size_t size;
    size_t message_size;
    uint32_t current = 0; // the newest history
    std::vector<std::vector<post_entry>> histories;

    // The distance of histories, and where things lie. A block of one history has no index.
    uint32_t log_size() const;
    size_t header_position(size_t history) const;
    size_t entry_position(size_t history, size_t entry) const;

    std::string image(byte_order order) const;
};

// The logs of a chassis that has been started a few times: events, test results, errors.
std::vector<post_block> sample_post_logs();

// A block of NVRAM and what is in it.
struct nvram_image {
    std::string name;
    std::string contents;
};
std::vector<nvram_image> images(const std::vector<post_block> &blocks);

// Gives the chassis the logs as NVRAM blocks numbered from first_number on.
void add_post_logs(chassis_nodes &nodes, const std::vector<nvram_image> &blocks,
                   unsigned int first_number);
void add_post_logs(chassis_nodes &nodes, const std::vector<post_block> &blocks,
                   unsigned int first_number);

} // namespace chassis_sim

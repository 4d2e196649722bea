// The POD log in NVRAM: what differs from the other storages.
#pragma once

#include "pod_log_ring.h"
#include "unique_fd.h"

#include <cstdint>

#include <sys/types.h>

namespace device_access
{

class nvram_ring : public pod_log_ring<nvram_ring, podlog::nvram_log_index_t>
{
public:
    using index_t = podlog::nvram_log_index_t;

    static constexpr pod_log_traits traits = {
        .overhead = 100,
        .first_header = 48,
        .status_position = index_position,
        .name_limit = 40,
        .dumps_epoch = false,
        .announces_start = true,
        .reports_failed_dump = true,
        .init = "podlog_nvram_init",
        .get_log_hdr_pos = "nvram_get_log_hdr_pos",
        .get_curr_log_hdr_pos = "get_curr_log_hdr_pos",
        .read_dir = "podlog_nvram_read_dir",
        .dump_curr_log_msgs = "podlog_nvram_dump_curr_log_msgs",
        .dump_log_block_header = "nvram_dump_log_block_header",
    };

    explicit nvram_ring(int nvram_id);
    podlog::nvram_dev_info_t &row() const { return row_; }
    bool exists() const;

    int init(bool rdonly);
    void close();
    bool open_node(unique_fd &opened, bool rdonly);
    int mem_rd(int64_t position, void *data, uint32_t size);
    int mem_wr(int64_t position, const void *data, uint32_t size);

    static uint32_t magic();
    static void set_magic(uint32_t number);
    static void seal(index_t &index) { index.checksum = checksum_of(index); }
    static int current_history(const index_t &index);
    int64_t current_position(const index_t &index) const;
    uint32_t history_size(const index_t &) const;
    static void report_magic(const index_t &index);
    void report_unlocated(int history) const;
    static void report_unwritten_index();
    bool reset_beyond_log();

    // What the check of all headers can say. It says only the first two today.
    static constexpr int headers_good = 1;
    static constexpr int headers_bad = -1;
    static constexpr int headers_usable = 2;    // enough to guess the current history from
    static constexpr int headers_unusable = -3; // only a reset helps
    int verify_all_headers(const index_t &index);

    // The end of init, after that check: with a right index checksum, and with a wrong one.
    int accept(int headers);
    int recover(index_t index, int headers);

    // The history whose first entry is the newest; -1 on failure.
    static constexpr int no_history = -4;
    int find_latest_history(const index_t &index);

private:
    int check(bool rdonly);
    static void dump_block_index(const index_t &index);

    int id_;
    podlog::nvram_dev_info_t &row_;
};

} // namespace device_access

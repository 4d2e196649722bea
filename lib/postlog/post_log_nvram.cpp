// Walks the histories and entries of a POST log block, and prints them.
#include <device_access/post_log_nvram.h>

#include "lib/base/errors.h"
#include "lib/base/print.h"
#include "lib/postlog/access.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>

using namespace device_access;

namespace postlog
{
namespace
{

int histories_left;

//--- positions ------------------------------------------------------------------------------------

int post_get_curr_log_index(log_type_t blk)
{
    if (blk == OFWEVENT_LOG)
        return 0;
    nvram_log_index_t index;
    if (!read_index(blk, index) || index.magic != index_magic)
        return -1;
    return static_cast<int>(index.header_index);
}

int hdr_pos(const nvram_dev_info_t &row, const nvram_log_index_t &index, int i)
{
    const int64_t pos = int64_t{i} * index.log_size + int64_t{sizeof index};
    if (pos >= 0 && pos < row.mem_size)
        return static_cast<int>(pos);
    return REFUSE(
        print_error, -1,
        "post_get_log_hdr_pos: calcuated hdr position 0x%x exceeds to storage size! index "
        "log_size = 0x%x\n",
        static_cast<unsigned int>(pos), index.log_size);
}

int post_get_log_hdr_pos(log_type_t blk, int i)
{
    const nvram_dev_info_t &row = row_of(blk);
    const bool has_index = blk != OFWEVENT_LOG;
    if (!has_index && i == 0)
        return 0;
    nvram_log_index_t index;
    if (has_index && !read_index(blk, index))
        return -1;
    if (!has_index || i >= row.num_subblock) {
        return REFUSE(print_error, -1, "ERROR: %s: invalid index %d; must less than %d!\n",
                      __func__, i, row.num_subblock);
    }
    if (index.magic != index_magic)
        return REFUSE(print_output, -1, "ERROR: %s: invalid magic number 0x%x!\n", __func__,
                      index.magic);
    return hdr_pos(row, index, i);
}

int post_check_hdr(log_type_t blk, int i)
{
    const int h = post_get_log_hdr_pos(blk, i);
    nvram_log_header_t header;
    if (h == -1 || !read_header(blk, h, header))
        return -1;
    return is_valid(header) ? 1 : 0;
}

void report_unread_entry(const nvram_dev_info_t &row, const nvram_log_header_t &header,
                         unsigned int first, unsigned int pos, const char *routine)
{
    print_error("%s: faild to read log structure at position 0x%x", routine, pos);
    print_error("%s: hdr struct: OFW base = %llx  start addr/offset=%llx/0x%x index =0x%x log "
                "pos = 0x%x\n",
                routine, static_cast<unsigned long long>(row.ofw_base),
                static_cast<unsigned long long>(header.start), first, header.index, pos);
}

int post_get_log_pos(log_type_t blk, int i, int k)
{
    const nvram_dev_info_t &row = row_of(blk);
    const int h = post_get_log_hdr_pos(blk, i);
    if (h == -1)
        return REFUSE(print_error, -1,
                      "post_get_log_pos: failed to get hdr postition. subblock=%d log=%d\n", i, k);
    nvram_log_header_t header;
    if (!read_header(blk, h, header))
        return REFUSE(print_error, -1, "post_get_log_pos: subblock=%d log=%d hdr position = 0x%x\n",
                      i, k, static_cast<unsigned int>(h));
    if (!is_valid(header) || header.index == 0)
        return 0;
    const int64_t first = int64_t{h} + int64_t{sizeof header};
    const int64_t pos = first + k * (int64_t{row.msg_size} + int64_t{sizeof(nvram_log_t)});
    if (pos >= first + header.index)
        return REFUSE(print_error, -1, "ERROR %s: log postion exceeds the last one!\n", __func__);
    nvram_log_t entry;
    if (!read_entry(blk, pos, entry)) {
        report_unread_entry(row, header, static_cast<unsigned int>(first),
                            static_cast<unsigned int>(pos), __func__);
        return -1;
    }
    return is_valid(entry) ? static_cast<int>(pos) : 0;
}

int previous_history(log_type_t blk, int history)
{
    return history > 0 ? history - 1 : std::max(row_of(blk).num_subblock, 1) - 1;
}

// The newest history that has entries, from this one backwards; -2 when all are empty.
int newest_history(log_type_t blk, int history, const char *routine)
{
    for (histories_left = row_of(blk).num_subblock; histories_left > 0; --histories_left) {
        const int lg_pos = post_get_log_pos(blk, history, 0);
        if (lg_pos == -1)
            return REFUSE(print_error, -1, "ERROR %s: failed to get log position!\n", routine);
        if (lg_pos < 0)
            return REFUSE(print_error, -1, "ERROR %s: invalid lg_pos value 0x%x!\n", routine,
                          static_cast<unsigned int>(lg_pos));
        if (lg_pos > 0)
            return history;
        history = previous_history(blk, history);
    }
    return -2;
}

//--- entries --------------------------------------------------------------------------------------

// Steps to the entry after this one.
bool read_next_entry(log_type_t blk, int64_t &pos, nvram_log_t &entry)
{
    pos += int64_t{sizeof entry} + entry.entry_size;
    return read_entry(blk, pos, entry) && pos <= INT_MAX;
}

time_t timestamp(const nvram_log_t &entry)
{
    return static_cast<time_t>(static_cast<uint32_t>(entry.time.tv_sec));
}

void print_times(const nvram_log_t &entry)
{
    const time_t time = timestamp(entry);
    char text[26];
    print_output("   epoch time (since boot): %ld seconds.",
                 static_cast<long>(entry.epoch_time.tv_sec));
    print_output("  timestamp: %s     msg = ", ::ctime_r(&time, text));
}

// Prints an entry, reading its message piece by piece, because the size that it states may be
// anything. False when a piece cannot be read.
bool dump_entry(log_type_t blk, int64_t pos, const nvram_log_t &entry)
{
    constexpr uint32_t piece_size = 4096;
    const uint32_t block_size = static_cast<uint32_t>(std::max(row_of(blk).mem_size, 0));
    const uint32_t size = std::min(entry.entry_size, std::max(block_size, piece_size));
    uint32_t done = 0;
    do {
        char piece[piece_size] = {};
        const uint32_t wanted = std::min(size - done, piece_size);
        const int got = post_nvram_mem_rd(blk, offset_of(pos + int64_t{sizeof entry} + done),
                                          reinterpret_cast<uint8_t *>(piece), wanted);
        if (got < 1)
            return false;
        if (done == 0)
            print_times(entry);
        const size_t length = ::strnlen(piece, std::min(static_cast<uint32_t>(got), wanted));
        print_output("%.*s", static_cast<int>(length), piece);
        if (length < piece_size)
            break;
        done += piece_size;
    } while (done < size);
    print_output("\n\n");
    return true;
}

int dump_histories(log_type_t blk)
{
    int history = post_get_curr_log_index(blk);
    for (int left = row_of(blk).num_subblock; left > 0; --left) {
        const int pos = post_get_log_pos(blk, history, 0);
        if (pos < 0)
            return -1;
        print_output("-------- history/subblock = %d --------\n", history);
        if (pos > 0 && postlog_nvram_dump_log_msgs(blk, history) == -1)
            return -1;
        history = previous_history(blk, history);
    }
    return 1;
}

} // namespace

//--- histories ------------------------------------------------------------------------------------

int postlog_nvram_open_dir(log_type_t blk)
{
    if (postlog_nvram_init(blk) != 1)
        return REFUSE(print_output, -1, "%s: cannot open device!!\n", __func__);
    int history = post_get_curr_log_index(blk);
    if (history == -1)
        return REFUSE(print_output, close_with(blk, -1), "%s: cannot get curr log index!!\n",
                      __func__);
    const int histories = row_of(blk).num_subblock;
    if (history < 0 || history >= histories)
        return REFUSE(print_output, close_with(blk, -1),
                      "%s: invalid subblock # %d!! must be smaller than %d\n", __func__, history,
                      histories);
    if (post_check_hdr(blk, history) == 0)
        return REFUSE(print_error, close_with(blk, -2), "ERROR %s: check header failed!\n",
                      __func__);
    const int newest = newest_history(blk, history, __func__);
    return newest < 0 ? close_with(blk, newest) : newest;
}

int postlog_nvram_read_dir(log_type_t blk, int log_num, time_t *ts)
{
    int lg_pos = post_get_log_pos(blk, log_num, 0);
    if (lg_pos == -1)
        return REFUSE(print_error, -1, "ERROR: %s: failed to get lg position!\n", __func__);
    if (lg_pos == 0)
        *ts = 0;
    if (lg_pos > 0) {
        nvram_log_t entry;
        if (!read_entry(blk, lg_pos, entry))
            return REFUSE(print_output, -1, "%s: failed to read log from position 0x%x\n", __func__,
                          static_cast<unsigned int>(lg_pos));
        if (!is_valid(entry))
            return REFUSE(print_error, -1, "ERROR: %s: invalid LOG entry!\n", __func__);
        *ts = timestamp(entry);
    }
    do {
        histories_left = std::max(histories_left - 1, 0);
        if (histories_left < 1)
            return -2;
        log_num = previous_history(blk, log_num);
        lg_pos = post_get_log_pos(blk, log_num, 0);
    } while (lg_pos == 0);
    return lg_pos < 0 ? -1 : log_num;
}

int postlog_nvram_close_dir(log_type_t blk)
{
    return close_with(blk, 1);
}

int post_get_curr_log_hdr_pos(log_type_t blk)
{
    if (blk == OFWEVENT_LOG)
        return 0;
    const nvram_dev_info_t &row = row_of(blk);
    nvram_log_index_t index;
    if (!read_index(blk, index))
        return -1;
    if (int64_t{index.header_index} >= row.num_subblock) {
        return REFUSE(print_output, -1,
                      "post_get_log_hdr_pos: index 0x%x exceeds the maximum 0x%x! ",
                      index.header_index, index.log_size);
    }
    if (index.magic != index_magic)
        return REFUSE(print_error, -1, "ERROR: %s: invalid magic number 0x%x!\n", __func__,
                      index.magic);
    return hdr_pos(row, index, static_cast<int>(index.header_index));
}

int post_get_nxt_log_pos(log_type_t blk)
{
    const int h = post_get_curr_log_hdr_pos(blk);
    nvram_log_header_t header;
    if (h == -1 || !read_header(blk, h, header) || !is_valid(header))
        return -1;
    const uint64_t used = uint64_t{header.log_size} * header.index;
    const uint64_t before = static_cast<uint64_t>(h) + sizeof header;
    return used > INT_MAX || used + before > INT_MAX ? -1 : static_cast<int>(used + before);
}

//--- entries --------------------------------------------------------------------------------------

int postlog_nvram_open_log(log_type_t blk, int log_num)
{
    if (postlog_nvram_init(blk) != 1)
        return -1;
    const int lg_pos = post_get_log_pos(blk, log_num, 0);
    nvram_log_t entry;
    if (lg_pos != 0 && lg_pos != -1 && read_entry(blk, lg_pos, entry) && is_valid(entry))
        return lg_pos;
    return close_with(blk, -1);
}

int postlog_nvram_read_log(log_type_t blk, int offset, time_t *ts, char *msg, uint32_t buf_size)
{
    nvram_log_t entry;
    if (!read_entry(blk, offset, entry) || !is_valid(entry))
        return -1;
    const int64_t msg_pos = int64_t{offset} + int64_t{sizeof entry};
    if (post_nvram_mem_rd(blk, offset_of(msg_pos), reinterpret_cast<uint8_t *>(msg),
                          std::min(buf_size, entry.entry_size)) < 1)
        return -1;
    *ts = timestamp(entry);
    int64_t next = offset;
    if (!read_next_entry(blk, next, entry))
        return -1;
    return is_valid(entry) ? static_cast<int>(next) : -2;
}

int postlog_nvram_close_log(log_type_t blk, int /*log_num*/)
{
    return close_with(blk, 1);
}

//--- dumps ----------------------------------------------------------------------------------------

int postlog_nvram_dump_log_msgs(log_type_t blk, int log_num)
{
    const int lg_pos = post_get_log_pos(blk, log_num, 0);
    if (lg_pos == 0)
        return 1;
    nvram_log_t entry;
    if (lg_pos == -1 || !read_entry(blk, lg_pos, entry))
        return -1;
    int64_t pos = lg_pos;
    while (is_valid(entry)) {
        if (!dump_entry(blk, pos, entry) || !read_next_entry(blk, pos, entry))
            return -1;
    }
    return 1;
}

int postlog_nvram_dump_curr_log_msgs(log_type_t blk)
{
    const int history = row_of(blk).num_subblock < 2 ? 0 : post_get_curr_log_index(blk);
    print_output("postlog_nvram_dump_curr_log_msgs: curr log =%d \n", history);
    return postlog_nvram_dump_log_msgs(blk, history);
}

int postlog_nvram_dump_all_log_msgs(log_type_t blk)
{
    if (postlog_nvram_init(blk) != 1)
        return -1;
    return close_with(blk, dump_histories(blk));
}

void post_dump_log_block_header(nvram_log_header_t *hp)
{
    print_output("post_dump_log_block_header: \n");
    print_output("\theader checksum = 0x%x \n\t log size = 0x%x \n\t index = 0x%x\n\t version = "
                 "0x%x \n\t start addr = 0x%lx\n",
                 hp->header_checksum, hp->log_size, hp->index, hp->version,
                 static_cast<unsigned long>(static_cast<uint32_t>(hp->start)));
}

} // namespace postlog

#include <device_access/post_log_nvram.h>

#include "internal/errno_guard.h"
#include "internal/nvram_block.h"
#include "internal/post_log_records.h"
#include "internal/print.h"
#include "internal/unique_fd.h"

#include <device_access/pod_log_crc_tmp.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

using device_access::errno_guard;
using device_access::find_nvram_block;
using device_access::make_nvram_node;
using device_access::nvram_attr_path;
using device_access::open_nvram_exclusively;
using device_access::print_error;
using device_access::print_output;
using device_access::read_nvram_attr;
using device_access::read_nvram_device_number;
using device_access::unique_fd;

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

namespace
{

constexpr uint32_t index_magic = 0x106F11E5;

struct nvram_access_t {
    nvram_init_fp init;
    nvram_mem_rd_fp rd;
    nvram_close_fp close;
    nvram_rd_log_index_fp rd_log_index;
    nvram_rd_log_header_fp rd_log_header;
    nvram_rd_log_fp rd_log;
    nvram_validate_log_header validate_log_header;
    nvram_validate_log_entry validate_log_entry;
};

nvram_dev_info_t def_dev_info[] = {
    {"/dev/nvlog-ofw-event", "nvlog-ofw-event", 0, 8192, 1, 128, 0xFFFFFFE0, 0, -1, 0xF0004000},
    {"/dev/nvlog-diag-test", "nvlog-diag-test", 0, 16384, 10, 32, 0xFFFFFFE0, 0, -1, 0xF0006000},
    {"/dev/nvlog-diag-error", "nvlog-diag-error", 0, 32768, 10, 128, 0xFFFFFFE0, 0, -1, 0xF000A000},
};

nvram_dev_info_t *dev_info = def_dev_info;
nvram_access_t nvram_access;
unsigned int use_cnt;
int _hist_left_cnt;

nvram_dev_info_t &row_of(log_type_t blk)
{
    return block_row(dev_info, blk);
}

// The close function may be a client's: it must not hide why a step failed.
int close_with(log_type_t blk, int result)
{
    const errno_guard keep;
    postlog_nvram_close(blk);
    return result;
}

// A field of the table as text.
template <size_t size>
struct terminated {
    explicit terminated(const char (&field)[size])
    {
        std::memcpy(str, field, size);
        str[size] = '\0';
    }
    char str[size + 1];
};

//--- device files ---------------------------------------------------------------------------------

bool postlog_nvram_open_dev_file(log_type_t blk, unique_fd &nvram_fd)
{
    const nvram_dev_info_t &row = row_of(blk);
    const terminated path(row.path);
    nvram_fd = open_nvram_exclusively(path.str, O_RDONLY, 10);
    if (nvram_fd)
        return true;
    const int n = find_nvram_block(terminated(row.name).str).found;
    dev_t number;
    if (n == -1 || !read_nvram_device_number(n, number) || !make_nvram_node(path.str, number))
        return false;
    nvram_fd.reset(::open(path.str, O_RDONLY));
    if (!nvram_fd)
        print_error("ERROR: cannot open newly created dev file %s!\n", path.str);
    return static_cast<bool>(nvram_fd);
}

// The names in these messages stand in the wrong order; that is how they have always read.
int postlog_nvram_find_blk_properties(log_type_t blk)
{
    nvram_dev_info_t &row = row_of(blk);
    const terminated name(row.name);
    const int n = find_nvram_block(name.str).found;
    if (n == -1) {
        print_error("ERROR: %s: cannot find nvram block named %s!\n", name.str, __func__);
        return -1;
    }
    const nvram_attr_path base_path(n, "baseaddr");
    const nvram_attr_path size_path(n, "size");
    const nvram_attr_path mode_path(n, "mode");
    char base_text[11];
    char size_text[8];
    char mode_text[3];
    if (!read_nvram_attr(base_path, base_text, sizeof base_text)) {
        print_error("ERROR: %s: failed to read base address from %s!\n", base_path.str, __func__);
        return -1;
    }
    if (!read_nvram_attr(size_path, size_text, sizeof size_text)) {
        print_error("ERROR: %s: failed to read size from %s!\n", size_path.str, __func__);
        return -1;
    }
    if (!read_nvram_attr(mode_path, mode_text, sizeof mode_text)) {
        print_error("ERROR: %s: failed to read access attribute from %s!\n", mode_path.str,
                    __func__);
        return -1;
    }
    unsigned int base = row.ofw_base;
    unsigned int size = static_cast<unsigned int>(row.mem_size);
    std::sscanf(base_text, "%x", &base);
    std::sscanf(size_text, "%x", &size);
    row.ofw_base = base;
    row.mem_size = static_cast<int>(size);
    row.attr = std::strcmp(mode_text, "rw") == 0 ? 2 : 0;
    return 1;
}

int subblock_size(const nvram_dev_info_t &row)
{
    if (row.num_subblock == 0)
        return 0;
    const int64_t size = int64_t{row.mem_size} / row.num_subblock;
    return static_cast<int>(static_cast<uint32_t>(size) & row.log_align_msk);
}

void post_nvram_dump_block_index(const nvram_log_index_t &index)
{
    print_output("post_nvram_dump_block_index: ");
    print_output("\t  magic number = 0x%x \n\t header index = 0x%x\t size = 0x%x \n\t\n",
                 index.magic, index.header_index, index.log_size);
}

// The record readers close the block when they fail; without one, nobody has.
int closed_after_failed_read(log_type_t blk)
{
    return row_of(blk).fd == -1 ? -1 : close_with(blk, -1);
}

template <typename Record>
bool read_record(log_type_t blk, uint32_t offset, Record *record)
{
    return post_nvram_mem_rd(blk, offset, reinterpret_cast<uint8_t *>(record), sizeof *record) > 0;
}

template <typename Record>
int read_leading_record(log_type_t blk, uint32_t offset, Record *record, const char *routine)
{
    if (read_record(blk, offset, record))
        return 1;
    print_error("ERROR %s: cannot read from the device file!\n", routine);
    return close_with(blk, -1);
}

//--- positions ------------------------------------------------------------------------------------

// Without a function to check them, records count as valid.
bool is_valid(nvram_log_header_t &header)
{
    return postlog_validate_log_header(&header) != 0;
}

bool is_valid(nvram_log_t &entry)
{
    return postlog_validate_log_entry(&entry) != 0;
}

// Positions travel as int. One beyond its range lies behind every block, so reading there fails as
// reading behind the end does.
uint32_t offset_of(int64_t pos)
{
    return pos > INT_MAX ? UINT32_MAX : static_cast<uint32_t>(pos);
}

bool read_entry(log_type_t blk, int64_t pos, nvram_log_t &entry)
{
    entry = {};
    return postlog_rd_log(blk, offset_of(pos), &entry) == 1;
}

bool read_index(log_type_t blk, nvram_log_index_t &index)
{
    index = {};
    return postlog_rd_log_index(blk, 0, &index) == 1;
}

bool read_header(log_type_t blk, int pos, nvram_log_header_t &header)
{
    header = {};
    return postlog_rd_log_header(blk, static_cast<uint32_t>(pos), &header) == 1;
}

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
    print_error("post_get_log_hdr_pos: calcuated hdr position 0x%x exceeds to storage size! index "
                "log_size = 0x%x\n",
                static_cast<unsigned int>(pos), index.log_size);
    return -1;
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
        print_error("ERROR: %s: invalid index %d; must less than %d!\n", __func__, i,
                    row.num_subblock);
        return -1;
    }
    if (index.magic != index_magic) {
        print_output("ERROR: %s: invalid magic number 0x%x!\n", __func__, index.magic);
        return -1;
    }
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

int post_get_log_pos(log_type_t blk, int i, int k)
{
    const nvram_dev_info_t &row = row_of(blk);
    const int h = post_get_log_hdr_pos(blk, i);
    if (h == -1) {
        print_error("post_get_log_pos: failed to get hdr postition. subblock=%d log=%d\n", i, k);
        return -1;
    }
    nvram_log_header_t header;
    if (!read_header(blk, h, header)) {
        print_error("post_get_log_pos: subblock=%d log=%d hdr position = 0x%x\n", i, k,
                    static_cast<unsigned int>(h));
        return -1;
    }
    if (!is_valid(header) || header.index == 0)
        return 0;
    const int64_t first = int64_t{h} + int64_t{sizeof header};
    const int64_t pos = first + k * (int64_t{row.msg_size} + int64_t{sizeof(nvram_log_t)});
    if (pos >= first + header.index) {
        print_error("ERROR %s: log postion exceeds the last one!\n", __func__);
        return -1;
    }
    nvram_log_t entry;
    if (!read_entry(blk, pos, entry)) {
        const unsigned int at = static_cast<unsigned int>(pos);
        print_error("%s: faild to read log structure at position 0x%x", __func__, at);
        print_error("%s: hdr struct: OFW base = %llx  start addr/offset=%llx/0x%x index =0x%x log "
                    "pos = 0x%x\n",
                    __func__, static_cast<unsigned long long>(row.ofw_base),
                    static_cast<unsigned long long>(header.start), static_cast<unsigned int>(first),
                    header.index, at);
        return -1;
    }
    return is_valid(entry) ? static_cast<int>(pos) : 0;
}

int previous_history(log_type_t blk, int history)
{
    return history > 0 ? history - 1 : std::max(row_of(blk).num_subblock, 1) - 1;
}

//--- entries --------------------------------------------------------------------------------------

// Steps to the entry behind this one.
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

//--- shared by the access methods -----------------------------------------------------------------

nvram_dev_info_t &block_row(nvram_dev_info_t *table, log_type_t blk)
{
    static nvram_dev_info_t no_block = {"", "", 0, 0, 0, 0, 0, 0, -1, 0};
    const bool has_row = table && blk >= OFWEVENT_LOG && blk <= OFWDIAG_ERROR_LOG;
    return has_row ? table[blk] : no_block;
}

uint32_t header_checksum(const nvram_log_header_t &stored)
{
    constexpr size_t behind = sizeof stored.header_checksum;
    return crc32_cksum(reinterpret_cast<const uint8_t *>(&stored) + behind, sizeof stored - behind);
}

uint32_t entry_checksum(nvram_log_t stored)
{
    stored.log_checksum = 0;
    return crc32_cksum(&stored, sizeof stored);
}

bool is_header_initialized(nvram_log_header_t &header, const char *routine)
{
    if (is_valid(header))
        return true;
    print_error("ERROR: %s : header structure not initialized! cannot open for reading!!\n",
                routine);
    return false;
}

bool is_index_initialized(const nvram_log_index_t &index)
{
    if (index.magic == index_magic)
        return true;
    print_error("ERROR: postlog_dev_file_nvram_init: magic number not initialized! cannot open for "
                "reading!!\n");
    print_error("magic number: read = 0x%x expect = 0x%x\n", index.magic, index_magic);
    return false;
}

//--- access ---------------------------------------------------------------------------------------

void postlog_map_nvram_access(nvram_dev_info_t *nvram_dev_info, nvram_init_fp init,
                              nvram_mem_rd_fp rd, nvram_close_fp close,
                              nvram_rd_log_index_fp rd_log_index,
                              nvram_rd_log_header_fp rd_log_header, nvram_rd_log_fp rd_log,
                              nvram_validate_log_header validate_log_header,
                              nvram_validate_log_entry validate_log_entry)
{
    dev_info = nvram_dev_info;
    nvram_access = {init,
                    rd,
                    close,
                    rd_log_index,
                    rd_log_header,
                    rd_log,
                    validate_log_header,
                    validate_log_entry};
}

void postlog_map_def_nvram_access(void)
{
    postlog_map_nvram_access(def_dev_info, postlog_dev_file_nvram_init, post_dev_file_nvram_mem_rd,
                             postlog_dev_file_nvram_close, postlog_dev_rd_log_index,
                             postlog_dev_rd_log_header, postlog_dev_rd_log,
                             postlog_dev_validate_log_header, postlog_dev_validate_log_entry);
}

int postlog_nvram_init(log_type_t blk)
{
    if (nvram_access.init)
        return nvram_access.init(blk);
    print_error("ERROR: %s: no actual nvram 'init' function mapped!\n", __func__);
    return -1;
}

int post_nvram_mem_rd(log_type_t blk, uint32_t offset, uint8_t *buffer, uint32_t num_byte)
{
    if (nvram_access.rd)
        return nvram_access.rd(blk, offset, buffer, num_byte);
    print_error("ERROR: %s: no actual nvram 'read' function mapped!\n", __func__);
    return 0;
}

void postlog_nvram_close(log_type_t blk)
{
    if (nvram_access.close)
        nvram_access.close(blk);
    else
        print_error("ERROR: %s: no actual nvram 'close' function mapped!\n", __func__);
}

namespace
{

// Calls a mapped function on a record.
template <typename... Parameters>
int access_record(int (*mapped)(Parameters...), const char *routine, Parameters... arguments)
{
    if (mapped)
        return mapped(arguments...);
    print_error("ERROR: %s: no actual nvram access function mapped!\n", routine);
    return -1;
}

} // namespace

int postlog_rd_log_index(log_type_t blk, uint32_t offset, nvram_log_index_t *blk_index)
{
    return access_record(nvram_access.rd_log_index, __func__, blk, offset, blk_index);
}

int postlog_rd_log_header(log_type_t blk, uint32_t offset, nvram_log_header_t *blk_hdr)
{
    return access_record(nvram_access.rd_log_header, __func__, blk, offset, blk_hdr);
}

int postlog_rd_log(log_type_t blk, uint32_t offset, nvram_log_t *msg_hdr)
{
    return access_record(nvram_access.rd_log, __func__, blk, offset, msg_hdr);
}

int postlog_validate_log_header(nvram_log_header_t *nvloghp)
{
    return access_record(nvram_access.validate_log_header, __func__, nvloghp);
}

int postlog_validate_log_entry(nvram_log_t *lg)
{
    return access_record(nvram_access.validate_log_entry, __func__, lg);
}

//--- access through device files ------------------------------------------------------------------

int postlog_dev_file_nvram_init(log_type_t blk)
{
    ++use_cnt;
    nvram_dev_info_t &row = row_of(blk);
    if (row.fd != -1) {
        print_error("ERROR: %s: current device is currently opened already!\n", __func__);
        return -1;
    }
    unique_fd opened;
    if (!postlog_nvram_open_dev_file(blk, opened)) {
        print_error("ERROR %s: cannot open the device file!\n", __func__);
        return -1;
    }
    if (postlog_nvram_find_blk_properties(blk) == -1)
        print_output("WARNING: failed to read NVRAM info. use default value.\n");
    row.fd = opened.release();
    row.subblock_size = subblock_size(row);

    if (row.num_subblock < 2) {
        nvram_log_header_t header;
        if (!read_header(blk, 0, header))
            return closed_after_failed_read(blk);
        return is_header_initialized(header, __func__) ? 1 : close_with(blk, -1);
    }
    nvram_log_index_t index;
    if (!read_index(blk, index))
        return closed_after_failed_read(blk);
    if (is_index_initialized(index))
        return 1;
    post_nvram_dump_block_index(index);
    return close_with(blk, -1);
}

int post_dev_file_nvram_mem_rd(log_type_t blk, uint32_t offset, uint8_t *buffer, uint32_t num_byte)
{
    const int fd = row_of(blk).fd;
    if (fd == -1) {
        print_error("ERROR: post_nvram_mem_rd: cannot access device!\n");
        return 0;
    }
    const ssize_t length = ::pread(fd, buffer, num_byte, static_cast<off_t>(offset));
    if (length < 1) {
        print_error("ERROR: post_nvram_mem_rd: cannot read or reach eof!! range=0x%x-0x%x\n",
                    offset, offset + num_byte - 1);
        return 0;
    }
    return static_cast<int>(length);
}

void postlog_dev_file_nvram_close(log_type_t blk)
{
    --use_cnt;
    nvram_dev_info_t &row = row_of(blk);
    const unique_fd closing(row.fd);
    row.fd = -1;
}

int postlog_dev_rd_log_index(log_type_t blk, uint32_t offset, nvram_log_index_t *blk_index)
{
    return read_leading_record(blk, offset, blk_index, __func__);
}

int postlog_dev_rd_log_header(log_type_t blk, uint32_t offset, nvram_log_header_t *blk_hdr)
{
    return read_leading_record(blk, offset, blk_hdr, __func__);
}

int postlog_dev_rd_log(log_type_t blk, uint32_t offset, nvram_log_t *msg_hdr)
{
    if (read_record(blk, offset, msg_hdr))
        return 1;
    print_error("ERROR %s: cannot read from the device file! offset = 0x%x\n", __func__, offset);
    return close_with(blk, -1);
}

int postlog_dev_validate_log_header(nvram_log_header_t *nvloghp)
{
    return nvloghp->header_checksum == header_checksum(*nvloghp);
}

int postlog_dev_validate_log_entry(nvram_log_t *lg)
{
    return lg->log_checksum == entry_checksum(*lg);
}

//--- histories ------------------------------------------------------------------------------------

int postlog_nvram_open_dir(log_type_t blk)
{
    if (postlog_nvram_init(blk) != 1) {
        print_output("%s: cannot open device!!\n", __func__);
        return -1;
    }
    int history = post_get_curr_log_index(blk);
    if (history == -1) {
        print_output("%s: cannot get curr log index!!\n", __func__);
        return close_with(blk, -1);
    }
    const int histories = row_of(blk).num_subblock;
    if (history < 0 || history >= histories) {
        print_output("%s: invalid subblock # %d!! must be smaller than %d\n", __func__, history,
                     histories);
        return close_with(blk, -1);
    }
    if (post_check_hdr(blk, history) == 0) {
        print_error("ERROR %s: check header failed!\n", __func__);
        return close_with(blk, -2);
    }
    for (_hist_left_cnt = histories; _hist_left_cnt > 0; --_hist_left_cnt) {
        const int lg_pos = post_get_log_pos(blk, history, 0);
        if (lg_pos == -1) {
            print_error("ERROR %s: failed to get log position!\n", __func__);
            return close_with(blk, -1);
        }
        if (lg_pos < 0) {
            print_error("ERROR %s: invalid lg_pos value 0x%x!\n", __func__,
                        static_cast<unsigned int>(lg_pos));
            return close_with(blk, -1);
        }
        if (lg_pos > 0)
            return history;
        history = previous_history(blk, history);
    }
    return close_with(blk, -2);
}

int postlog_nvram_read_dir(log_type_t blk, int log_num, time_t *ts)
{
    int lg_pos = post_get_log_pos(blk, log_num, 0);
    if (lg_pos == -1) {
        print_error("ERROR: %s: failed to get lg position!\n", __func__);
        return -1;
    }
    if (lg_pos == 0)
        *ts = 0;
    if (lg_pos > 0) {
        nvram_log_t entry;
        if (!read_entry(blk, lg_pos, entry)) {
            print_output("%s: failed to read log from position 0x%x\n", __func__,
                         static_cast<unsigned int>(lg_pos));
            return -1;
        }
        if (!is_valid(entry)) {
            print_error("ERROR: %s: invalid LOG entry!\n", __func__);
            return -1;
        }
        *ts = timestamp(entry);
    }
    do {
        _hist_left_cnt = std::max(_hist_left_cnt - 1, 0);
        if (_hist_left_cnt < 1)
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
        print_output("post_get_log_hdr_pos: index 0x%x exceeds the maximum 0x%x! ",
                     index.header_index, index.log_size);
        return -1;
    }
    if (index.magic != index_magic) {
        print_error("ERROR: %s: invalid magic number 0x%x!\n", __func__, index.magic);
        return -1;
    }
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

#include <device_access/pod_log_nvram.h>

#include "internal/nvram_block.h"
#include "internal/pod_log_nvram_ring.h"

#include <algorithm>
#include <cerrno>
#include <iterator>

#include <fcntl.h>
#include <unistd.h>

namespace podlog
{

nvram_dev_info_t _nvram_dev_info[2] = {
    {
        .name = "/dev/nvlog-pod",
        .attr = 2,
        .mem_size = 16384,
        .num_subblock = 10,
        .msg_size = 64,
        .log_align_msk = 0xFFFFFFE0,
        .subblock_size = 0,
        .fd = -1,
        .pod_status_pos = 16384 - 72,
        .pod_faultinject_pos = 16384 - 40,
        .inst_map =
            {
                .num_inst = 8,
                .index0 = {22, 23, 24, 25, 26, 27, 20, 21},
                .index1 = {-1, -1, -1, -1, -1, -1, -1, -1},
                .name0 = {"ALSW1", "ALSW2", "SW1", "SW2", "SW3", "SW4", "RPSW1", "RPSW2"},
                .name1 = {},
            },
    },
    {
        .name = "",
        .attr = 2,
        .mem_size = 16384,
        .num_subblock = 10,
        .msg_size = 64,
        .log_align_msk = 0xFFFFFFE0,
        .subblock_size = 0,
        .fd = -1,
        .pod_status_pos = 16384 - 72,
        .pod_faultinject_pos = 16384 - 40,
        .inst_map = {},
    },
};

} // namespace podlog

namespace device_access
{
namespace
{

constexpr int open_attempts = 20;

uint32_t _magic_num = 0x1FE2C365;
int _use_cnt = 0; // its address names this instance of the library in messages

// Stands for every id without device.
podlog::nvram_dev_info_t nowhere = {
    .name = "",
    .attr = 0,
    .mem_size = 0,
    .num_subblock = 0,
    .msg_size = 0,
    .log_align_msk = 0,
    .subblock_size = 0,
    .fd = -1,
    .pod_status_pos = -1,
    .pod_faultinject_pos = -1,
    .inst_map = {},
};

podlog::nvram_dev_info_t &row_of(int nvram_id)
{
    const bool known = nvram_id >= 0 && nvram_id < static_cast<int>(std::size(_nvram_dev_info));
    return known ? _nvram_dev_info[nvram_id] : nowhere;
}

// Any size may be configured.
int before_end(int mem_size, unsigned int distance)
{
    return static_cast<int>(static_cast<unsigned int>(mem_size) - distance);
}

bool find_device_number(dev_t &number)
{
    const nvram_search search = find_nvram_block("nvlog-pod");
    if (search.found >= 0 && read_nvram_device_number(search.found, number))
        return true;
    if (search.missing >= 0)
        print_output(" No nvram%d dev file!\n", search.missing);
    print_error(" ERROR: fail to find major/minor number\n");
    return false;
}

} // namespace

nvram_ring::nvram_ring(int nvram_id) : id_(nvram_id), row_(row_of(nvram_id)) {}

bool nvram_ring::exists() const
{
    return &row_ != &nowhere;
}

//--- the device -----------------------------------------------------------------------------------

bool nvram_ring::open_node(unique_fd &opened, bool rdonly)
{
    const int access_mode = rdonly ? O_RDONLY : O_RDWR;
    const pod_device_path path(row_.name);
    opened = open_nvram_exclusively(path.str, access_mode, open_attempts);
    if (opened.get() > 0)
        return true;
    opened.reset();
    dev_t number;
    if (!find_device_number(number) || !make_nvram_node(path.str, number))
        return false;
    opened.reset(::open(path.str, access_mode | O_CLOEXEC));
    if (!opened && errno != EBUSY)
        print_error(
            rdonly ? "ERROR: instance(%p) cannot open newly created dev file %s for read-only!\n"
                   : "ERROR: instance(%p) cannot open newly created dev file %s for read-write!\n",
            static_cast<void *>(&_use_cnt), path.str);
    return static_cast<bool>(opened);
}

void nvram_ring::close()
{
    --_use_cnt;
    if (row_.fd == -1) {
        print_output("podlog_nvram_close: instance(%p) already closed previously! \n",
                     static_cast<void *>(&_use_cnt));
        return;
    }
    const unique_fd closing(row_.fd);
    row_.fd = -1;
}

int nvram_ring::mem_rd(int64_t position, void *data, uint32_t size)
{
    if (row_.fd == -1) {
        print_error("ERROR: pod_nvram_mem_rd: nvram %d: cannot access device!\n", id_);
        return 0;
    }
    const ssize_t length = ::pread(row_.fd, data, size, position);
    if (length < 1) {
        const uint32_t first = static_cast<uint32_t>(position);
        print_error("ERROR: pod_nvram_mem_rd: cannot read or reach eof!! range=0x%x-0x%x\n", first,
                    first + size - 1);
        return 0;
    }
    return static_cast<int>(length);
}

int nvram_ring::mem_wr(int64_t position, const void *data, uint32_t size)
{
    if (row_.fd == -1) {
        print_error("ERROR: pod_nvram_mem_wr: cannot access device %d!\n", id_);
        return 0;
    }
    const ssize_t length = ::pwrite(row_.fd, data, size, position);
    if (length < 1) {
        print_error("ERROR: pod_nvram_mem_wr: cannot write %d bytes to 0x%x!!\n",
                    static_cast<int>(size), static_cast<uint32_t>(position));
        return 0;
    }
    return static_cast<int>(length);
}

//--- opening and checking -------------------------------------------------------------------------

int nvram_ring::init(bool rdonly)
{
    ++_use_cnt;
    if (!exists())
        return -1;
    if (row_.fd != -1) {
        print_error("ERROR: %s: nvram %d current device is currently opened already!\n",
                    traits.init, id_);
        return -1;
    }
    unique_fd opened;
    if (!open_node(opened, rdonly))
        return -1;
    row_.fd = opened.release();
    compute_subblock_size();
    const int result = check(rdonly);
    if (result != 1)
        close();
    return result;
}

int nvram_ring::check(bool rdonly)
{
    static constexpr char crc_difference[] = "CRC: read = 0x%x expect = 0x%x\n";
    index_t index;
    if (!load(index)) {
        print_error("ERROR: canot read magic number for NVRAM!\n");
        return -1;
    }
    const uint32_t expected = checksum_of(index);
    if (index.checksum == expected)
        return accept(verify_all_headers(index));
    dump_block_index(index);
    if (rdonly) {
        print_error("ERROR: podlog_nvram_init: checksum incorrect! cannot open for reading!!\n");
        print_error(crc_difference, index.checksum, expected);
        print_error("Can not perform best guess for read-only NVRAM region!\n");
        return -1;
    }
    print_output("WARNING: podlog_nvram_init: Block index structure CRC not matched!\n");
    print_output(crc_difference, index.checksum, expected);
    if (index.magic != magic()) {
        reset();
        return 1;
    }
    index.log_size = history_size(index);
    return recover(index, verify_all_headers(index));
}

int nvram_ring::verify_all_headers(const index_t &index)
{
    for (int history = 0; history < row_.num_subblock; ++history) {
        if (history > 0)
            ::usleep(200);
        if (check_header(index, history) != 1)
            return headers_bad;
    }
    return headers_good;
}

int nvram_ring::accept(int headers)
{
    if (headers == headers_bad)
        return -1;
    if (headers == headers_unusable) {
        print_output("podlog_nvram_init: invalid header structure found.\n");
        reset();
    }
    return 1;
}

int nvram_ring::recover(index_t index, int headers)
{
    if (headers == headers_unusable) {
        print_output("podlog_nvram_init: invalid hdr structure found!\n");
        reset();
        return 1;
    }
    if (headers != headers_usable)
        return -1;
    const int latest = find_latest_history(index);
    if (latest == no_history) {
        print_output("podlog_nvram_init: no available block log\n");
        reset();
        return 1;
    }
    if (latest == -1)
        return -1;
    if (index.header_index > static_cast<uint32_t>(row_.num_subblock) - 1) {
        print_output("podlog_nvram_init: corrupted block index = 0x%x best guess = 0x%x\n",
                     index.header_index, static_cast<unsigned int>(latest));
        index.header_index = static_cast<uint32_t>(latest);
    }
    seal(index);
    if (write(index_position, index))
        return 1;
    report_unwritten_index();
    return -1;
}

int nvram_ring::find_latest_history(const index_t &index)
{
    int latest = no_history;
    uint64_t latest_time = 0;
    for (int history = 0; history < row_.num_subblock; ++history) {
        pod_entry entry;
        const int64_t position = first_entry(index, history, entry);
        if (position == -1)
            return -1;
        if (position == 0 && history == 0)
            continue;
        if (position == 0)
            break;
        if (entry.epoch_time > latest_time) {
            latest = history;
            latest_time = entry.epoch_time;
        }
    }
    return latest;
}

void nvram_ring::dump_block_index(const index_t &index)
{
    print_output("nvram_dump_block_index: ");
    print_output("\t  magic number = 0x%x \n\t header index = 0x%x\t size = 0x%x \n\t checksum = "
                 "0x%x\n",
                 index.magic, index.header_index, index.log_size, index.checksum);
}

//--- the index ------------------------------------------------------------------------------------

uint32_t nvram_ring::magic()
{
    return _magic_num;
}

void nvram_ring::set_magic(uint32_t number)
{
    _magic_num = number;
}

int nvram_ring::current_history(const index_t &index)
{
    const uint32_t expected = checksum_of(index);
    if (index.checksum != expected) {
        print_output("nvram_verify_blk_index: incorrect CRC 0x%x! expected 0x%x ", index.checksum,
                     expected);
        return -1;
    }
    if (index.magic != magic()) {
        print_output("nvram_verify_blk_index: unexpected magic number 0x%x! expected 0x%x ",
                     index.magic, magic());
        return -1;
    }
    return static_cast<int>(index.header_index);
}

int64_t nvram_ring::current_position(const index_t &index) const
{
    if (index.magic != magic())
        return -1;
    if (index.header_index >= static_cast<uint32_t>(row_.num_subblock)) {
        print_error("ERROR: get_curr_log_hdr_pos: index %d out of range!\n",
                    static_cast<int>(index.header_index));
        return -1;
    }
    if (index.log_size != history_size(index)) {
        print_error("get_curr_log_hdr_pos: corrupted log size 0x%x in the structure!\n",
                    index.log_size);
        return -1;
    }
    return nth_header(index.header_index, index.log_size);
}

// As configured, whatever the index says.
uint32_t nvram_ring::history_size(const index_t &) const
{
    return static_cast<uint32_t>(row_.subblock_size);
}

void nvram_ring::report_magic(const index_t &index)
{
    print_error("nvram_get_log_hdr_pos: unexpected magic number 0x%x. canot not get the index from "
                "the structure!",
                index.magic);
}

void nvram_ring::report_unlocated(int history) const
{
    print_output("nvram_check_hdr failed to get_log_hdr_pos, nvram_id %d, subblock_id %d", id_,
                 history);
}

void nvram_ring::report_unwritten_index()
{
    print_error("Failed to write NVRAM index structure!\n");
}

bool nvram_ring::reset_beyond_log()
{
    print_output("%s: reset POD status & fault injection\n", "podlog_nvram_reset");
    uint32_t statuses[8];
    std::fill(std::begin(statuses), std::end(statuses), POD_STATUS_INVALID);
    const uint32_t no_faults = 0;
    return write(row_.pod_status_pos, statuses) && write(row_.pod_faultinject_pos, no_faults);
}

} // namespace device_access

//--- the interface --------------------------------------------------------------------------------

using device_access::nvram_ring;

void podlog_nvram_set_pod_info(int nvram_id, char *dev_name, int mem_size, int num_log, int msg_len,
                               uint32_t align_msk)
{
    nvram_ring device(nvram_id);
    if (!device.exists())
        return;
    device.describe(dev_name, mem_size, num_log, msg_len, align_msk);
    device.row().attr = 2;
    device.row().pod_status_pos = device_access::before_end(mem_size, 72);
    device.row().pod_faultinject_pos = device_access::before_end(mem_size, 40);
}

void podlog_nvram_set_magic_number(uint32_t new_magic_num)
{
    nvram_ring::set_magic(new_magic_num);
}

int podlog_nvram_open_dev_file(int nvram_id, int *nvram_fd, int flg_rdonly)
{
    device_access::unique_fd opened;
    nvram_ring device(nvram_id);
    const bool done = device.exists() && device.open_node(opened, flg_rdonly != 0);
    *nvram_fd = opened.release();
    return done ? 1 : 0;
}

int pod_nvram_mem_rd(int nvram_id, uint32_t offset, uint8_t *buffer, uint32_t num_byte)
{
    return nvram_ring(nvram_id).mem_rd(offset, buffer, num_byte);
}

int pod_nvram_mem_wr(int nvram_id, uint32_t offset, uint8_t *buffer, uint32_t num_byte)
{
    return nvram_ring(nvram_id).mem_wr(offset, buffer, num_byte);
}

int podlog_nvram_init(int nvram_id, int flg_rdonly)
{
    return nvram_ring(nvram_id).init(flg_rdonly != 0);
}

int podlog_nvram_reset(int nvram_id)
{
    return nvram_ring(nvram_id).reset();
}

int podlog_nvram_add(int nvram_id, char *event_level, char *diag_string, const char *ret_string,
                     const char *fmt, va_list args)
{
    return nvram_ring(nvram_id).add(event_level, diag_string, ret_string, fmt, args);
}

int podlog_nvram_set_curr_log_status(int nvram_id, int)
{
    return nvram_ring(nvram_id).set_curr_log_status();
}

int podlog_nvram_use_nxt_log(int nvram_id)
{
    return nvram_ring(nvram_id).use_nxt_log();
}

void podlog_nvram_close(int nvram_id)
{
    nvram_ring(nvram_id).close();
}

int podlog_nvram_open_dir(int nvram_id)
{
    return nvram_ring(nvram_id).open_dir();
}

int podlog_nvram_read_dir(int nvram_id, int log_num, time_t *ts)
{
    return nvram_ring(nvram_id).read_dir(log_num, ts);
}

int podlog_nvram_close_dir(int nvram_id)
{
    nvram_ring(nvram_id).close();
    return 1;
}

int podlog_nvram_open_log(int nvram_id, int log_num)
{
    return nvram_ring(nvram_id).open_log(log_num);
}

int podlog_nvram_read_log(int nvram_id, int offset, time_t *ts, char *msg, uint32_t buf_size)
{
    return nvram_ring(nvram_id).read_log(offset, ts, msg, buf_size);
}

int podlog_nvram_close_log(int nvram_id, int)
{
    nvram_ring(nvram_id).close();
    return 1;
}

int podlog_nvram_dump_log_msgs(int nvram_id, int log_num)
{
    return nvram_ring(nvram_id).dump_log_msgs(log_num);
}

int podlog_nvram_dump_curr_log_msgs(int nvram_id)
{
    return nvram_ring(nvram_id).dump_curr_log_msgs();
}

int podlog_nvram_dump_all_log_msgs(int nvram_id)
{
    return nvram_ring(nvram_id).dump_all_log_msgs();
}

// The POD log in NVRAM devices.
#include <device_access/pod_log_nvram.h>

#include "lib/base/errors.h"
#include "lib/base/nvram_block.h"
#include "lib/base/print.h"
#include "lib/base/unique_fd.h"
#include "lib/podlog/nvram_devices.h"
#include "lib/podlog/ring.h"

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

int use_count = 0; // its address names this instance of the library in messages

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
    return REFUSE(print_error, false, " ERROR: fail to find major/minor number\n");
}

bool open_dev_file(unique_fd &opened, const podlog::nvram_dev_info_t &row, bool rdonly)
{
    const int access_mode = rdonly ? O_RDONLY : O_RDWR;
    const pod_device_path path(row.name);
    opened = open_nvram_exclusively(path.str, access_mode, open_attempts);
    if (opened.get() > 0)
        return true;
    opened.reset();
    dev_t number = 0;
    if (!find_device_number(number) || !make_nvram_node(path.str, number))
        return false;
    opened.reset(::open(path.str, access_mode | O_CLOEXEC));
    if (!opened && errno != EBUSY)
        print_error(
            rdonly ? "ERROR: instance(%p) cannot open newly created dev file %s for read-only!\n"
                   : "ERROR: instance(%p) cannot open newly created dev file %s for read-write!\n",
            static_cast<void *>(&use_count), path.str);
    return static_cast<bool>(opened);
}

void nvram_dump_block_index(const pod_index &index)
{
    print_output("nvram_dump_block_index: ");
    print_output("\t  magic number = 0x%x \n\t header index = 0x%x\t size = 0x%x \n\t checksum = "
                 "0x%x\n",
                 index.magic, index.header_index, index.log_size, index.checksum);
}

//--- the storage ----------------------------------------------------------------------------------

class nvram_storage final : public pod_storage
{
public:
    constexpr nvram_storage()
        : pod_storage({.kind = "nvram",
                       .index_size = sizeof(pod_index),
                       .first_header = 48,
                       .status_position = 32,
                       .index_sets_distance = false,
                       .dumps_epoch = false,
                       .announces_start = true,
                       .reports_failed_dump = true},
                      0x1FE2C365)
    {
    }

    pod_shape shape(int nvram_id) const override { return shape_of(nvram_row(nvram_id)); }
    bool open(int nvram_id, bool rdonly) override;
    void close(int nvram_id) override;
    int mem_rd(int nvram_id, int64_t position, void *data, uint32_t size) override;
    int mem_wr(int nvram_id, int64_t position, const void *data, uint32_t size) override;
    pod_opening judge(const pod_index &index, bool rdonly) const override;
    bool verify_blk_index(const pod_index &index) const override;
    bool locates_current_history(const pod_shape &shape, const pod_index &index) const override;
    void report(int nvram_id, pod_fault fault, uint32_t detail) const override;
    bool reset_beyond_log(int nvram_id) override;
};

constinit nvram_storage storage;

bool nvram_storage::open(int nvram_id, bool rdonly)
{
    ++use_count;
    if (!has_nvram(nvram_id))
        return false;
    podlog::nvram_dev_info_t &row = nvram_row(nvram_id);
    if (row.fd != -1)
        return REFUSE(
            print_error, false,
            "ERROR: podlog_nvram_init: nvram %d current device is currently opened already!\n",
            nvram_id);
    unique_fd opened;
    if (!open_dev_file(opened, row, rdonly))
        return false;
    row.fd = opened.release();
    compute_subblock_size(row, 100);
    return true;
}

void nvram_storage::close(int nvram_id)
{
    --use_count;
    podlog::nvram_dev_info_t &row = nvram_row(nvram_id);
    if (row.fd == -1) {
        print_output("podlog_nvram_close: instance(%p) already closed previously! \n",
                     static_cast<void *>(&use_count));
        return;
    }
    const unique_fd closing(row.fd);
    row.fd = -1;
}

int nvram_storage::mem_rd(int nvram_id, int64_t position, void *data, uint32_t size)
{
    const int fd = nvram_row(nvram_id).fd;
    if (fd == -1)
        return REFUSE(print_error, 0, "ERROR: pod_nvram_mem_rd: nvram %d: cannot access device!\n",
                      nvram_id);
    const ssize_t length = ::pread(fd, data, size, position);
    const uint32_t first = static_cast<uint32_t>(position);
    if (length < 1)
        return REFUSE(print_error, 0,
                      "ERROR: pod_nvram_mem_rd: cannot read or reach eof!! range=0x%x-0x%x\n",
                      first, first + size - 1);
    return static_cast<int>(length);
}

int nvram_storage::mem_wr(int nvram_id, int64_t position, const void *data, uint32_t size)
{
    const int fd = nvram_row(nvram_id).fd;
    if (fd == -1)
        return REFUSE(print_error, 0, "ERROR: pod_nvram_mem_wr: cannot access device %d!\n",
                      nvram_id);
    const ssize_t length = ::pwrite(fd, data, size, position);
    if (length < 1)
        return REFUSE(print_error, 0, "ERROR: pod_nvram_mem_wr: cannot write %d bytes to 0x%x!!\n",
                      static_cast<int>(size), static_cast<uint32_t>(position));
    return static_cast<int>(length);
}

pod_opening nvram_storage::judge(const pod_index &index, bool rdonly) const
{
    static constexpr char crc_difference[] = "CRC: read = 0x%x expect = 0x%x\n";
    const uint32_t expected = checksum_of(index);
    if (index.checksum == expected)
        return pod_opening::check;
    nvram_dump_block_index(index);
    if (rdonly) {
        print_error("ERROR: podlog_nvram_init: checksum incorrect! cannot open for reading!!\n");
        print_error(crc_difference, index.checksum, expected);
        return REFUSE(print_error, pod_opening::refuse,
                      "Can not perform best guess for read-only NVRAM region!\n");
    }
    print_output("WARNING: podlog_nvram_init: Block index structure CRC not matched!\n");
    print_output(crc_difference, index.checksum, expected);
    return index.magic == magic ? pod_opening::guess : pod_opening::format;
}

bool nvram_storage::verify_blk_index(const pod_index &index) const
{
    const uint32_t expected = checksum_of(index);
    if (index.checksum != expected)
        print_output("nvram_verify_blk_index: incorrect CRC 0x%x! expected 0x%x ", index.checksum,
                     expected);
    else if (index.magic != magic)
        print_output("nvram_verify_blk_index: unexpected magic number 0x%x! expected 0x%x ",
                     index.magic, magic);
    else
        return true;
    return false;
}

bool nvram_storage::locates_current_history(const pod_shape &shape, const pod_index &index) const
{
    if (index.magic != magic)
        return false;
    if (index.header_index >= static_cast<uint32_t>(shape.num_subblock))
        return REFUSE(print_error, false, "ERROR: get_curr_log_hdr_pos: index %d out of range!\n",
                      static_cast<int>(index.header_index));
    if (index.log_size != static_cast<uint32_t>(shape.subblock_size))
        return REFUSE(print_error, false,
                      "get_curr_log_hdr_pos: corrupted log size 0x%x in the structure!\n",
                      index.log_size);
    return true;
}

void nvram_storage::report(int nvram_id, pod_fault fault, uint32_t detail) const
{
    switch (fault) {
    case pod_fault::index_not_read:
        print_error("ERROR: canot read magic number for NVRAM!\n");
        break;
    case pod_fault::index_not_written:
        print_error("Failed to write NVRAM index structure!\n");
        break;
    case pod_fault::index_magic:
        print_error("nvram_get_log_hdr_pos: unexpected magic number 0x%x. canot not get the "
                    "index from the structure!",
                    detail);
        break;
    case pod_fault::header_not_located:
        print_output("nvram_check_hdr failed to get_log_hdr_pos, nvram_id %d, subblock_id "
                     "%d",
                     nvram_id, static_cast<int>(detail));
        break;
    }
}

bool nvram_storage::reset_beyond_log(int nvram_id)
{
    print_output("podlog_nvram_reset: reset POD status & fault injection\n");
    const podlog::nvram_dev_info_t &row = nvram_row(nvram_id);
    uint32_t statuses[8];
    std::fill(std::begin(statuses), std::end(statuses), POD_STATUS_INVALID);
    const uint32_t no_faults = 0;
    return mem_wr(nvram_id, row.pod_status_pos, statuses, sizeof statuses) > 0 &&
           mem_wr(nvram_id, row.pod_faultinject_pos, &no_faults, sizeof no_faults) > 0;
}

} // namespace

podlog::nvram_dev_info_t &nvram_row(int nvram_id)
{
    return has_nvram(nvram_id) ? _nvram_dev_info[nvram_id] : nowhere;
}

bool has_nvram(int nvram_id)
{
    return nvram_id >= 0 && nvram_id < static_cast<int>(std::size(_nvram_dev_info));
}

pod_storage &nvram_devices()
{
    return storage;
}

pod_log_ring nvram_ring(int nvram_id)
{
    return {storage, nvram_id, storage.shape(nvram_id)};
}

} // namespace device_access

//--- the interface --------------------------------------------------------------------------------

using namespace device_access;

void podlog_nvram_set_pod_info(int nvram_id, char *dev_name, int mem_size, int num_log, int msg_len,
                               uint32_t align_msk)
{
    if (!has_nvram(nvram_id))
        return;
    podlog::nvram_dev_info_t &row = nvram_row(nvram_id);
    set_pod_info(row, dev_name, 40, mem_size, num_log, msg_len, align_msk);
    row.attr = 2;
    row.pod_status_pos = before_end(mem_size, 72);
    row.pod_faultinject_pos = before_end(mem_size, 40);
}

void podlog_nvram_set_magic_number(uint32_t new_magic_num)
{
    storage.magic = new_magic_num;
}

int podlog_nvram_open_dev_file(int nvram_id, int *nvram_fd, int flg_rdonly)
{
    unique_fd opened;
    const bool done =
        has_nvram(nvram_id) && open_dev_file(opened, nvram_row(nvram_id), flg_rdonly != 0);
    *nvram_fd = opened.release();
    return done ? 1 : 0;
}

int pod_nvram_mem_rd(int nvram_id, uint32_t offset, uint8_t *buffer, uint32_t num_byte)
{
    return storage.mem_rd(nvram_id, offset, buffer, num_byte);
}

int pod_nvram_mem_wr(int nvram_id, uint32_t offset, uint8_t *buffer, uint32_t num_byte)
{
    return storage.mem_wr(nvram_id, offset, buffer, num_byte);
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

#include <device_access/pod_log_file.h>

#include "internal/pod_log_raw_entry.h"
#include "internal/pod_log_ring.h"
#include "internal/unique_fd.h"

#include <cerrno>
#include <cstdio>
#include <iterator>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

using namespace device_access;

struct file_dev_info_t {
    char name[40]; // path; without NUL when it has 40 bytes
    int attr = O_RDWR;
    int mem_size = 16384;
    int num_subblock = 10;
    int msg_size = 64;
    uint32_t log_align_msk = 0xFFFFFFFF;
    int subblock_size = 0; // computed when it is opened
    int fd = -1;           // -1 when closed
};

file_dev_info_t _file_dev_info[] = {
    {"/var/pod/pod_alsw1.hex"}, {"/var/pod/pod_alsw2.hex"},     {"/var/pod/pod_sw1.hex"},
    {"/var/pod/pod_sw2.hex"},   {"/var/pod/pod_sw3.hex"},       {"/var/pod/pod_sw4.hex"},
    {"/var/pod/pod_ft1.hex"},   {"/var/pod/pod_ft2.hex"},       {"/var/pod/pod_pem1.hex"},
    {"/var/pod/pod_pem2.hex"},  {"/var/pod/pod_pem3.hex"},      {"/var/pod/pod_pem4.hex"},
    {"/var/pod/pod_pem5.hex"},  {"/var/pod/pod_pem6.hex"},      {"/var/pod/pod_pem7.hex"},
    {"/var/pod/pod_pem8.hex"},  {"/var/pod/pod_rpsw_mate.hex"},
};

file_dev_info_t nowhere = {""}; // stands for every id without file

class file_ring : public pod_bare_index_ring<file_ring>
{
public:
    static constexpr pod_log_traits traits = {
        .overhead = 32,
        .first_header = 44,
        .status_position = 0,
        .name_limit = 40,
        .dumps_epoch = true,
        .announces_start = false,
        .reports_failed_dump = false,
        .init = "podlog_file_init",
        .get_log_hdr_pos = "file_get_log_hdr_pos",
        .get_curr_log_hdr_pos = "file_get_curr_log_hdr_pos",
        .read_dir = "podlog_file_read_dir",
        .dump_curr_log_msgs = "podlog_file_dump_curr_log_msgs",
        .dump_log_block_header = "file_dump_log_block_header",
    };

    explicit file_ring(int file_id)
        : id_(file_id), row_(file_id >= 0 && file_id < static_cast<int>(std::size(_file_dev_info))
                                 ? _file_dev_info[file_id]
                                 : nowhere)
    {
    }

    file_dev_info_t &row() const { return row_; }
    bool exists() const { return &row_ != &nowhere; }

    int init(bool rdonly)
    {
        if (!exists())
            return -1;
        if (row_.fd != -1) {
            for (const auto print : {print_error, print_output})
                print("ERROR: %s: file %d current device is currently  opened already!\n",
                      traits.init, id_);
            return -1;
        }
        unique_fd opened;
        if (!make_directory() || !open_file(opened, rdonly))
            return -1;
        row_.fd = opened.release();
        const int result = check(rdonly);
        if (result != 1)
            close();
        return result;
    }

    void close()
    {
        const unique_fd closing(row_.fd);
        row_.fd = -1;
    }

    int mem_rd(int64_t position, void *data, uint32_t size)
    {
        if (row_.fd == -1) {
            print_error("ERROR: pod_file_mem_rd: cannot access device!\n");
            return 0;
        }
        const ssize_t length = ::pread(row_.fd, data, size, position);
        if (length < 1) {
            const uint32_t first = static_cast<uint32_t>(position);
            print_error("ERROR: pod_file_mem_rd: cannot read or reach eof!! range=0x%x-0x%x\n",
                        first, first + size - 1);
            return 0;
        }
        return static_cast<int>(length);
    }

    int mem_wr(int64_t position, const void *data, uint32_t size)
    {
        if (row_.fd == -1) {
            print_error("ERROR: pod_file_mem_wr: cannot access device for file instance %d !\n",
                        id_);
            return 0;
        }
        const ssize_t length = ::pwrite(row_.fd, data, size, position);
        if (length < 1) {
            print_error("ERROR: pod_file_mem_wr: cannot write!!\n");
            return 0;
        }
        return static_cast<int>(length);
    }

private:
    static bool make_directory()
    {
        const mode_t mask = ::umask(0);
        if (::mkdir("/var/pod", 0777) != 0 && errno != EEXIST) {
            const errno_guard keep;
            std::perror("Unable to create POD directory");
            return false; // with the mask still at 0
        }
        ::umask(mask);
        return true;
    }

    // False when the file is missing and cannot be made. One that cannot be opened for another
    // reason gives no descriptor, which the next access reports.
    bool open_file(unique_fd &opened, bool rdonly) const
    {
        const int access_mode = (rdonly ? O_RDONLY : row_.attr) | O_CLOEXEC;
        const pod_device_path path(row_.name);
        opened.reset(::open(path.str, access_mode));
        if (opened || errno != ENOENT)
            return true;
        if (rdonly) {
            print_error("ERROR: file %s does not exist!\n", path.str);
            return false;
        }
        static constexpr char zeros[16384] = {};
        opened.reset(::open(path.str, access_mode | O_CREAT, 0777));
        if (!opened || ::pwrite(opened.get(), zeros, sizeof zeros, 0) == ssize_t{sizeof zeros})
            return true;
        print_error("ERROR: cannot write to file %s!\n", path.str);
        return false;
    }

    int id_;
    file_dev_info_t &row_;
};

} // namespace

size_t device_access::file_raw_entry_size(int file_id)
{
    return file_ring(file_id).raw_entry_size();
}

//--- the interface --------------------------------------------------------------------------------

void podlog_file_set_pod_info(int file_id, char *dev_name, int mem_size, int num_log, int msg_len,
                              uint32_t align_msk)
{
    file_ring(file_id).describe(dev_name, mem_size, num_log, msg_len, align_msk);
}

int podlog_file_init(int file_id, int flg_rdonly)
{
    return file_ring(file_id).init(flg_rdonly != 0);
}

void podlog_file_close(int file_id)
{
    file_ring(file_id).close();
}

int podlog_file_reset(int file_id)
{
    return file_ring(file_id).reset();
}

int podlog_file_add(int file_id, char *event_level, char *diag_string, const char *ret_string,
                    const char *fmt, va_list args)
{
    return file_ring(file_id).add(event_level, diag_string, ret_string, fmt, args);
}

int podlog_file_use_nxt_log(int file_id)
{
    return file_ring(file_id).use_nxt_log();
}

int podlog_file_set_curr_log_status(int file_id, int)
{
    return file_ring(file_id).set_curr_log_status();
}

int podlog_file_open_dir(int file_id)
{
    return file_ring(file_id).open_dir();
}

int podlog_file_read_dir(int file_id, int log_num, time_t *ts)
{
    return file_ring(file_id).read_dir(log_num, ts);
}

int podlog_file_close_dir(int file_id)
{
    file_ring(file_id).close();
    return 1;
}

int podlog_file_open_log(int file_id, int log_num)
{
    return file_ring(file_id).open_log(log_num);
}

int podlog_file_read_log(int file_id, int offset, time_t *ts, char *msg, uint32_t buf_size)
{
    return file_ring(file_id).read_log(offset, ts, msg, buf_size);
}

int podlog_file_read_raw_log(int file_id, int offset, uint8_t *buf)
{
    return file_ring(file_id).read_raw_log(offset, buf);
}

int podlog_file_dump_log_msgs(int file_id, int log_num)
{
    return file_ring(file_id).dump_log_msgs(log_num);
}

int podlog_file_dump_curr_log_msgs(int file_id)
{
    return file_ring(file_id).dump_curr_log_msgs();
}

int podlog_file_dump_all_log_msgs(int file_id)
{
    return file_ring(file_id).dump_all_log_msgs();
}

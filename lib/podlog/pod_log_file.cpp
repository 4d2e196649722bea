// The POD log in files under /var/pod.
#include <device_access/pod_log_file.h>

#include "lib/base/unique_fd.h"
#include "lib/podlog/ring.h"

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

file_dev_info_t files[] = {
    {"/var/pod/pod_alsw1.hex"}, {"/var/pod/pod_alsw2.hex"},     {"/var/pod/pod_sw1.hex"},
    {"/var/pod/pod_sw2.hex"},   {"/var/pod/pod_sw3.hex"},       {"/var/pod/pod_sw4.hex"},
    {"/var/pod/pod_ft1.hex"},   {"/var/pod/pod_ft2.hex"},       {"/var/pod/pod_pem1.hex"},
    {"/var/pod/pod_pem2.hex"},  {"/var/pod/pod_pem3.hex"},      {"/var/pod/pod_pem4.hex"},
    {"/var/pod/pod_pem5.hex"},  {"/var/pod/pod_pem6.hex"},      {"/var/pod/pod_pem7.hex"},
    {"/var/pod/pod_pem8.hex"},  {"/var/pod/pod_rpsw_mate.hex"},
};

file_dev_info_t nowhere = {""}; // stands for every id without file

bool has_file(int file_id)
{
    return file_id >= 0 && file_id < static_cast<int>(std::size(files));
}

file_dev_info_t &row_of(int file_id)
{
    return has_file(file_id) ? files[file_id] : nowhere;
}

bool make_directory()
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

bool fill_new_file(int fd)
{
    static char zeros[16384]; // not const: as such it would lie in the library's file
    return ::pwrite(fd, zeros, sizeof zeros, 0) == ssize_t{sizeof zeros};
}

// False when the file is missing and cannot be made. One that cannot be opened for another reason
// gives no descriptor, which the next access reports.
bool open_dev_file(unique_fd &opened, const file_dev_info_t &row, bool rdonly)
{
    if (!make_directory())
        return false;
    const int access_mode = (rdonly ? O_RDONLY : row.attr) | O_CLOEXEC;
    const pod_device_path path(row.name);
    opened.reset(::open(path.str, access_mode));
    if (opened || errno != ENOENT)
        return true;
    if (rdonly)
        return REFUSE(print_error, false, "ERROR: file %s does not exist!\n", path.str);
    opened.reset(::open(path.str, access_mode | O_CREAT, 0777));
    if (!opened || fill_new_file(opened.get()))
        return true;
    return REFUSE(print_error, false, "ERROR: cannot write to file %s!\n", path.str);
}

//--- the storage ----------------------------------------------------------------------------------

class file_storage final : public pod_storage
{
public:
    constexpr file_storage()
        : pod_storage({.kind = "file",
                       .index_size = sizeof(file_log_index_t),
                       .first_header = 44,
                       .status_position = 0,
                       .index_sets_distance = true,
                       .dumps_epoch = true,
                       .announces_start = false,
                       .reports_failed_dump = false},
                      0x1FE2C363)
    {
    }

    pod_shape shape(int file_id) const override { return shape_of(row_of(file_id)); }
    bool open(int file_id, bool rdonly) override;
    void close(int file_id) override;
    int mem_rd(int file_id, int64_t position, void *data, uint32_t size) override;
    int mem_wr(int file_id, int64_t position, const void *data, uint32_t size) override;
};

constinit file_storage storage;

bool file_storage::open(int file_id, bool rdonly)
{
    file_dev_info_t &row = row_of(file_id);
    if (!has_file(file_id))
        return false;
    if (row.fd != -1) {
        for (const auto print : {print_error, print_output})
            print("ERROR: podlog_file_init: file %d current device is currently  opened already!\n",
                  file_id);
        return false;
    }
    unique_fd opened;
    if (!open_dev_file(opened, row, rdonly))
        return false;
    row.fd = opened.release();
    compute_subblock_size(row, 32);
    return true;
}

void file_storage::close(int file_id)
{
    file_dev_info_t &row = row_of(file_id);
    const unique_fd closing(row.fd);
    row.fd = -1;
}

int file_storage::mem_rd(int file_id, int64_t position, void *data, uint32_t size)
{
    const int fd = row_of(file_id).fd;
    if (fd == -1)
        return REFUSE(print_error, 0, "ERROR: pod_file_mem_rd: cannot access device!\n");
    const ssize_t length = ::pread(fd, data, size, position);
    const uint32_t first = static_cast<uint32_t>(position);
    if (length < 1)
        return REFUSE(print_error, 0,
                      "ERROR: pod_file_mem_rd: cannot read or reach eof!! range=0x%x-0x%x\n", first,
                      first + size - 1);
    return static_cast<int>(length);
}

int file_storage::mem_wr(int file_id, int64_t position, const void *data, uint32_t size)
{
    const int fd = row_of(file_id).fd;
    if (fd == -1)
        return REFUSE(print_error, 0,
                      "ERROR: pod_file_mem_wr: cannot access device for file instance %d !\n",
                      file_id);
    const ssize_t length = ::pwrite(fd, data, size, position);
    return length < 1 ? REFUSE(print_error, 0, "ERROR: pod_file_mem_wr: cannot write!!\n")
                      : static_cast<int>(length);
}

} // namespace

pod_log_ring device_access::file_ring(int file_id)
{
    return {storage, file_id, storage.shape(file_id)};
}

//--- the interface --------------------------------------------------------------------------------

void podlog_file_set_pod_info(int file_id, char *dev_name, int mem_size, int num_log, int msg_len,
                              uint32_t align_msk)
{
    if (has_file(file_id))
        set_pod_info(row_of(file_id), dev_name, 40, mem_size, num_log, msg_len, align_msk);
}

int podlog_file_open_dev_file(int file_id, int *file_fd, int flg_rdonly)
{
    unique_fd opened;
    const bool done = has_file(file_id) && open_dev_file(opened, row_of(file_id), flg_rdonly != 0);
    *file_fd = done ? opened.release() : -1;
    return done ? 1 : 0;
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

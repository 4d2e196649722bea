// POST log blocks reached through device files.
#include "lib/base/errors.h"
#include "lib/base/nvram_block.h"
#include "lib/base/print.h"
#include "lib/base/unique_fd.h"
#include "lib/postlog/access.h"

#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

using namespace device_access;

namespace postlog
{
namespace
{

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

// What of the row sysfs tells.
void set_properties(nvram_dev_info_t &row, const char *base_text, const char *size_text,
                    const char *mode_text)
{
    unsigned int base = row.ofw_base;
    unsigned int size = static_cast<unsigned int>(row.mem_size);
    std::sscanf(base_text, "%x", &base);
    std::sscanf(size_text, "%x", &size);
    row.ofw_base = base;
    row.mem_size = static_cast<int>(size);
    row.attr = std::strcmp(mode_text, "rw") == 0 ? 2 : 0;
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

// Whether the block's header or index can be read, and shows that the firmware has set it up.
int check_block(log_type_t blk, const char *routine)
{
    if (row_of(blk).num_subblock < 2) {
        nvram_log_header_t header;
        if (!read_header(blk, 0, header))
            return closed_after_failed_read(blk);
        return is_header_initialized(header, routine) ? 1 : close_with(blk, -1);
    }
    nvram_log_index_t index;
    if (!read_index(blk, index))
        return closed_after_failed_read(blk);
    if (is_index_initialized(index))
        return 1;
    post_nvram_dump_block_index(index);
    return close_with(blk, -1);
}

// Records are read through the mapped functions, which may be a client's beside these readers.
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
    return REFUSE(print_error, close_with(blk, -1), "ERROR %s: cannot read from the device file!\n",
                  routine);
}

} // namespace

void postlog_map_def_nvram_access(void)
{
    postlog_map_nvram_access(
        device_file_blocks, postlog_dev_file_nvram_init, post_dev_file_nvram_mem_rd,
        postlog_dev_file_nvram_close, postlog_dev_rd_log_index, postlog_dev_rd_log_header,
        postlog_dev_rd_log, postlog_dev_validate_log_header, postlog_dev_validate_log_entry);
}

//--- the device -----------------------------------------------------------------------------------

int postlog_nvram_open_dev_file(log_type_t blk, int *nvram_fd)
{
    const nvram_dev_info_t &row = row_of(blk);
    const terminated path(row.path);
    *nvram_fd = open_nvram_exclusively(path.str, O_RDONLY, 10).release();
    if (*nvram_fd != -1)
        return 1;
    const int n = find_nvram_block(terminated(row.name).str).found;
    dev_t number;
    if (n == -1 || !read_nvram_device_number(n, number) || !make_nvram_node(path.str, number))
        return 0;
    *nvram_fd = ::open(path.str, O_RDONLY | O_CLOEXEC);
    if (*nvram_fd != -1)
        return 1;
    return REFUSE(print_error, 0, "ERROR: cannot open newly created dev file %s!\n", path.str);
}

// The names in these messages stand in the wrong order; that is how they have always read.
int postlog_nvram_find_blk_properties(log_type_t blk)
{
    nvram_dev_info_t &row = row_of(blk);
    const terminated name(row.name);
    const int n = find_nvram_block(name.str).found;
    if (n == -1)
        return REFUSE(print_error, -1, "ERROR: %s: cannot find nvram block named %s!\n", name.str,
                      __func__);
    const nvram_attr_path base_path(n, "baseaddr");
    char base_text[11];
    if (!read_nvram_attr(base_path, base_text, sizeof base_text))
        return REFUSE(print_error, -1, "ERROR: %s: failed to read base address from %s!\n",
                      base_path.str, __func__);
    const nvram_attr_path size_path(n, "size");
    char size_text[8];
    if (!read_nvram_attr(size_path, size_text, sizeof size_text))
        return REFUSE(print_error, -1, "ERROR: %s: failed to read size from %s!\n", size_path.str,
                      __func__);
    const nvram_attr_path mode_path(n, "mode");
    char mode_text[3];
    if (!read_nvram_attr(mode_path, mode_text, sizeof mode_text))
        return REFUSE(print_error, -1, "ERROR: %s: failed to read access attribute from %s!\n",
                      mode_path.str, __func__);
    set_properties(row, base_text, size_text, mode_text);
    return 1;
}

int postlog_dev_file_nvram_init(log_type_t blk)
{
    nvram_dev_info_t &row = row_of(blk);
    if (row.fd != -1)
        return REFUSE(print_error, -1, "ERROR: %s: current device is currently opened already!\n",
                      __func__);
    int fd;
    if (postlog_nvram_open_dev_file(blk, &fd) != 1)
        return REFUSE(print_error, -1, "ERROR %s: cannot open the device file!\n", __func__);
    if (postlog_nvram_find_blk_properties(blk) == -1)
        print_output("WARNING: failed to read NVRAM info. use default value.\n");
    row.fd = fd;
    row.subblock_size = subblock_size(row);
    return check_block(blk, __func__);
}

int post_dev_file_nvram_mem_rd(log_type_t blk, uint32_t offset, uint8_t *buffer, uint32_t num_byte)
{
    const int fd = row_of(blk).fd;
    if (fd == -1)
        return REFUSE(print_error, 0, "ERROR: post_nvram_mem_rd: cannot access device!\n");
    const ssize_t length = ::pread(fd, buffer, num_byte, static_cast<off_t>(offset));
    if (length < 1)
        return REFUSE(print_error, 0,
                      "ERROR: post_nvram_mem_rd: cannot read or reach eof!! range=0x%x-0x%x\n",
                      offset, offset + num_byte - 1);
    return static_cast<int>(length);
}

void postlog_dev_file_nvram_close(log_type_t blk)
{
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
    return REFUSE(print_error, close_with(blk, -1),
                  "ERROR %s: cannot read from the device file! offset = 0x%x\n", __func__, offset);
}

int postlog_dev_validate_log_header(nvram_log_header_t *nvloghp)
{
    return nvloghp->header_checksum == header_checksum(*nvloghp);
}

int postlog_dev_validate_log_entry(nvram_log_t *lg)
{
    return lg->log_checksum == entry_checksum(*lg);
}

} // namespace postlog

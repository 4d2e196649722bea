// The access table of the POST log reader, and what reads through it.
#include "lib/postlog/access.h"

#include "lib/base/errno_guard.h"
#include "lib/base/errors.h"
#include "lib/base/print.h"

using namespace device_access;

namespace postlog
{
namespace
{

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

nvram_dev_info_t *dev_info = device_file_blocks;
nvram_access_t nvram_access;

// Calls a mapped function on a record.
template <typename... Parameters>
int access_record(int (*mapped)(Parameters...), const char *routine, Parameters... arguments)
{
    if (mapped)
        return mapped(arguments...);
    return REFUSE(print_error, -1, "ERROR: %s: no actual nvram access function mapped!\n", routine);
}

} // namespace

//--- the table ------------------------------------------------------------------------------------

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

int postlog_nvram_init(log_type_t blk)
{
    if (nvram_access.init)
        return nvram_access.init(blk);
    return REFUSE(print_error, -1, "ERROR: %s: no actual nvram 'init' function mapped!\n",
                  __func__);
}

int post_nvram_mem_rd(log_type_t blk, uint32_t offset, uint8_t *buffer, uint32_t num_byte)
{
    if (nvram_access.rd)
        return nvram_access.rd(blk, offset, buffer, num_byte);
    return REFUSE(print_error, 0, "ERROR: %s: no actual nvram 'read' function mapped!\n", __func__);
}

void postlog_nvram_close(log_type_t blk)
{
    if (nvram_access.close)
        nvram_access.close(blk);
    else
        print_error("ERROR: %s: no actual nvram 'close' function mapped!\n", __func__);
}

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

//--- for the readers ------------------------------------------------------------------------------

nvram_dev_info_t &row_of(log_type_t blk)
{
    return block_row(dev_info, blk);
}

uint32_t offset_of(int64_t pos)
{
    return pos > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(pos);
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

bool is_valid(nvram_log_header_t &header)
{
    return postlog_validate_log_header(&header) != 0;
}

bool is_valid(nvram_log_t &entry)
{
    return postlog_validate_log_entry(&entry) != 0;
}

bool is_header_initialized(nvram_log_header_t &header, const char *routine)
{
    if (is_valid(header))
        return true;
    return REFUSE(print_error, false,
                  "ERROR: %s : header structure not initialized! cannot open for reading!!\n",
                  routine);
}

bool is_index_initialized(const nvram_log_index_t &index)
{
    if (index.magic == index_magic)
        return true;
    print_error("ERROR: postlog_dev_file_nvram_init: magic number not initialized! cannot open for "
                "reading!!\n");
    return REFUSE(print_error, false, "magic number: read = 0x%x expect = 0x%x\n", index.magic,
                  index_magic);
}

int close_with(log_type_t blk, int result)
{
    const errno_guard keep;
    postlog_nvram_close(blk);
    return result;
}

} // namespace postlog

// The POST logs through device files, which are plain files here, without entries in sysfs.
#include "fuzz/post_log.h"
#include "sim/program/private_root.h"

namespace
{

void fill(log_type_t blk, const std::string &image)
{
    nvram_dev_info_t *const table = fuzz::fresh_post_table();
    fuzz::set_contents(table[blk % 3].path, image);
    postlog_map_nvram_access(table, postlog_dev_file_nvram_init, post_dev_file_nvram_mem_rd,
                             postlog_dev_file_nvram_close, postlog_dev_rd_log_index,
                             postlog_dev_rd_log_header, postlog_dev_rd_log,
                             postlog_dev_validate_log_header, postlog_dev_validate_log_entry);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    chassis_sim::enter_private_root();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::use_post_log({false, fill}, {reinterpret_cast<const char *>(data), size});
    return 0;
}

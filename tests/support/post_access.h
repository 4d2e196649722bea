// The POST log reader's two ways of access, with a client's table and functions among them.
#pragma once

#include <device_access/post_log_nvram_pcie_access.h>

namespace test
{

inline void map_post_access(bool by_pcie, nvram_dev_info_t *table, nvram_init_fp init,
                            nvram_close_fp close)
{
    if (by_pcie)
        postlog_map_nvram_access(table, init, postlog_pcie_nvram_rd, close,
                                 postlog_pcie_rd_log_index, postlog_pcie_rd_log_header,
                                 postlog_pcie_rd_log, postlog_pcie_validate_log_header,
                                 postlog_pcie_validate_log_entry);
    else
        postlog_map_nvram_access(table, init, post_dev_file_nvram_mem_rd, close,
                                 postlog_dev_rd_log_index, postlog_dev_rd_log_header,
                                 postlog_dev_rd_log, postlog_dev_validate_log_header,
                                 postlog_dev_validate_log_entry);
}

} // namespace test

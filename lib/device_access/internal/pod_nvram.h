// The POD log's NVRAM devices, as the POD status words beside the log need them.
#pragma once

#include <device_access/pod_log_nvram.h>

#include <cstdint>

namespace device_access
{

// The row of a device. Every id without one has the same row, of a device that is closed.
podlog::nvram_dev_info_t &nvram_row(int nvram_id);
bool has_nvram(int nvram_id);

// One transfer on an open device. Bytes moved; 0 on failure, which is reported.
int nvram_mem_rd(int nvram_id, int64_t position, void *data, uint32_t size);
int nvram_mem_wr(int nvram_id, int64_t position, const void *data, uint32_t size);

} // namespace device_access

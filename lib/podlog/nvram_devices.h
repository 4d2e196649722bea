// The POD log's NVRAM devices, as the POD status words beside the log need them.
#pragma once

#include "lib/podlog/storage.h"

#include <device_access/pod_log_nvram.h>

namespace device_access
{

// The row of a device. Every id without one has the same row, of a device that is closed.
podlog::nvram_dev_info_t &nvram_row(int nvram_id);
bool has_nvram(int nvram_id);

pod_storage &nvram_devices();

} // namespace device_access

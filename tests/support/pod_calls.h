// The calls of the POD log's storages as tables, so that a test is written once for all three.
#pragma once

#include "sim/parts/pod_log.h"

#include <device_access/pod_log_eeprom.h>
#include <device_access/pod_log_file.h>
#include <device_access/pod_log_nvram.h>

namespace test
{

// The calls that every storage of the POD log has.
struct pod_log_calls {
    decltype(&podlog_file_init) init;
    decltype(&podlog_file_close) close;
    decltype(&podlog_file_reset) reset;
    decltype(&podlog_file_add) add;
    decltype(&podlog_file_use_nxt_log) use_nxt_log;
    decltype(&podlog_file_set_curr_log_status) set_curr_log_status;
    decltype(&podlog_file_open_dir) open_dir;
    decltype(&podlog_file_read_dir) read_dir;
    decltype(&podlog_file_close_dir) close_dir;
    decltype(&podlog_file_open_log) open_log;
    decltype(&podlog_file_read_log) read_log;
    decltype(&podlog_file_read_raw_log) read_raw_log; // NULL: it has none
    decltype(&podlog_file_dump_log_msgs) dump_log_msgs;
    decltype(&podlog_file_dump_curr_log_msgs) dump_curr_log_msgs;
    decltype(&podlog_file_dump_all_log_msgs) dump_all_log_msgs;
    decltype(&podlog_file_set_pod_info) set_pod_info;
};

#define POD_LOG_CALLS(x, raw)                                                                      \
    {                                                                                              \
        podlog_##x##_init, podlog_##x##_close, podlog_##x##_reset, podlog_##x##_add,               \
            podlog_##x##_use_nxt_log, podlog_##x##_set_curr_log_status, podlog_##x##_open_dir,     \
            podlog_##x##_read_dir, podlog_##x##_close_dir, podlog_##x##_open_log,                  \
            podlog_##x##_read_log, raw, podlog_##x##_dump_log_msgs,                                \
            podlog_##x##_dump_curr_log_msgs, podlog_##x##_dump_all_log_msgs,                       \
            podlog_##x##_set_pod_info                                                              \
    }

} // namespace test

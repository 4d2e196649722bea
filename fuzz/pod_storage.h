// One POD log storage with an image out of the input in it, read and then written by every call.
//
// Input: a byte of options, then the storage's contents.
//   bit 0   checksums and magic number are put right first, so that what they protect is reached
//   bit 1   the storage ends with the input; otherwise it has its whole size
//   bit 2   the device has its usual size and histories; otherwise small ones
//   bits 3, 4  the size of the reader's buffer
#pragma once

#include "fuzz/support.h"

#include <device_access/pod_log_eeprom.h>
#include <device_access/pod_log_file.h>
#include <device_access/pod_log_nvram.h>

#include <string>

namespace fuzz
{

struct pod_storage {
    char *path;
    uint32_t magic;
    bool index_has_checksum;
    uint32_t first_header;
    int usual_size;
    int usual_histories;
    int small_size; // for three histories
    void (*fill)(const std::string &image);

    decltype(&podlog_file_set_pod_info) set_pod_info;
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
    decltype(&podlog_file_dump_log_msgs) dump_log_msgs;
    decltype(&podlog_file_dump_curr_log_msgs) dump_curr_log_msgs;
    decltype(&podlog_file_dump_all_log_msgs) dump_all_log_msgs;
    decltype(&podlog_file_read_raw_log) read_raw_log; // NULL: it has none
};

#define POD_STORAGE_CALLS(x)                                                                       \
    podlog_##x##_set_pod_info, podlog_##x##_init, podlog_##x##_close, podlog_##x##_reset,          \
        podlog_##x##_add, podlog_##x##_use_nxt_log, podlog_##x##_set_curr_log_status,              \
        podlog_##x##_open_dir, podlog_##x##_read_dir, podlog_##x##_close_dir,                      \
        podlog_##x##_open_log, podlog_##x##_read_log, podlog_##x##_dump_log_msgs,                  \
        podlog_##x##_dump_curr_log_msgs, podlog_##x##_dump_all_log_msgs

constexpr int pod_device = 0; // the id of the device that is used

// The contents that the input asks for; they also describe the device to the library.
std::string prepare_pod_storage(const pod_storage &storage, std::string_view input);

void use_pod_storage(const pod_storage &storage, std::string_view input);

} // namespace fuzz

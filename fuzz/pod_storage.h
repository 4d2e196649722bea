// One POD log storage with an image out of the input in it, read and then written by every call.
//
// Input: a byte of options, then the storage's contents.
//   bit 0   checksums and magic number are put right first, so that what they protect is reached
//   bit 1   the storage ends with the input; otherwise it has its whole size
//   bit 2   the device has its usual size and histories; otherwise small ones
//   bits 3, 4  the size of the reader's buffer
#pragma once

#include "fuzz/support.h"
#include "tests/support/pod_log.h"

#include <string>

namespace fuzz
{

struct pod_storage : test::pod_log_calls {
    char *path;
    uint32_t magic;
    bool index_has_checksum;
    uint32_t first_header;
    int usual_size;
    int usual_histories;
    int small_size; // for three histories
    void (*fill)(const std::string &image);
};

constexpr int pod_device = 0; // the id of the device that is used

// The contents that the input asks for; they also describe the device to the library.
std::string prepare_pod_storage(const pod_storage &storage, std::string_view input);

void use_pod_storage(const pod_storage &storage, std::string_view input);

} // namespace fuzz

// POD logs as runs of the diagnostics leave them in NVRAM and in files. Records are put together
// here byte by byte, so that what the library reads has not been made by the library.
#pragma once

#include "sim/base/bytes.h"

#include <cstdint>
#include <string>
#include <vector>

namespace chassis_sim
{

enum class chassis_model { n20, n10, n4 };

// The records of a log, with right checksums whatever their fields say.
std::string pod_header(uint32_t history_size, uint32_t used, uint32_t start);
std::string pod_entry(uint64_t seconds, uint32_t entry_size);

// A storage of the POD log, and where it keeps its histories.
struct pod_layout {
    uint32_t magic;
    uint32_t first_header;
    uint32_t history_size;
    uint32_t histories;
    size_t size;
    size_t status_position; // of an NVRAM's status words; 0: it is no NVRAM

    bool is_nvram() const { return status_position != 0; }
    uint32_t header_at(uint32_t history) const { return first_header + history * history_size; }
};

struct pod_message {
    uint64_t seconds;
    std::string text;
};
using pod_run = std::vector<pod_message>;

constexpr size_t pod_index_position = 32;
std::string pod_index(const pod_layout &layout, uint32_t current);

// A storage whose histories from 0 on hold these runs; the others are empty. All status words say
// that nothing is known.
std::string log_image(const pod_layout &layout, uint32_t current, const std::vector<pod_run> &runs);

// A file and what is in it.
struct file_image {
    std::string path;
    std::string contents;
    std::string card = {}; // whose log it is
};

struct pod_logs {
    std::string nvram = std::string(16384, '\0'); // of this route processor; blank: never used
    std::vector<file_image> files;                // of the other cards
};

// The logs of a chassis whose cards have run their diagnostics twice. The status words in the NVRAM
// say that all passed but ALSW2.
pod_logs sample_pod_logs(chassis_model model);

// Brings a sample log into a state: "sample", as it is; "blank"; "full", no history has room;
// "torn", the header of the last run is half written; "bad-entry-N", the checksum of its entry N is
// wrong.
void bring_into_state(std::string &image, const std::string &card, const std::string &state);

} // namespace chassis_sim

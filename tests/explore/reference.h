// What a POD log holds, as docs/pod_log_storage.md describes it, and what each operation makes of
// it.
#pragma once

#include "explore/storage.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace explore
{

constexpr size_t most_histories = 4;
constexpr size_t most_entries = 4;

using message = std::array<char, 4>; // the texts of an exploration have fewer than 4 bytes

struct entry {
    bool good = false; // its header's checksum is right
    message text = {};
    bool operator==(const entry &) const = default;
};

struct history {
    bool good = false; // as for an entry
    uint32_t used = 0; // entries that its header counts
    std::array<entry, most_entries> entries = {};
    bool operator==(const history &) const = default;
};

enum class index_state : uint8_t {
    blank,     // no log
    damaged,   // NVRAM: the magic number of a log, and a wrong checksum
    misplaced, // files and EEPROMs: histories lie where the configuration does not say
    good
};

struct contents {
    index_state index = index_state::blank;
    uint32_t current = 0;
    std::array<history, most_histories> histories = {};
    bool operator==(const contents &) const = default;
};

contents decoded(const layout &where, const std::string &image);

// Whether the log opens for writing, but for what is blank.
bool opens(const layout &where, const contents &log);

// What a reader finds, as storage::found() says it. Nothing is promised of a misplaced log.
std::string found(const layout &where, const contents &log);

// A write of an operation: of which record, and what the log holds after it.
struct change {
    enum record { nothing, index, header, entry } what;
    uint32_t position;
    contents after;
};

// Whether a cut within the change may leave this.
bool may_leave(const contents &before, const change &cut, const contents &left);

struct prediction {
    int result = -1;
    std::vector<change> changes = {};
};
using predicted = std::optional<prediction>; // nothing is promised of what is misplaced
predicted of_init(const layout &where, const contents &log);
predicted of_add_a(const layout &where, const contents &log);
predicted of_add_b(const layout &where, const contents &log);
predicted of_add_raw_b(const layout &where, const contents &log);
predicted of_next(const layout &where, const contents &log);
predicted of_set_status(const layout &where, const contents &log);
predicted of_reset(const layout &where, const contents &log);

} // namespace explore

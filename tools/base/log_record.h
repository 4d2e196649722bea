// The records that logs consist of, as commands judge and show them.
#pragma once

#include "tools/base/output.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace devaccess
{

enum class record_state { good, blank, bad };

struct log_record {
    const char *kind; // "index", "header" or "entry"
    std::optional<int> history;
    std::optional<int> entry;
    size_t position;
    record_state state;
    std::optional<uint32_t> stored; // checksum
    std::optional<uint32_t> computed;
    std::string problem; // of a bad one

    std::string name() const; // "header of history 3"
};

// Says that a record is bad, unless another reason has been found before.
void refuse(log_record &record, const std::string &problem);

// A line of a table.
record record_row(const log_record &what);
record_set record_rows(const std::vector<log_record> &records);

} // namespace devaccess

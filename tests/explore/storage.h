// A POD log in memory: the real ring works on it through the real calls of its storage, and what it
// writes is kept, write by write.
#pragma once

#include "support/pod_calls.h"

#include <cstdint>
#include <string>
#include <vector>

namespace explore
{

enum class kind { nvram, file, eeprom };

// Where things lie in a small log, whose histories have room for so many entries.
struct layout {
    kind storage;
    uint32_t histories;
    uint32_t entries;

    bool is_nvram() const { return storage == kind::nvram; }
    // The largest with this room: two of its four bytes count, so that half of it is another size.
    uint32_t history_size() const { return 100 + 80 * entries; }
    uint32_t index_size() const { return is_nvram() ? 16 : 12; }
    uint32_t magic() const { return is_nvram() ? 0x1FE2C365 : 0x1FE2C363; }
    uint32_t header_at(uint32_t history) const
    {
        return 32 + index_size() + history * history_size();
    }
    uint32_t entry_at(uint32_t history, uint32_t number) const
    {
        return header_at(history) + 20 + 80 * number;
    }
    uint32_t log_end() const { return header_at(histories); }
    uint32_t size() const { return log_end() + 200; }
};

struct written {
    uint32_t position;
    std::string bytes;
};

class storage
{
public:
    explicit storage(const layout &where); // one at a time

    const layout where;
    const test::pod_log_calls &calls;
    std::string image;
    std::vector<written> writes; // that the calls have made

    // Opens for writing, makes the call, and closes; returns the call's result, or -1.
    template <typename Call>
    int with_open(Call call)
    {
        const int opened = calls.init(0, 0);
        const int result = opened == 1 ? call() : -1;
        if (opened == 1)
            calls.close(0);
        return result;
    }

    int init();
    int add(const char *text);
    int add_raw(const char *text); // EEPROMs have that
    int next();
    int set_status();
    int reset();                          // brings back what does not open, too
    void write(const std::string &bytes); // what differs, as far as it differs in one write each

    // More text than any log has.
    static constexpr size_t longest_log = 200;

    // What a reader finds, newest history first: "1: a|bc, 0: a, "; "!" where it cannot be read.
    std::string found();
};

} // namespace explore

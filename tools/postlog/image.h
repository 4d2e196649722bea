// The bytes of a POST log's block, in either byte order, record by record: by the headers where
// these are good, and otherwise wherever good entries are found.
#pragma once

#include "tools/base/log_record.h"

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace devaccess
{

enum class byte_order { little, big };

struct post_entry {
    time_t time;
    std::string message;
};

struct post_history {
    int number;
    log_record header;
    size_t begin;                    // of its entries
    size_t end;                      // of the room for them
    size_t used;                     // bytes of them, by the header; none when that is not good
    std::vector<log_record> entries; // what the header counts, good or bad, in order
    std::vector<log_record> others;  // good ones besides

    // Up to the first bad one.
    std::vector<log_record> chain() const;
};

class post_image
{
public:
    // The byte order is that in which most records are good.
    post_image(int histories, const std::string &bytes);

    const std::string &bytes() const { return bytes_; }
    byte_order order() const { return order_; }
    const std::vector<post_history> &histories() const { return histories_; }

    size_t good_records() const;
    bool is_blank() const;
    bool holds_nothing() const; // no good record
    // An entry that is missing where the header counts one is among them.
    std::vector<log_record> wrong() const;
    std::vector<log_record> records() const; // all that are not blank
    std::vector<log_record> good_entries() const;
    post_entry entry(const log_record &slot) const;

    // The histories that have entries which readers find, newest first.
    std::vector<const post_history *> written() const;

private:
    post_image(int histories, const std::string &bytes, byte_order order);
    bool has_index() const { return count_ > 1; }
    uint64_t number(size_t position, size_t width) const;
    std::optional<size_t> stride() const;
    log_record summed(const char *kind, size_t position, size_t size, size_t sum_at) const;
    log_record decode_index() const;
    post_history decode_history(int number, size_t position, size_t end) const;
    log_record decode_entry(size_t position, size_t end) const;
    bool fits(size_t position, size_t end) const;
    size_t skip_blank(size_t position) const;
    size_t find_entry(size_t position, size_t end, size_t limit) const;
    void decode_entries(post_history &history) const;
    int current() const;

    int count_;
    std::string bytes_;
    byte_order order_;
    std::optional<log_record> index_;
    std::vector<post_history> histories_;
};

} // namespace devaccess

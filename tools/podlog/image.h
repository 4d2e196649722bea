// The bytes of a POD log, record by record at the positions where records stand, whatever the index
// and the headers say.
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

// How a kind of storage lays its log out.
struct log_layout {
    const char *name;
    const char *title; // "an EEPROM's log"
    uint32_t magic;
    bool sealed_index; // with a checksum
    size_t size;
    int histories;
    size_t first_header;
    uint32_t stride; // from one history to the next

    size_t header_position(int history) const
    {
        return first_header + static_cast<size_t>(history) * stride;
    }
    // Of a history, after whose last entry one byte at least stays free. The header stops counting
    // before the last, which every further entry replaces.
    size_t most_entries() const;
};

inline constexpr log_layout nvram_layout = {
    "nvram", "an NVRAM's log", 0x1FE2C365, true, 16384, 10, 48, 1600};
inline constexpr log_layout file_layout = {"file", "a file's log", 0x1FE2C363, false, 16384, 10, 44,
                                           1635};
inline constexpr log_layout eeprom_layout = {
    "eeprom", "an EEPROM's log", 0x1FE2C363, false, 8192, 2, 44, 4080};

inline constexpr size_t entry_stride = 80;

struct log_entry {
    time_t time;
    std::string message; // with all its bytes
};

struct log_history {
    int number;
    log_record header;
    size_t used; // entries, by the header
    std::vector<log_record> slots;
};

class log_image
{
public:
    log_image(const log_layout &layout, std::string bytes);

    const log_layout &layout() const { return layout_; }
    const std::string &bytes() const { return bytes_; } // filled up with zeros to the layout's size
    size_t missing() const { return missing_; }         // bytes that were filled up
    const log_record &index() const { return index_; }
    const std::vector<log_history> &histories() const { return histories_; }

    // What NVRAM has besides the log: the status word of an index, and the mask of fault flags.
    uint32_t status_word(int index) const;
    uint32_t fault_mask() const;

    bool is_blank() const;      // no record, as far as it has room for one, or erased: all ones
    bool holds_nothing() const; // no record of a log of this layout
    bool holds_log() const;     // maybe a damaged one, also at other positions
    std::vector<log_record> wrong() const;
    bool is_good() const { return missing_ == 0 && wrong().empty(); }
    std::vector<log_record> records() const; // all that are not blank

    // The current history: by the index or, when that is bad, by what is left of it and the times
    // of the entries.
    int current() const;

    // Entries as readers of a history find them, and all that are good.
    std::vector<log_record> chain(const log_history &history) const;
    std::vector<log_record> good_entries() const;
    // Good entries, of the right size, at other positions than those where entries stand.
    std::vector<log_record> strays() const;
    size_t count_good() const; // records
    log_entry entry(const log_record &slot) const;

    // The histories that have entries, newest first.
    std::vector<const log_history *> written() const;

    // Whether readers find nothing of a history because its header, or its first entry, is bad.
    bool is_unreadable(const log_history &history) const;

    // A log without wrong records that has every good entry, and the strays for which there is
    // room.
    std::string repaired() const;

private:
    log_record summed(const char *kind, size_t position, const std::string &bytes, uint32_t stored,
                      uint32_t computed) const;
    log_record decode_index() const;
    log_history decode_history(int number) const;
    log_record decode_entry(int history, int slot, size_t position) const;
    bool expects_entry(const log_history &history, size_t slot) const;
    bool is_consistent(const log_history &history) const;
    std::string rebuilt(const log_history &history) const;
    std::string written_anew(const std::vector<log_record> &strays) const;
    std::string sealed_index(int current) const;
    int64_t latest_second(const log_history &history) const;
    const log_history &latest_history() const;
    uint32_t second_at(size_t position) const; // as it is stored, of an entry

    log_layout layout_;
    size_t missing_;
    std::string bytes_;
    log_record index_;
    std::vector<log_history> histories_;
};

// What the bytes hold by the layout by which most of their records are good: one of the three, or
// one with histories of the size that the index says, when they fill the storage so.
struct likely_log {
    log_layout layout;
    size_t good_records;
    size_t entries;
};
likely_log recognise(const std::string &bytes);

} // namespace devaccess

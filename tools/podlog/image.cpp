// Decodes the records of a POD log, and builds a log of those that are good.
#include "tools/podlog/image.h"

#include <device_access/pod_log_crc_tmp.h>
#include <device_access/pod_log_file.h>
#include <device_access/pod_log_nvram.h>

#include <algorithm>
#include <cstring>

#include <fmt/format.h>

namespace devaccess
{
namespace
{

// Of an index that has no checksum, the first members alone.
using index_record = podlog::nvram_log_index_t;
using header_record = file_log_header_t;
using entry_record = file_log_t;
constexpr size_t unsealed_index_size = sizeof(file_log_index_t);

constexpr size_t index_position = 32;
constexpr size_t message_size = entry_stride - sizeof(entry_record);
constexpr uint32_t header_version = 0x1122;
constexpr int most_histories = 200;

// After the log in NVRAM: 8 status words, and then the fault mask.
constexpr size_t status_words_at = nvram_layout.size - 72;
constexpr size_t fault_mask_at = nvram_layout.size - 40;

template <typename Record>
Record record_at(const std::string &bytes, size_t position)
{
    Record record = {};
    if (position < bytes.size())
        std::memcpy(&record, bytes.data() + position,
                    std::min(sizeof record, bytes.size() - position));
    return record;
}

template <typename Record>
std::string bytes_of(const Record &record)
{
    return {reinterpret_cast<const char *>(&record), sizeof record};
}

uint32_t checksum_of(const index_record &index)
{
    return crc32_cksum(&index, offsetof(index_record, checksum));
}

uint32_t checksum_of(const header_record &header)
{
    return crc32_cksum(&header.log_size, sizeof header - sizeof header.header_checksum);
}

uint32_t checksum_of(entry_record entry)
{
    entry.log_checksum = 0;
    return crc32_cksum(&entry, sizeof entry);
}

bool is_zero(const std::string &bytes)
{
    return bytes.find_first_not_of('\0') == bytes.npos;
}

// The layout with histories of the size that the index says, as many as fill the storage; nothing
// when they do not.
std::optional<log_layout> resized(log_layout layout, const std::string &bytes)
{
    const auto index = record_at<index_record>(bytes, index_position);
    const bool is_whole = !layout.sealed_index || checksum_of(index) == index.checksum;
    if (index.magic != layout.magic || !is_whole || index.log_size == layout.stride ||
        index.log_size < sizeof(header_record) + 2 * entry_stride)
        return std::nullopt;
    layout.stride = index.log_size;
    layout.size = bytes.size();
    layout.histories = 0;
    for (; layout.histories < most_histories; ++layout.histories) {
        const size_t position = layout.header_position(layout.histories);
        const auto header = record_at<header_record>(bytes, position);
        if (header.log_size != layout.stride || header.start != position + sizeof header ||
            checksum_of(header) != header.header_checksum)
            break;
    }
    const size_t end = layout.header_position(layout.histories + 2);
    return layout.histories >= 2 && end > bytes.size() ? std::optional(layout) : std::nullopt;
}

std::string fresh_header(const log_layout &layout, int history, size_t entries)
{
    header_record header = {};
    header.log_size = layout.stride;
    header.index = static_cast<uint32_t>(entries * entry_stride);
    header.version = header_version;
    header.start = static_cast<uint32_t>(layout.header_position(history) + sizeof header);
    header.header_checksum = checksum_of(header);
    return bytes_of(header);
}

using entry_runs = std::vector<std::vector<size_t>>;

// Puts the two neighbours with the fewest entries together; false where none fit.
bool merge_shortest(entry_runs &runs, size_t most)
{
    size_t best = runs.size();
    size_t fewest = most;
    for (size_t i = 0; i + 1 < runs.size(); ++i)
        if (const size_t both = runs[i].size() + runs[i + 1].size(); both <= fewest) {
            fewest = both;
            best = i;
        }
    if (best == runs.size())
        return false;
    const auto next = runs.begin() + static_cast<std::ptrdiff_t>(best) + 1;
    runs[best].insert(runs[best].end(), next->begin(), next->end());
    runs.erase(next);
    return true;
}

// At most so many runs of at most so many entries: the newest, in the same order.
void fit(entry_runs &runs, size_t histories, size_t most)
{
    while (runs.size() > histories && merge_shortest(runs, most)) {
    }
    if (runs.size() <= histories)
        return;
    std::vector<size_t> all;
    for (const auto &run : runs)
        all.insert(all.end(), run.begin(), run.end());
    runs.clear();
    const size_t room = histories * most;
    for (size_t i = all.size() - std::min(all.size(), room); i < all.size(); ++i) {
        if (runs.empty() || runs.back().size() == most)
            runs.emplace_back();
        runs.back().push_back(all[i]);
    }
}

} // namespace

size_t log_layout::most_entries() const
{
    return (stride - 1 - sizeof(header_record)) / entry_stride;
}

log_image::log_image(const log_layout &layout, std::string bytes)
    : layout_(layout), missing_(layout.size - std::min(layout.size, bytes.size())),
      bytes_(std::move(bytes))
{
    bytes_.resize(std::max(bytes_.size(), layout.size));
    index_ = decode_index();
    for (int number = 0; number < layout.histories; ++number)
        histories_.push_back(decode_history(number));
}

// A record whose checksum alone has been looked at.
log_record log_image::summed(const char *kind, size_t position, const std::string &bytes,
                             uint32_t stored, uint32_t computed) const
{
    log_record record = {kind, {}, {}, position, record_state::good, stored, computed, ""};
    if (is_zero(bytes)) {
        record.state = record_state::blank;
        record.problem = "blank";
        if (position + bytes.size() > bytes_.size() - missing_) {
            record.problem = "beyond the end";
            record.stored = record.computed = std::nullopt;
        }
    } else if (stored != computed) {
        record.state = record_state::bad;
        record.problem = "bad checksum";
    }
    return record;
}

log_record log_image::decode_index() const
{
    const auto index = record_at<index_record>(bytes_, index_position);
    const uint32_t computed = checksum_of(index);
    const uint32_t stored = layout_.sealed_index ? index.checksum : computed;
    const size_t size = layout_.sealed_index ? sizeof index : unsealed_index_size;
    log_record record =
        summed("index", index_position, bytes_.substr(index_position, size), stored, computed);
    if (index.magic != layout_.magic)
        refuse(record,
               fmt::format("magic number {:#x}, expected {:#x}", index.magic, layout_.magic));
    if (index.header_index >= static_cast<uint32_t>(layout_.histories))
        refuse(record,
               fmt::format("current history {} of {}", index.header_index, layout_.histories));
    if (index.log_size != layout_.stride)
        refuse(record, fmt::format("history size {}, expected {}", index.log_size, layout_.stride));
    if (!layout_.sealed_index)
        record.stored = record.computed = std::nullopt;
    return record;
}

log_history log_image::decode_history(int number) const
{
    const size_t position = layout_.header_position(number);
    const auto header = record_at<header_record>(bytes_, position);
    const size_t start = position + sizeof header;
    log_history history = {number, {}, header.index / entry_stride, {}};
    history.header =
        summed("header", position, bytes_of(header), header.header_checksum, checksum_of(header));
    history.header.history = number;
    if (header.log_size != layout_.stride)
        refuse(history.header,
               fmt::format("history size {}, expected {}", header.log_size, layout_.stride));
    if (header.start != start)
        refuse(history.header, fmt::format("entries at {}, expected at {}", header.start, start));
    if (history.used >= layout_.most_entries())
        refuse(history.header, fmt::format("{} entries are too many", history.used));
    for (size_t slot = 0; slot < layout_.most_entries(); ++slot)
        history.slots.push_back(
            decode_entry(number, static_cast<int>(slot), start + slot * entry_stride));
    return history;
}

log_record log_image::decode_entry(int history, int slot, size_t position) const
{
    const auto entry = record_at<entry_record>(bytes_, position);
    log_record record =
        summed("entry", position, bytes_of(entry), entry.log_checksum, checksum_of(entry));
    record.history = history;
    record.entry = slot;
    return record;
}

uint32_t log_image::status_word(int index) const
{
    return record_at<uint32_t>(bytes_, status_words_at + 4 * static_cast<size_t>(index));
}

uint32_t log_image::fault_mask() const
{
    return record_at<uint32_t>(bytes_, fault_mask_at);
}

//--- what is there --------------------------------------------------------------------------------

bool log_image::is_blank() const
{
    const size_t there = bytes_.size() - missing_;
    const bool has_room = there >= index_position + unsealed_index_size;
    return (has_room ? records().empty() : is_zero(bytes_)) ||
           bytes_.find_first_not_of('\xff') >= there;
}

bool log_image::holds_nothing() const
{
    const bool headers = std::any_of(histories_.begin(), histories_.end(), [](const auto &history) {
        return history.header.state == record_state::good;
    });
    return record_at<uint32_t>(bytes_, index_position) != layout_.magic && !headers &&
           good_entries().empty();
}

bool log_image::holds_log() const
{
    return !is_blank() && (!holds_nothing() || !strays().empty());
}

std::vector<log_record> log_image::records() const
{
    std::vector<log_record> all = {index_};
    for (const log_history &history : histories_) {
        all.push_back(history.header);
        all.insert(all.end(), history.slots.begin(), history.slots.end());
    }
    std::erase_if(all, [](const log_record &r) { return r.state == record_state::blank; });
    return all;
}

// A header counts the entries before the place of the next; in a full history, the last entry
// stands in that place.
bool log_image::expects_entry(const log_history &history, size_t slot) const
{
    const bool is_bad = history.slots[slot].state == record_state::bad;
    if (history.header.state != record_state::good)
        return is_bad;
    const bool is_last = slot + 1 == layout_.most_entries() && history.used + 1 == slot + 1;
    return slot < history.used || (is_last && is_bad);
}

std::vector<log_record> log_image::wrong() const
{
    std::vector<log_record> found;
    if (index_.state != record_state::good)
        found.push_back(index_);
    for (const log_history &history : histories_) {
        if (history.header.state != record_state::good)
            found.push_back(history.header);
        for (size_t slot = 0; slot < history.slots.size(); ++slot)
            if (history.slots[slot].state != record_state::good && expects_entry(history, slot))
                found.push_back(history.slots[slot]);
    }
    return found;
}

bool log_image::is_unreadable(const log_history &history) const
{
    return history.header.state != record_state::good ||
           (history.used > 0 && history.slots[0].state == record_state::bad);
}

std::vector<log_record> log_image::chain(const log_history &history) const
{
    if (history.header.state != record_state::good || history.used == 0)
        return {};
    const auto end = std::find_if(history.slots.begin(), history.slots.end(), [](const auto &slot) {
        return slot.state != record_state::good;
    });
    return {history.slots.begin(), end};
}

std::vector<const log_history *> log_image::written() const
{
    std::vector<const log_history *> found;
    for (int step = 0, newest = current(); step < layout_.histories; ++step) {
        const int number = (newest - step + layout_.histories) % layout_.histories;
        const log_history &history = histories_[static_cast<size_t>(number)];
        if (!chain(history).empty())
            found.push_back(&history);
    }
    return found;
}

std::vector<log_record> log_image::good_entries() const
{
    std::vector<log_record> found;
    for (const log_history &history : histories_)
        std::copy_if(history.slots.begin(), history.slots.end(), std::back_inserter(found),
                     [](const log_record &slot) { return slot.state == record_state::good; });
    return found;
}

size_t log_image::count_good() const
{
    const auto all = records();
    return static_cast<size_t>(std::count_if(all.begin(), all.end(), [](const log_record &record) {
        return record.state == record_state::good;
    }));
}

std::vector<log_record> log_image::strays() const
{
    std::vector<bool> taken(bytes_.size());
    for (const log_record &slot : good_entries())
        std::fill_n(taken.begin() + static_cast<std::ptrdiff_t>(slot.position),
                    sizeof(entry_record), true);
    std::vector<log_record> found;
    for (size_t at = 0; at + entry_stride <= bytes_.size(); ++at) {
        const auto entry = record_at<entry_record>(bytes_, at);
        const auto high = static_cast<uint32_t>(entry.epoch_time >> 32);
        if (entry.entry_size != message_size || (high != 0 && high != UINT32_MAX) || taken[at] ||
            taken[at + sizeof entry - 1] || checksum_of(entry) != entry.log_checksum)
            continue;
        found.push_back(
            {"entry", {}, {}, at, record_state::good, entry.log_checksum, entry.log_checksum, ""});
        at += sizeof entry - 1;
    }
    return found;
}

uint32_t log_image::second_at(size_t position) const
{
    return static_cast<uint32_t>(record_at<entry_record>(bytes_, position).epoch_time);
}

log_entry log_image::entry(const log_record &slot) const
{
    return {static_cast<time_t>(second_at(slot.position)),
            bytes_.substr(slot.position + sizeof(entry_record), message_size)};
}

//--- which history is the current one -------------------------------------------------------------

// Before all others where it has no entry. A time_t of 32 bits would take those after January 2038
// for earlier ones.
int64_t log_image::latest_second(const log_history &history) const
{
    int64_t latest = -1;
    for (const log_record &slot : history.slots)
        if (slot.state == record_state::good)
            latest = std::max(latest, int64_t{second_at(slot.position)});
    return latest;
}

const log_history &log_image::latest_history() const
{
    return *std::max_element(histories_.begin(), histories_.end(),
                             [&](const log_history &one, const log_history &other) {
                                 return latest_second(one) < latest_second(other);
                             });
}

int log_image::current() const
{
    const auto index = record_at<index_record>(bytes_, index_position);
    const uint32_t named = index.header_index;
    const bool in_range = named < static_cast<uint32_t>(layout_.histories);
    if (index_.state == record_state::good)
        return static_cast<int>(named);
    // The index to which a checksum belongs that has itself survived.
    for (int history = 0; layout_.sealed_index && history < layout_.histories; ++history)
        if (sealed_index(history).substr(unsealed_index_size) ==
            bytes_of(index).substr(unsealed_index_size))
            return history;
    const bool is_likely = in_range && index_.state != record_state::blank &&
                           is_consistent(histories_[named]) &&
                           (histories_[named].used == 0 ||
                            latest_second(histories_[named]) == latest_second(latest_history()));
    return is_likely ? static_cast<int>(named) : latest_history().number;
}

//--- repair ---------------------------------------------------------------------------------------

bool log_image::is_consistent(const log_history &history) const
{
    if (history.header.state != record_state::good)
        return false;
    for (size_t slot = 0; slot < history.slots.size(); ++slot)
        if (history.slots[slot].state != record_state::good && expects_entry(history, slot))
            return false;
    return true;
}

std::string log_image::sealed_index(int current) const
{
    index_record index = {layout_.magic, static_cast<uint32_t>(current), layout_.stride, 0};
    index.checksum = checksum_of(index);
    return bytes_of(index).substr(0, layout_.sealed_index ? sizeof index : unsealed_index_size);
}

// The history's good entries, one after the other.
std::string log_image::rebuilt(const log_history &history) const
{
    std::string entries;
    for (const log_record &slot : history.slots)
        if (slot.state == record_state::good)
            entries += bytes_.substr(slot.position, entry_stride);
    const size_t count = entries.size() / entry_stride;
    entries.resize(layout_.most_entries() * entry_stride);
    return fresh_header(layout_, history.number, std::min(count, layout_.most_entries() - 1)) +
           entries;
}

// Runs of entries that stood one after another, oldest first, each in a history of its own as far
// as there are so many; if not, short neighbours share one and, where none fit, each is filled; of
// what is still too much the oldest goes.
std::string log_image::written_anew(const std::vector<log_record> &strays) const
{
    entry_runs runs;
    for (const log_history &history : histories_) {
        std::vector<size_t> run;
        for (const log_record &slot : history.slots)
            if (slot.state == record_state::good)
                run.push_back(slot.position);
        if (!run.empty())
            runs.push_back(run);
    }
    for (const log_record &stray : strays) {
        const bool goes_on = &stray != &strays.front() &&
                             runs.back().back() + entry_stride == stray.position &&
                             runs.back().size() < layout_.most_entries();
        if (!goes_on)
            runs.emplace_back();
        runs.back().push_back(stray.position);
    }
    std::stable_sort(runs.begin(), runs.end(), [&](const auto &one, const auto &other) {
        return second_at(one.front()) < second_at(other.front());
    });
    fit(runs, static_cast<size_t>(layout_.histories), layout_.most_entries());

    std::string bytes = bytes_;
    const auto put = [&](size_t position, const std::string &part) {
        bytes.replace(position, part.size(), part);
    };
    runs.resize(static_cast<size_t>(layout_.histories));
    int current = 0;
    for (int number = 0; number < layout_.histories; ++number) {
        const auto &run = runs[static_cast<size_t>(number)];
        std::string entries;
        for (const size_t position : run)
            entries += bytes_.substr(position, entry_stride);
        entries.resize(layout_.most_entries() * entry_stride);
        const size_t counted = std::min(run.size(), layout_.most_entries() - 1);
        put(layout_.header_position(number), fresh_header(layout_, number, counted) + entries);
        current = run.empty() ? current : number;
    }
    put(index_position, sealed_index(current));
    return bytes;
}

std::string log_image::repaired() const
{
    if (const auto found = strays(); !found.empty())
        return written_anew(found);
    std::string bytes = bytes_;
    const auto put = [&](size_t position, const std::string &part) {
        bytes.replace(position, part.size(), part);
    };
    if (index_.state != record_state::good)
        put(index_position, sealed_index(current()));
    for (const log_history &history : histories_)
        if (!is_consistent(history))
            put(history.header.position, rebuilt(history));
    return bytes;
}

likely_log recognise(const std::string &bytes)
{
    likely_log likely = {nvram_layout, 0, 0};
    const auto try_layout = [&](const log_layout &layout) {
        const log_image image(layout, bytes);
        if (const size_t good = image.count_good(); good > likely.good_records)
            likely = {layout, good, image.good_entries().size()};
    };
    for (const log_layout &layout : {nvram_layout, file_layout, eeprom_layout})
        try_layout(layout);
    for (const log_layout &layout : {nvram_layout, file_layout})
        if (const auto other_size = resized(layout, bytes))
            try_layout(*other_size);
    return likely;
}

} // namespace devaccess

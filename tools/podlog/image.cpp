#include "tools/podlog/image.h"

#include <device_access/pod_log_crc_tmp.h>

#include <algorithm>

#include <fmt/format.h>

namespace devaccess
{
namespace
{

constexpr size_t index_position = 32;
constexpr size_t header_size = 20;
constexpr size_t entry_size = 16;
constexpr size_t message_size = entry_stride - entry_size;
constexpr uint32_t header_version = 0x1122;

std::string word(uint32_t value)
{
    std::string bytes;
    for (int shift = 0; shift < 32; shift += 8)
        bytes += static_cast<char>(value >> shift & 0xff);
    return bytes;
}

uint32_t checksum_of(const std::string &bytes)
{
    return crc32_cksum(bytes.data(), bytes.size());
}

bool is_zero(const std::string &bytes)
{
    return bytes.find_first_not_of('\0') == bytes.npos;
}

// A record whose checksum alone has been looked at.
log_record summed(const char *kind, size_t position, const std::string &bytes, uint32_t stored,
                  uint32_t computed)
{
    log_record record = {kind, {}, {}, position, record_state::good, stored, computed, ""};
    if (is_zero(bytes)) {
        record.state = record_state::blank;
        record.problem = "blank";
    } else if (stored != computed) {
        record.state = record_state::bad;
        record.problem = "bad checksum";
    }
    return record;
}

void refuse(log_record &record, const std::string &problem)
{
    if (record.state != record_state::good)
        return;
    record.state = record_state::bad;
    record.problem = problem;
}

std::string fresh_header(const log_layout &layout, int history, size_t entries)
{
    const auto start = static_cast<uint32_t>(layout.header_position(history) + header_size);
    const std::string numbers = word(layout.stride) +
                                word(static_cast<uint32_t>(entries * entry_stride)) +
                                word(header_version) + word(start);
    return word(checksum_of(numbers)) + numbers;
}

// Of a history; the header stops counting before the last, which every further entry replaces.
size_t most_entries(const log_layout &layout)
{
    return (layout.stride - header_size) / entry_stride;
}

} // namespace

uint32_t little_endian_at(const std::string &bytes, size_t position)
{
    uint32_t value = 0;
    for (size_t i = 4; i-- > 0;)
        value = value << 8 | static_cast<unsigned char>(bytes.at(position + i));
    return value;
}

std::string log_record::name() const
{
    if (!history)
        return kind;
    return entry ? fmt::format("entry {} of history {}", *entry, *history)
                 : fmt::format("header of history {}", *history);
}

log_image::log_image(const log_layout &layout, std::string bytes)
    : layout_(&layout), missing_(layout.size - std::min(layout.size, bytes.size())),
      bytes_(std::move(bytes))
{
    bytes_.resize(std::max(bytes_.size(), layout.size));
    index_ = decode_index();
    for (int number = 0; number < layout.histories; ++number)
        histories_.push_back(decode_history(number));
}

log_record log_image::decode_index() const
{
    const std::string bytes = bytes_.substr(index_position, layout_->sealed_index ? 16 : 12);
    const uint32_t computed = checksum_of(bytes.substr(0, 12));
    const uint32_t stored = layout_->sealed_index ? little_endian_at(bytes, 12) : computed;
    log_record index = summed("index", index_position, bytes, stored, computed);
    const uint32_t magic = little_endian_at(bytes, 0);
    const uint32_t current = little_endian_at(bytes, 4);
    const uint32_t stride = little_endian_at(bytes, 8);
    if (magic != layout_->magic)
        refuse(index, fmt::format("magic number {:#x}, expected {:#x}", magic, layout_->magic));
    if (current >= static_cast<uint32_t>(layout_->histories))
        refuse(index, fmt::format("current history {} of {}", current, layout_->histories));
    if (stride != layout_->stride)
        refuse(index, fmt::format("history size {}, expected {}", stride, layout_->stride));
    if (!layout_->sealed_index)
        index.stored = index.computed = std::nullopt;
    return index;
}

log_history log_image::decode_history(int number) const
{
    const size_t position = layout_->header_position(number);
    const std::string bytes = bytes_.substr(position, header_size);
    const size_t start = position + header_size;
    log_history history = {number, {}, little_endian_at(bytes, 8) / entry_stride, {}};
    history.header =
        summed("header", position, bytes, little_endian_at(bytes, 0), checksum_of(bytes.substr(4)));
    history.header.history = number;
    if (little_endian_at(bytes, 4) != layout_->stride)
        refuse(history.header, fmt::format("history size {}, expected {}",
                                           little_endian_at(bytes, 4), layout_->stride));
    if (little_endian_at(bytes, 16) != start)
        refuse(history.header,
               fmt::format("entries at {}, expected at {}", little_endian_at(bytes, 16), start));
    if (history.used >= most_entries(*layout_))
        refuse(history.header, fmt::format("{} entries are too many", history.used));
    for (size_t slot = 0; slot < most_entries(*layout_); ++slot) {
        const size_t at = start + slot * entry_stride;
        std::string entry = bytes_.substr(at, entry_size);
        const std::string unsummed = entry.substr(0, 8) + word(0) + entry.substr(12);
        history.slots.push_back(
            summed("entry", at, entry, little_endian_at(entry, 8), checksum_of(unsummed)));
        history.slots.back().history = number;
        history.slots.back().entry = static_cast<int>(slot);
    }
    return history;
}

//--- what is there --------------------------------------------------------------------------------

bool log_image::is_blank() const
{
    return records().empty();
}

bool log_image::holds_nothing() const
{
    const bool headers = std::any_of(histories_.begin(), histories_.end(), [](const auto &history) {
        return history.header.state == record_state::good;
    });
    return little_endian_at(bytes_, index_position) != layout_->magic && !headers &&
           good_entries().empty();
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
    const bool is_last = slot + 1 == most_entries(*layout_) && history.used + 1 == slot + 1;
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
    for (int step = 0, newest = current(); step < layout_->histories; ++step) {
        const int number = (newest - step + layout_->histories) % layout_->histories;
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

log_entry log_image::entry(const log_record &slot) const
{
    return {static_cast<time_t>(little_endian_at(bytes_, slot.position)),
            bytes_.substr(slot.position + entry_size, message_size)};
}

//--- which history is the current one -------------------------------------------------------------

int log_image::latest_history() const
{
    int latest = 0;
    time_t time = -1;
    for (const log_record &slot : good_entries())
        if (entry(slot).time > time) {
            time = entry(slot).time;
            latest = *slot.history;
        }
    return latest;
}

int log_image::current() const
{
    const uint32_t named = little_endian_at(bytes_, index_position + 4);
    const bool in_range = named < static_cast<uint32_t>(layout_->histories);
    if (index_.state == record_state::good)
        return static_cast<int>(named);
    // The index to which a checksum belongs that has itself survived.
    for (int history = 0; layout_->sealed_index && history < layout_->histories; ++history)
        if (sealed_index(history).substr(12) == bytes_.substr(index_position + 12, 4))
            return history;
    const bool is_likely =
        in_range && index_.state != record_state::blank && is_consistent(histories_[named]) &&
        (histories_[named].used == 0 || latest_history() == static_cast<int>(named));
    return is_likely ? static_cast<int>(named) : latest_history();
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
    const std::string numbers =
        word(layout_->magic) + word(static_cast<uint32_t>(current)) + word(layout_->stride);
    return layout_->sealed_index ? numbers + word(checksum_of(numbers)) : numbers;
}

// The history's good entries, one behind the other.
std::string log_image::rebuilt(const log_history &history) const
{
    std::string entries;
    for (const log_record &slot : history.slots)
        if (slot.state == record_state::good)
            entries += bytes_.substr(slot.position, entry_stride);
    const size_t count = entries.size() / entry_stride;
    entries.resize(most_entries(*layout_) * entry_stride);
    return fresh_header(*layout_, history.number, std::min(count, most_entries(*layout_) - 1)) +
           entries;
}

std::string log_image::repaired() const
{
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

const log_layout &likely_layout(const std::string &bytes)
{
    const log_layout *likely = &nvram_layout;
    size_t most = 0;
    for (const log_layout *layout : {&nvram_layout, &file_layout, &eeprom_layout}) {
        const log_image image(*layout, bytes);
        const auto records = image.records();
        const auto good = static_cast<size_t>(
            std::count_if(records.begin(), records.end(), [](const log_record &record) {
                return record.state == record_state::good;
            }));
        if (good > most) {
            most = good;
            likely = layout;
        }
    }
    return *likely;
}

} // namespace devaccess

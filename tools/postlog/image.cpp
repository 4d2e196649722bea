// Decodes the records of a POST log's block.
#include "tools/postlog/image.h"

#include <device_access/pod_log_crc_tmp.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include <fmt/format.h>

namespace devaccess
{
namespace
{

constexpr uint32_t index_magic = 0x106F11E5;
constexpr size_t index_size = 12;
constexpr size_t header_size = 24;
constexpr size_t entry_size = 40; // its message follows

// Within an entry.
constexpr size_t checksum_at = 32;
constexpr size_t message_size_at = 36;

size_t default_stride(size_t bytes, int histories)
{
    return bytes / static_cast<size_t>(histories) & ~size_t{31};
}

} // namespace

std::vector<log_record> post_history::chain() const
{
    const auto first_bad =
        std::find_if(entries.begin(), entries.end(),
                     [](const log_record &entry) { return entry.state != record_state::good; });
    return {entries.begin(), first_bad};
}

//--- decoding -------------------------------------------------------------------------------------

post_image::post_image(int histories, const std::string &bytes)
    : post_image(histories, bytes, byte_order::little)
{
    post_image other(histories, bytes, byte_order::big);
    if (other.good_records() > good_records())
        *this = std::move(other);
}

post_image::post_image(int histories, const std::string &bytes, byte_order order)
    : count_(histories), bytes_(bytes), order_(order)
{
    if (!has_index()) {
        histories_.push_back(decode_history(0, 0, bytes.size()));
        return;
    }
    const auto decode = [&](size_t stride) {
        std::vector<post_history> found;
        for (int i = 0; i < count_; ++i) {
            const size_t position = index_size + static_cast<size_t>(i) * stride;
            found.push_back(decode_history(i, position, position + stride));
        }
        return found;
    };
    const size_t usual = default_stride(bytes.size(), count_);
    index_ = decode_index();
    histories_ = decode(stride().value_or(usual));
    if (stride() == usual)
        return;
    // The index has no checksum: its size of a history counts when more is found by it.
    const size_t found_by_index = good_records();
    std::vector<post_history> by_index = std::exchange(histories_, decode(usual));
    if (stride() && found_by_index >= good_records())
        histories_ = std::move(by_index);
    else if (good_records() > found_by_index)
        refuse(*index_, fmt::format("history size {}, but the headers are {} bytes apart",
                                    number(8, 4), usual));
}

// Zero beyond the end.
uint64_t post_image::number(size_t position, size_t width) const
{
    uint64_t value = 0;
    for (size_t i = 0; i < width; ++i) {
        const size_t at = position + (order_ == byte_order::big ? i : width - 1 - i);
        value = value << 8 | (at < bytes_.size() ? static_cast<unsigned char>(bytes_[at]) : 0u);
    }
    return value;
}

// From one history to the next, by the index; nothing when it cannot be.
std::optional<size_t> post_image::stride() const
{
    const uint64_t size = number(8, 4);
    if (size < header_size || size > bytes_.size())
        return std::nullopt;
    return static_cast<size_t>(size);
}

// A record whose checksum, over its bytes with zeros in place of the checksum itself, or over the
// rest when that comes first, has alone been looked at.
log_record post_image::summed(const char *kind, size_t position, size_t size, size_t sum_at) const
{
    log_record record = {kind, {}, {}, position, record_state::good, {}, {}, ""};
    if (position > bytes_.size() || size > bytes_.size() - position) {
        record.state = record_state::bad;
        record.problem = "beyond the end of the block";
        return record;
    }
    std::string raw = bytes_.substr(position, size);
    if (raw.find_first_not_of(raw[0]) == raw.npos && (raw[0] == '\0' || raw[0] == '\xff')) {
        record.state = record_state::blank;
        record.problem = "blank";
        return record;
    }
    record.stored = static_cast<uint32_t>(number(position + sum_at, 4));
    raw.replace(sum_at, 4, sum_at == 0 ? 0 : 4, '\0');
    record.computed = crc32_cksum(raw.data(), raw.size());
    if (record.stored != record.computed)
        refuse(record, "bad checksum");
    return record;
}

log_record post_image::decode_index() const
{
    log_record index = {"index", {}, {}, 0, record_state::good, {}, {}, ""};
    const auto magic = static_cast<uint32_t>(number(0, 4));
    const uint64_t current = number(4, 4);
    if (magic != index_magic)
        refuse(index, fmt::format("magic number {:#x}, expected {:#x}", magic, index_magic));
    if (current >= static_cast<uint64_t>(count_))
        refuse(index, fmt::format("current history {} of {}", current, count_));
    if (!stride())
        refuse(index, fmt::format("history size {} in a block of {}", number(8, 4), bytes_.size()));
    return index;
}

post_history post_image::decode_history(int number_of_it, size_t position, size_t end) const
{
    post_history history = {};
    history.number = number_of_it;
    history.begin = position + header_size;
    history.end = std::min(end, bytes_.size());
    history.header = summed("header", position, header_size, 0);
    history.header.history = number_of_it;
    const uint64_t used = number(position + 8, 4);
    const size_t room = history.end - std::min(history.begin, history.end);
    if (used > room)
        refuse(history.header, fmt::format("{} bytes in use of {}", used, room));
    if (history.header.state == record_state::good)
        history.used = static_cast<size_t>(used);
    decode_entries(history);
    if (history.header.state == record_state::blank && !history.others.empty())
        history.header.state = record_state::bad;
    return history;
}

// The message must end before the end of the room.
log_record post_image::decode_entry(size_t position, size_t end) const
{
    log_record record = summed("entry", position, entry_size, checksum_at);
    if (record.state == record_state::good && !fits(position, end))
        refuse(record, fmt::format("its message of {} bytes does not fit",
                                   number(position + message_size_at, 4)));
    return record;
}

bool post_image::fits(size_t position, size_t end) const
{
    return number(position + message_size_at, 4) + entry_size <= end - std::min(position, end);
}

// Of the next good entry from here on that begins before the limit, which is the result when there
// is none.
size_t post_image::find_entry(size_t position, size_t end, size_t limit) const
{
    for (; position < limit; ++position) {
        position = skip_blank(position);
        if (position < limit && fits(position, end) &&
            decode_entry(position, end).state == record_state::good)
            return position;
    }
    return limit;
}

// The next position of an entry that is not blank.
size_t post_image::skip_blank(size_t position) const
{
    const char first = bytes_[position];
    if (first != '\0' && first != '\xff')
        return position;
    const size_t other = std::min(bytes_.find_first_not_of(first, position), bytes_.size());
    return other - position < entry_size ? position : other - entry_size + 1;
}

void post_image::decode_entries(post_history &history) const
{
    const size_t used_end = history.begin + history.used;
    const auto end_of = [&](const log_record &entry) {
        return entry.position + entry_size +
               static_cast<size_t>(number(entry.position + message_size_at, 4));
    };
    size_t position = history.begin;
    while (position < used_end) {
        log_record entry = decode_entry(position, history.end);
        entry.history = history.number;
        entry.entry = static_cast<int>(history.entries.size());
        position = entry.state == record_state::good
                       ? end_of(entry)
                       : find_entry(position + 1, history.end, used_end);
        history.entries.push_back(std::move(entry));
    }
    while ((position = find_entry(position, history.end, history.end)) < history.end) {
        log_record entry = decode_entry(position, history.end);
        entry.history = history.number;
        entry.entry = static_cast<int>(history.entries.size() + history.others.size());
        position = end_of(entry);
        history.others.push_back(std::move(entry));
    }
}

//--- what is there --------------------------------------------------------------------------------

size_t post_image::good_records() const
{
    const auto all = records();
    return static_cast<size_t>(std::count_if(all.begin(), all.end(), [](const log_record &record) {
        return record.state == record_state::good;
    }));
}

bool post_image::is_blank() const
{
    return bytes_.find_first_not_of('\0') == bytes_.npos ||
           bytes_.find_first_not_of('\xff') == bytes_.npos;
}

bool post_image::holds_nothing() const
{
    return good_records() == 0;
}

std::vector<log_record> post_image::records() const
{
    std::vector<log_record> all;
    if (index_)
        all.push_back(*index_);
    for (const post_history &history : histories_) {
        if (history.header.state != record_state::blank)
            all.push_back(history.header);
        all.insert(all.end(), history.entries.begin(), history.entries.end());
        all.insert(all.end(), history.others.begin(), history.others.end());
    }
    return all;
}

std::vector<log_record> post_image::wrong() const
{
    std::vector<log_record> found = records();
    std::erase_if(found, [](const log_record &r) { return r.state == record_state::good; });
    // A block without an index begins with the header.
    if (!has_index() && histories_[0].header.state == record_state::blank)
        found.push_back(histories_[0].header);
    return found;
}

std::vector<log_record> post_image::good_entries() const
{
    std::vector<log_record> found = records();
    std::erase_if(found, [](const log_record &record) {
        return !record.entry || record.state != record_state::good;
    });
    return found;
}

post_entry post_image::entry(const log_record &slot) const
{
    const uint64_t seconds = number(slot.position, 8);
    const auto size = static_cast<size_t>(number(slot.position + message_size_at, 4));
    return {static_cast<time_t>(static_cast<uint32_t>(seconds)),
            bytes_.substr(slot.position + entry_size, size)};
}

// By the index or, when that is bad, by the times of the entries.
int post_image::current() const
{
    if (!index_ || index_->state == record_state::good)
        return index_ ? static_cast<int>(number(4, 4)) : 0;
    int latest = 0;
    time_t time = -1;
    for (const post_history &history : histories_)
        for (const log_record &slot : history.chain())
            if (entry(slot).time > time) {
                time = entry(slot).time;
                latest = history.number;
            }
    return latest;
}

std::vector<const post_history *> post_image::written() const
{
    std::vector<const post_history *> found;
    for (int step = 0, newest = current(); step < count_; ++step) {
        const int at = (newest - step + count_) % count_;
        const post_history &history = histories_[static_cast<size_t>(at)];
        if (!history.chain().empty())
            found.push_back(&history);
    }
    return found;
}

} // namespace devaccess

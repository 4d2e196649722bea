// The POD log: one algorithm for every kind of storage. docs/pod_log_storage.md describes the
// layout, what a crash leaves, and in what the storages differ.
#pragma once

#include "pod_log_records.h"
#include "print.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <ctime>

namespace device_access
{

// Where the storages differ by a number, a choice or a name in a message.
struct pod_log_traits {
    uint32_t overhead;        // bytes of the region that the histories do not share
    uint32_t first_header;    // position of history 0
    uint32_t status_position; // where the status call writes the index
    uint32_t name_limit;      // bytes of a device name that are kept
    bool dumps_epoch;         // dumps show the time as a number too
    bool announces_start;     // a dump of all histories says where it starts
    bool reports_failed_dump; // a dump of all histories that stops early has failed
    const char *init;
    const char *get_log_hdr_pos;
    const char *get_curr_log_hdr_pos;
    const char *read_dir;
    const char *dump_curr_log_msgs;
    const char *dump_log_block_header;
};

// Self is the storage. It has
//   traits                            the above
//   row()                             its device's row of settings
//   exists()                          whether there is such a device
//   init(rdonly), close()             opening and checking (1 or -1), closing
//   mem_rd, mem_wr(pos, data, size)   one transfer; 0 or less is failure, which it reports
// and the rules of its Index:
//   magic(), seal(index)              its magic number, and completing it before it is written
//   current_history(index)            the number it names, -1 if it is not valid
//   current_position(index)           the position of that history's header, -1
//   history_size(index)               the distance of history headers
//   report_magic(index), report_unlocated(history), report_unwritten_index(),
//   reset_beyond_log()                what only some storages say or do
//
// Positions are 64 bits wide in here, whatever the storage holds; at the interface they are ints,
// so that nothing beyond the largest one is a position. Storage functions get any position and
// refuse what they do not have.
template <typename Self, typename Index>
class pod_log_ring
{
public:
    void describe(const char *dev_name, int mem_size, int num_log, int msg_len, uint32_t align_msk)
    {
        if (!self().exists())
            return;
        copy_pod_name(row().name, dev_name, traits().name_limit);
        row().mem_size = mem_size;
        row().num_subblock = num_log;
        row().msg_size = msg_len;
        row().log_align_msk = align_msk;
    }

    int reset()
    {
        Index index = {};
        index.magic = self().magic();
        index.log_size = static_cast<uint32_t>(row().subblock_size);
        self().seal(index);
        if (!write(index_position, index)) {
            self().report_unwritten_index();
            return -1;
        }
        if (!self().reset_beyond_log())
            return -1;
        if (row().num_subblock > 0 && !load(index))
            return -1;
        for (int history = 0; history < row().num_subblock; ++history) {
            const int64_t position = header_position(index, history);
            if (position == -1)
                return -1;
            empty(position);
        }
        return 1;
    }

    int add(const char *event_level, const char *diag_string, const char *ret_string,
            const char *fmt, va_list args)
    {
        current_header current;
        pod_entry old;
        if (!load(current))
            return -1;
        const int64_t position = free_position(current);
        if (position == -1 || !read(position, old))
            return -1;
        const pod_message message(event_level, diag_string, ret_string, fmt, args);
        const pod_entry entry = entry_of_now(static_cast<uint32_t>(row().msg_size));
        if (!write(position, entry) ||
            !write_bytes(message_position(position), message.text(), message.size()))
            return -1;
        const int advanced = advance(current, position);
        return write_header(current) ? advanced : -1;
    }

    int set_curr_log_status()
    {
        Index index;
        if (!load(index) || index.magic != self().magic())
            return -1;
        return write(traits().status_position, index) ? 1 : -1;
    }

    int use_nxt_log()
    {
        Index index;
        if (!load(index))
            return -1;
        if (index.magic != self().magic())
            return 1;
        const uint32_t last = static_cast<uint32_t>(row().num_subblock) - 1;
        index.header_index = index.header_index < last ? index.header_index + 1 : 0;
        self().seal(index);
        if (!write(index_position, index))
            return -1;
        const int64_t position = load(index) ? self().current_position(index) : -1;
        if (position == -1)
            return -1;
        empty(position);
        return 1;
    }

    int open_dir()
    {
        if (self().init(true) != 1)
            return -1;
        const int history = newest_history();
        if (history < 0)
            self().close();
        return history;
    }

    int read_dir(int history, time_t *ts)
    {
        Index index;
        pod_entry entry;
        int64_t position = load(index) ? first_entry(index, history, entry) : -1;
        if (position == -1) {
            print_error("ERROR: %s: failed to get lg position!\n", traits().read_dir);
            return -1;
        }
        // Read once more: a storage that changes under the walk is noticed.
        if (position != 0 && !read(position, entry)) {
            print_error("ERROR: %s: failed to read log position!\n", traits().read_dir);
            return -1;
        }
        if (position != 0 && !is_valid(entry)) {
            print_error("ERROR: %s: invalid LOG entry!\n", traits().read_dir);
            return -1;
        }
        *ts = position == 0 ? 0 : time_of(entry);
        do {
            hist_left_cnt = std::max(hist_left_cnt - 1, 0);
            if (hist_left_cnt == 0)
                return -2;
            history = previous(history);
            position = first_entry(index, history, entry);
        } while (position == 0);
        return position > 0 ? history : -1;
    }

    int open_log(int history)
    {
        if (self().init(true) != 1)
            return -1;
        Index index;
        pod_entry entry;
        const int64_t position = load(index) ? first_entry(index, history, entry) : -1;
        if (position > 0)
            return static_cast<int>(position);
        self().close();
        return -1;
    }

    int read_log(int position, time_t *ts, char *msg, uint32_t buf_size)
    {
        pod_entry entry;
        if (!read_valid(position, entry) ||
            !read_bytes(message_position(position), msg, std::min(entry.entry_size, buf_size)))
            return -1;
        *ts = time_of(entry);
        return next_entry(position, entry);
    }

    // No more than the device's message area goes into buf, whatever entry_size says.
    int read_raw_log(int position, uint8_t *buf)
    {
        pod_entry entry;
        if (!read_valid(position, entry) ||
            !read_bytes(message_position(position), buf + sizeof entry,
                        std::min(entry.entry_size, message_room())))
            return -1;
        std::memcpy(buf, &entry, sizeof entry);
        return next_entry(position, entry);
    }

    size_t raw_entry_size() const { return sizeof(pod_entry) + message_room(); }

    int dump_log_msgs(int history)
    {
        Index index;
        pod_entry entry;
        const int64_t position = load(index) ? first_entry(index, history, entry) : -1;
        if (position == 0)
            return 1;
        return position == -1 ? -1 : dump_entries(position, entry);
    }

    int dump_curr_log_msgs()
    {
        Index index;
        const int current = load(index) ? self().current_history(index) : -1;
        print_output("%s: curr log =%d \n", traits().dump_curr_log_msgs, current);
        return dump_log_msgs(current);
    }

    int dump_all_log_msgs()
    {
        if (self().init(true) != 1)
            return -1;
        const int result = dump_histories();
        self().close();
        return traits().reports_failed_dump ? result : 1;
    }

    static void dump_log_block_header(const pod_header &header)
    {
        print_output("%s: ", traits().dump_log_block_header);
        print_output("\theader checksum = 0x%x \n\t size = 0x%x \n\t index = 0x%x\n\t version = "
                     "0x%x \n\t start = 0x%x \n",
                     header.header_checksum, header.log_size, header.index, header.version,
                     header.start);
    }

protected:
    static constexpr uint32_t index_position = 32;
    static constexpr int64_t last_position = INT32_MAX;

    // The current history's header, and where it lies.
    struct current_header : pod_header {
        int64_t position;
    };

    void compute_subblock_size()
    {
        const int64_t shared = int64_t{row().mem_size} - traits().overhead;
        const int64_t share = row().num_subblock == 0 ? 0 : shared / row().num_subblock;
        const int size = static_cast<int>(std::clamp<int64_t>(share, INT32_MIN, INT32_MAX));
        row().subblock_size = static_cast<int>(static_cast<uint32_t>(size) & row().log_align_msk);
    }

    bool load(Index &index) { return read(index_position, index); }

    bool load(current_header &current)
    {
        Index index;
        if (!load(index))
            return false;
        current.position = self().current_position(index);
        return current.position != -1 && read(current.position, static_cast<pod_header &>(current));
    }

    template <typename Record>
    bool read(int64_t position, Record &record)
    {
        record = {}; // a transfer may be short
        return read_bytes(position, &record, sizeof record);
    }

    template <typename Record>
    bool write(int64_t position, const Record &record)
    {
        return write_bytes(position, &record, sizeof record);
    }

    bool write_bytes(int64_t position, const void *data, uint32_t size)
    {
        return self().mem_wr(position, data, size) > 0;
    }

    int64_t nth_header(uint32_t history, uint32_t size) const
    {
        const int64_t position = int64_t{static_cast<int>(history)} * size + traits().first_header;
        return position <= last_position ? position : -1;
    }

    // 1 valid, 0 not, -1 not to be read.
    int check_header(const Index &index, int history)
    {
        pod_header header;
        const int64_t position = header_position(index, history);
        if (position == -1)
            self().report_unlocated(history);
        if (position == -1 || !read(position, header))
            return -1;
        return is_valid(header) ? 1 : 0;
    }

    // The position of a history's first entry, which is read too; 0 if there is no valid one.
    int64_t first_entry(const Index &index, int history, pod_entry &entry)
    {
        return nth_entry(index, history, 0, entry);
    }

    // Where the next entry goes; -1 if the header does not say.
    static int64_t free_position(const current_header &current)
    {
        const int64_t position = int64_t{current.start} + current.index;
        return is_valid(current) && position <= last_position ? position : -1;
    }

    // After an entry at position: counts it if one more of its size still fits behind it, else
    // leaves it to be overwritten. 1 or 0.
    int advance(current_header &current, int64_t position) const
    {
        const uint32_t size = uint32_t{sizeof(pod_entry)} + static_cast<uint32_t>(row().msg_size);
        const uint32_t end_of_next = static_cast<uint32_t>(position) + 2 * size;
        // Unsigned: an absurd log_size leaves no room, rather than all of it.
        if (end_of_next >= static_cast<uint32_t>(current.position) + current.log_size)
            return 0;
        current.index += size;
        return 1;
    }

    bool write_header(current_header &current)
    {
        seal(current);
        return write(current.position, static_cast<const pod_header &>(current));
    }

private:
    // Entries are found at this distance, though they may be longer or shorter.
    static constexpr int64_t reader_stride = 80;

    static inline int hist_left_cnt = 0; // histories still to visit in a walk

    Self &self() { return static_cast<Self &>(*this); }
    const Self &self() const { return static_cast<const Self &>(*this); }
    auto &row() { return self().row(); }
    const auto &row() const { return self().row(); }
    static constexpr const pod_log_traits &traits() { return Self::traits; }

    uint32_t message_room() const { return static_cast<uint32_t>(std::max(row().msg_size, 0)); }

    static int64_t message_position(int64_t entry_position)
    {
        return entry_position + int64_t{sizeof(pod_entry)};
    }

    bool read_bytes(int64_t position, void *data, uint32_t size)
    {
        return self().mem_rd(position, data, size) > 0;
    }

    bool read_valid(int64_t position, pod_entry &entry)
    {
        return read(position, entry) && is_valid(entry);
    }

    int64_t header_position(const Index &index, int history)
    {
        if (history >= row().num_subblock) {
            print_error("ERROR: %s: invalid index %d; must less than %d!\n",
                        traits().get_log_hdr_pos, history, row().num_subblock);
            return -1;
        }
        if (index.magic != self().magic()) {
            self().report_magic(index);
            return -1;
        }
        return nth_header(static_cast<uint32_t>(history), self().history_size(index));
    }

    int64_t nth_entry(const Index &index, int history, int number, pod_entry &entry)
    {
        pod_header header;
        const int64_t header_at = header_position(index, history);
        if (header_at == -1 || !read(header_at, header))
            return -1;
        if (!is_valid(header) || header.index == 0)
            return 0;
        const int64_t start = static_cast<int32_t>(header.start);
        const int64_t end = start + static_cast<int32_t>(header.index);
        const int64_t position = number * reader_stride + start;
        if (position >= end || !read(position, entry))
            return -1;
        return is_valid(entry) ? position : 0;
    }

    // The position of the entry behind this one, -2 if there is none, -1 if it cannot be read.
    int next_entry(int64_t position, const pod_entry &entry)
    {
        const int64_t next = message_position(position) + entry.entry_size;
        pod_entry following;
        if (!read(next, following) || next > last_position)
            return -1;
        return is_valid(following) ? static_cast<int>(next) : -2;
    }

    int previous(int history) const { return history > 0 ? history - 1 : row().num_subblock - 1; }

    int newest_history()
    {
        Index index;
        int history = load(index) ? self().current_history(index) : -1;
        if (history < 0 || history >= row().num_subblock)
            return -1;
        if (check_header(index, history) == 0)
            return -2;
        hist_left_cnt = row().num_subblock;
        pod_entry entry;
        int64_t position;
        while ((position = first_entry(index, history, entry)) == 0) {
            history = previous(history);
            if (--hist_left_cnt == 0)
                return -2;
        }
        return position > 0 ? history : -1;
    }

    // Empties the history at position; what cannot be written does not stop it.
    void empty(int64_t position)
    {
        clear_entries(position);
        write(position, fresh_header(position, static_cast<uint32_t>(row().subblock_size)));
    }

    void clear_entries(int64_t header_at)
    {
        pod_header header;
        if (header_at < 0 || !read(header_at, header))
            return;
        const pod_entry blank = {};
        const int64_t end = header_at + row().subblock_size;
        int64_t position = header_at + int64_t{sizeof header};
        do {
            if (!write(position, blank))
                return;
            position += reader_stride;
        } while (position + int64_t{sizeof blank} <= end);
    }

    int dump_histories()
    {
        Index index;
        const bool loaded = load(index);
        int history = loaded ? self().current_history(index) : -1;
        if (traits().announces_start)
            print_output("-------- starting history/subblock = %d --------\n", history);
        for (int left = row().num_subblock; left > 0; --left) {
            pod_entry entry;
            const int64_t position = loaded ? first_entry(index, history, entry) : -1;
            if (position < 0)
                return -1;
            print_output("-------- history/subblock = %d --------\n", history);
            if (position > 0 && dump_entries(position, entry) == -1)
                return -1;
            history = previous(history);
        }
        return 1;
    }

    int dump_entries(int64_t position, pod_entry entry)
    {
        do {
            if (!dump_entry(message_position(position), entry))
                return -1;
            position = message_position(position) + entry.entry_size;
            if (!read(position, entry) || position > last_position)
                return -1;
        } while (is_valid(entry));
        return 1;
    }

    // The message is shown piece by piece up to its NUL: entry_size may be anything.
    bool dump_entry(int64_t position, const pod_entry &entry)
    {
        char piece[256] = {};
        uint32_t left = entry.entry_size;
        uint32_t size = std::min(left, uint32_t{sizeof piece});
        if (!read_bytes(position, piece, size))
            return false;
        const time_t time = time_of(entry);
        char date[26];
        if (traits().dumps_epoch)
            print_output("    timestamp: epoch time %ld: ", static_cast<long>(time));
        print_output("    timestamp: %s: msg = %.*s", ctime_r(&time, date), static_cast<int>(size),
                     piece);
        while (strnlen(piece, size) == size && (left -= size) > 0) {
            position += size;
            size = std::min(left, uint32_t{sizeof piece});
            std::memset(piece, 0, sizeof piece);
            if (position > last_position || !read_bytes(position, piece, size))
                break;
            print_output("%.*s", static_cast<int>(size), piece);
        }
        print_output("\n");
        return true;
    }
};

// What files and EEPROMs have in common: their index has a fixed magic number and no checksum.
template <typename Self>
class pod_bare_index_ring : public pod_log_ring<Self, pod_bare_index>
{
public:
    static constexpr uint32_t magic() { return 0x1FE2C363; }
    static void seal(pod_bare_index &) {}

    static int current_history(const pod_bare_index &index)
    {
        return index.magic == magic() ? static_cast<int>(index.header_index) : -1;
    }

    int64_t current_position(const pod_bare_index &index) const
    {
        const auto &row = static_cast<const Self &>(*this).row();
        if (index.magic == magic() && index.header_index < static_cast<uint32_t>(row.num_subblock))
            return this->nth_header(index.header_index, index.log_size);
        print_error("ERROR: %s: invalid index!\n", Self::traits.get_curr_log_hdr_pos);
        return -1;
    }

    static uint32_t history_size(const pod_bare_index &index) { return index.log_size; }
    static void report_magic(const pod_bare_index &) {}
    static void report_unlocated(int) {}
    static void report_unwritten_index() {}
    static bool reset_beyond_log() { return true; }

protected:
    // The check of an opened storage; one that holds no log is formatted.
    int check(bool rdonly)
    {
        this->compute_subblock_size();
        pod_bare_index index;
        if (!this->load(index))
            return -1;
        if (index.magic == magic())
            return 1;
        if (!rdonly) {
            this->reset();
            return 1;
        }
        print_error("ERROR: %s: magic number not initialized! cannot open for reading!!\n",
                    Self::traits.init);
        print_error("magic number: read = 0x%x expect = 0x%x\n", index.magic, magic());
        return -1;
    }
};

} // namespace device_access

// The one algorithm of the POD log, for every storage.
#include "lib/podlog/ring.h"

#include "lib/base/errors.h"
#include "lib/base/print.h"

#include <algorithm>
#include <cstring>

#include <unistd.h>

namespace device_access
{
namespace
{

constexpr int64_t index_position = 32;
constexpr int64_t last_position = INT32_MAX;

// Entries are found at this distance, though they may be longer or shorter.
constexpr int64_t reader_stride = 80;

int64_t message_position(int64_t entry_position)
{
    return entry_position + int64_t{sizeof(pod_entry)};
}

void warn_of_full_history(int64_t hdr_pos, uint32_t log_size, int64_t position)
{
    print_output("WARNING:\n");
    print_output("  hdr pos =0x%x log size =0x%x\n", static_cast<uint32_t>(hdr_pos), log_size);
    print_output("  lg pos =0x%x\n", static_cast<uint32_t>(position));
    print_output("  NVLOG POD LOG (EEPROM) reached log area limit:\n");
    print_output("  Subsequent entries will overide the last entry\n");
}

} // namespace

//--- transfers ------------------------------------------------------------------------------------

bool pod_log_ring::read_bytes(int64_t position, void *data, uint32_t size)
{
    return storage_->mem_rd(id_, position, data, size) > 0;
}

bool pod_log_ring::write_bytes(int64_t position, const void *data, uint32_t size)
{
    return storage_->mem_wr(id_, position, data, size) > 0;
}

template <typename Record>
bool pod_log_ring::read(int64_t position, Record &record)
{
    record = {}; // a transfer may be short
    return read_bytes(position, &record, sizeof record);
}

template <typename Record>
bool pod_log_ring::write(int64_t position, const Record &record)
{
    return write_bytes(position, &record, sizeof record);
}

bool pod_log_ring::read_valid(int64_t position, pod_entry &entry)
{
    return read(position, entry) && validate_log_entry(entry);
}

bool pod_log_ring::load(pod_index &index)
{
    index = {};
    return read_bytes(index_position, &index, storage_->traits.index_size);
}

bool pod_log_ring::load(current_header &current)
{
    pod_index index;
    if (!load(index))
        return false;
    current.position = get_curr_log_hdr_pos(index);
    return current.position != -1 && read(current.position, static_cast<pod_header &>(current));
}

bool pod_log_ring::write_index(int64_t position, pod_index index)
{
    seal(index);
    return write_bytes(position, &index, storage_->traits.index_size);
}

bool pod_log_ring::write_index_or_report(const pod_index &index)
{
    if (write_index(index_position, index))
        return true;
    storage_->report(id_, pod_fault::index_not_written, 0);
    return false;
}

bool pod_log_ring::write_header(const current_header &current)
{
    return write(current.position, static_cast<const pod_header &>(current));
}

//--- positions ------------------------------------------------------------------------------------

int64_t pod_log_ring::nth_header(uint32_t history, uint32_t distance) const
{
    const int64_t position =
        int64_t{static_cast<int>(history)} * distance + storage_->traits.first_header;
    return position <= last_position ? position : -1;
}

int64_t pod_log_ring::get_log_hdr_pos(const pod_index &index, int history)
{
    if (history >= shape_.num_subblock)
        return REFUSE(print_error, -1,
                      "ERROR: %s_get_log_hdr_pos: invalid index %d; must less than %d!\n", kind(),
                      history, shape_.num_subblock);
    if (index.magic != storage_->magic) {
        storage_->report(id_, pod_fault::index_magic, index.magic);
        return -1;
    }
    return nth_header(static_cast<uint32_t>(history),
                      storage_->traits.index_sets_distance
                          ? index.log_size
                          : static_cast<uint32_t>(shape_.subblock_size));
}

int64_t pod_log_ring::get_curr_log_hdr_pos(const pod_index &index)
{
    return storage_->locates_current_history(shape_, index)
               ? nth_header(index.header_index, index.log_size)
               : -1;
}

int pod_log_ring::get_curr_log_index(const pod_index &index)
{
    return storage_->verify_blk_index(index) ? static_cast<int>(index.header_index) : -1;
}

// The position of an entry, which is read too; 0 if there is no valid one, -1 on failure.
int64_t pod_log_ring::get_log_pos(const pod_index &index, int history, int number, pod_entry &entry)
{
    pod_header header;
    const int64_t hdr_pos = get_log_hdr_pos(index, history);
    if (hdr_pos == -1 || !read(hdr_pos, header))
        return -1;
    if (!validate_hdr(header) || header.index == 0)
        return 0;
    const int64_t start = static_cast<int32_t>(header.start);
    const int64_t end = start + static_cast<int32_t>(header.index);
    const int64_t position = number * reader_stride + start;
    if (position >= end || !read(position, entry))
        return -1;
    return validate_log_entry(entry) ? position : 0;
}

// Where the next entry goes; -1 if the header does not say.
int64_t pod_log_ring::get_nxt_log_pos(const current_header &current)
{
    const int64_t position = int64_t{current.start} + current.index;
    return validate_hdr(current) && position <= last_position ? position : -1;
}

// The position of the entry after this one, -2 if there is none, -1 if it cannot be read.
int pod_log_ring::next_entry(int64_t position, const pod_entry &entry)
{
    const int64_t next = message_position(position) + entry.entry_size;
    pod_entry following;
    if (!read(next, following) || next > last_position)
        return -1;
    return validate_log_entry(following) ? static_cast<int>(next) : -2;
}

int pod_log_ring::previous(int history) const
{
    return history > 0 ? history - 1 : shape_.num_subblock - 1;
}

//--- opening --------------------------------------------------------------------------------------

// 1 valid, 0 not, -1 not to be read.
int pod_log_ring::check_hdr(const pod_index &index, int history)
{
    pod_header header;
    const int64_t hdr_pos = get_log_hdr_pos(index, history);
    if (hdr_pos == -1)
        storage_->report(id_, pod_fault::header_not_located, static_cast<uint32_t>(history));
    if (hdr_pos == -1 || !read(hdr_pos, header))
        return -1;
    return validate_hdr(header) ? 1 : 0;
}

pod_headers pod_log_ring::verify_all_hdr(const pod_index &index)
{
    for (int history = 0; history < shape_.num_subblock; ++history) {
        if (history > 0)
            ::usleep(200);
        if (check_hdr(index, history) != 1)
            return pod_headers::bad;
    }
    return pod_headers::good;
}

//--- writing --------------------------------------------------------------------------------------

int pod_log_ring::reset()
{
    pod_index index = {};
    index.magic = storage_->magic;
    index.log_size = static_cast<uint32_t>(shape_.subblock_size);
    if (!write_index_or_report(index) || !storage_->reset_beyond_log(id_))
        return -1;
    if (shape_.num_subblock > 0 && !load(index))
        return -1;
    for (int history = 0; history < shape_.num_subblock; ++history) {
        const int64_t hdr_pos = get_log_hdr_pos(index, history);
        if (hdr_pos == -1)
            return -1;
        empty(hdr_pos);
    }
    return 1;
}

// Empties the history at hdr_pos; what cannot be written does not stop it.
void pod_log_ring::empty(int64_t hdr_pos)
{
    reset_logs(hdr_pos);
    reset_hdr(hdr_pos);
}

void pod_log_ring::reset_logs(int64_t hdr_pos)
{
    pod_header header;
    if (hdr_pos < 0 || !read(hdr_pos, header))
        return;
    const pod_entry blank = {};
    const int64_t end = hdr_pos + shape_.subblock_size;
    int64_t position = hdr_pos + int64_t{sizeof header};
    do {
        if (!write(position, blank))
            return;
        position += reader_stride;
    } while (position + int64_t{sizeof blank} <= end);
}

void pod_log_ring::reset_hdr(int64_t hdr_pos)
{
    write(hdr_pos, fresh_header(hdr_pos, static_cast<uint32_t>(shape_.subblock_size)));
}

// Flattened, though the rest is built for size: between system calls a function call costs more
// than in a loop, and these would be 2 % of podlog_add().
[[gnu::flatten]] int pod_log_ring::add(const char *event_level, const char *diag_string,
                                       const char *ret_string, const char *fmt, va_list args)
{
    current_header current;
    pod_entry old;
    if (!load(current))
        return -1;
    const int64_t position = get_nxt_log_pos(current);
    if (position == -1 || !read(position, old))
        return -1;
    const pod_message message(event_level, diag_string, ret_string, fmt, args);
    const pod_entry entry = entry_of_now(static_cast<uint32_t>(shape_.msg_size));
    if (!write(position, entry) ||
        !write_bytes(message_position(position), message.text(), message.size()))
        return -1;
    const int advanced = advance(current, position);
    return write_header(current) ? advanced : -1;
}

int pod_log_ring::add_raw_log(uint8_t *buf)
{
    if (shape_.msg_size < 0)
        return -1;
    const uint32_t room = message_room();
    char *const message = reinterpret_cast<char *>(buf + sizeof(pod_entry));
    if (room > 0 && strnlen(message, size_t{room} + 1) > room)
        message[room - 1] = '\0';
    current_header current;
    pod_entry old;
    if (!load(current))
        return -1;
    const int64_t position = get_nxt_log_pos(current);
    if (position == -1)
        return REFUSE(print_error, -1,
                      "ERROR: podlog_%s_add_raw_log: failed to get next available log position!\n",
                      kind());
    if (!read(position, old) || !write_bytes(position, buf, uint32_t{sizeof(pod_entry)} + room))
        return -1;
    const int advanced = advance(current, position);
    if (!advanced)
        warn_of_full_history(current.position, current.log_size, position);
    return write_header(current) ? advanced : -1;
}

// After an entry at position: counts it if one more of its size still fits after it, else leaves
// it to be overwritten. 1 or 0. The header, which has been validated, stays sealed.
int pod_log_ring::advance(current_header &current, int64_t position) const
{
    const uint32_t size = uint32_t{sizeof(pod_entry)} + static_cast<uint32_t>(shape_.msg_size);
    const uint32_t end_of_next = static_cast<uint32_t>(position) + 2 * size;
    // Unsigned: an absurd log_size leaves no room, rather than all of it.
    if (end_of_next >= static_cast<uint32_t>(current.position) + current.log_size)
        return 0;
    current.index += size;
    seal(current);
    return 1;
}

int pod_log_ring::set_curr_log_status()
{
    pod_index index;
    if (!load(index) || index.magic != storage_->magic)
        return -1;
    return write_bytes(storage_->traits.status_position, &index, storage_->traits.index_size) ? 1
                                                                                              : -1;
}

int pod_log_ring::use_nxt_log()
{
    pod_index index;
    if (!load(index))
        return -1;
    if (index.magic != storage_->magic)
        return 1;
    const uint32_t last = static_cast<uint32_t>(shape_.num_subblock) - 1;
    index.header_index = index.header_index < last ? index.header_index + 1 : 0;
    if (!write_index(index_position, index))
        return -1;
    const int64_t hdr_pos = load(index) ? get_curr_log_hdr_pos(index) : -1;
    if (hdr_pos == -1)
        return -1;
    empty(hdr_pos);
    return 1;
}

//--- reading --------------------------------------------------------------------------------------

int pod_log_ring::open_dir()
{
    if (init(true) != 1)
        return -1;
    const int history = newest_history();
    if (history < 0)
        close();
    return history;
}

int pod_log_ring::newest_history()
{
    pod_index index;
    int history = load(index) ? get_curr_log_index(index) : -1;
    if (history < 0 || history >= shape_.num_subblock)
        return -1;
    if (check_hdr(index, history) == 0)
        return -2;
    storage_->histories_left = shape_.num_subblock;
    pod_entry entry;
    int64_t position;
    while ((position = get_log_pos(index, history, 0, entry)) == 0) {
        history = previous(history);
        if (--storage_->histories_left == 0)
            return -2;
    }
    return position > 0 ? history : -1;
}

int pod_log_ring::read_dir(int history, time_t *ts)
{
    pod_index index;
    pod_entry entry;
    int64_t position = load(index) ? get_log_pos(index, history, 0, entry) : -1;
    if (position == -1)
        return REFUSE(print_error, -1, "ERROR: podlog_%s_read_dir: failed to get lg position!\n",
                      kind());
    // Read once more: a storage that changes under the walk is noticed.
    if (position != 0 && !read(position, entry))
        return REFUSE(print_error, -1, "ERROR: podlog_%s_read_dir: failed to read log position!\n",
                      kind());
    if (position != 0 && !validate_log_entry(entry))
        return REFUSE(print_error, -1, "ERROR: podlog_%s_read_dir: invalid LOG entry!\n", kind());
    *ts = position == 0 ? 0 : time_of(entry);
    do {
        storage_->histories_left = std::max(storage_->histories_left - 1, 0);
        if (storage_->histories_left == 0)
            return -2;
        history = previous(history);
        position = get_log_pos(index, history, 0, entry);
    } while (position == 0);
    return position > 0 ? history : -1;
}

int pod_log_ring::open_log(int history)
{
    if (init(true) != 1)
        return -1;
    pod_index index;
    pod_entry entry;
    const int64_t position = load(index) ? get_log_pos(index, history, 0, entry) : -1;
    if (position > 0)
        return static_cast<int>(position);
    close();
    return -1;
}

int pod_log_ring::read_log(int position, time_t *ts, char *msg, uint32_t buf_size)
{
    pod_entry entry;
    if (!read_valid(position, entry) ||
        !read_bytes(message_position(position), msg, std::min(entry.entry_size, buf_size)))
        return -1;
    *ts = time_of(entry);
    return next_entry(position, entry);
}

// No more than the device's message area goes into buf, whatever entry_size says.
int pod_log_ring::read_raw_log(int position, uint8_t *buf)
{
    pod_entry entry;
    if (!read_valid(position, entry) || !read_bytes(message_position(position), buf + sizeof entry,
                                                    std::min(entry.entry_size, message_room())))
        return -1;
    std::memcpy(buf, &entry, sizeof entry);
    return next_entry(position, entry);
}

size_t pod_log_ring::raw_entry_size() const
{
    return sizeof(pod_entry) + message_room();
}

uint32_t pod_log_ring::message_room() const
{
    return static_cast<uint32_t>(std::max(shape_.msg_size, 0));
}

//--- dumping --------------------------------------------------------------------------------------

int pod_log_ring::dump_log_msgs(int history)
{
    pod_index index;
    pod_entry entry;
    const int64_t position = load(index) ? get_log_pos(index, history, 0, entry) : -1;
    if (position == 0)
        return 1;
    return position == -1 ? -1 : dump_entries(position, entry);
}

int pod_log_ring::dump_curr_log_msgs()
{
    pod_index index;
    const int current = load(index) ? get_curr_log_index(index) : -1;
    print_output("podlog_%s_dump_curr_log_msgs: curr log =%d \n", kind(), current);
    return dump_log_msgs(current);
}

int pod_log_ring::dump_all_log_msgs()
{
    if (init(true) != 1)
        return -1;
    const int result = dump_histories();
    close();
    return storage_->traits.reports_failed_dump ? result : 1;
}

int pod_log_ring::dump_histories()
{
    pod_index index;
    const bool loaded = load(index);
    int history = loaded ? get_curr_log_index(index) : -1;
    if (storage_->traits.announces_start)
        print_output("-------- starting history/subblock = %d --------\n", history);
    for (int left = shape_.num_subblock; left > 0; --left) {
        pod_entry entry;
        const int64_t position = loaded ? get_log_pos(index, history, 0, entry) : -1;
        if (position < 0)
            return -1;
        print_output("-------- history/subblock = %d --------\n", history);
        if (position > 0 && dump_entries(position, entry) == -1)
            return -1;
        history = previous(history);
    }
    return 1;
}

int pod_log_ring::dump_entries(int64_t position, pod_entry entry)
{
    do {
        if (!dump_entry(message_position(position), entry))
            return -1;
        position = message_position(position) + entry.entry_size;
        if (!read(position, entry) || position > last_position)
            return -1;
    } while (validate_log_entry(entry));
    return 1;
}

// The message is shown piece by piece up to its NUL: entry_size may be anything.
bool pod_log_ring::dump_entry(int64_t position, const pod_entry &entry)
{
    char piece[256] = {};
    uint32_t left = entry.entry_size;
    uint32_t size = std::min(left, uint32_t{sizeof piece});
    if (!read_bytes(position, piece, size))
        return false;
    const time_t time = time_of(entry);
    char date[26];
    if (storage_->traits.dumps_epoch)
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

} // namespace device_access

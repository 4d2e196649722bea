// The POD log: one algorithm for every storage. docs/pod_log_storage.md describes the layout and
// what a crash leaves.
#pragma once

#include "lib/podlog/storage.h"

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <ctime>

namespace device_access
{

// What a check of all headers says. Today's says good or bad; the other two bring a log back whose
// index is damaged (recovery.h), and are kept for a check that tells them apart.
enum class pod_headers {
    good,
    bad,
    usable,   // enough to guess the current history from
    unusable, // only a reset helps
};

// The log of one device: a storage, the device's id there, and its shape. Made for a call; what
// lasts longer is kept by the storage.
//
// The operations are those of the interface, podlog_file_add() and so on. Positions are 64 bits
// wide in here, whatever the storage holds; at the interface they are ints, so that nothing beyond
// the largest one is a position.
class pod_log_ring
{
public:
    pod_log_ring() = default; // the log of no storage, which has no operations
    pod_log_ring(pod_storage &storage, int id, const pod_shape &shape)
        : storage_(&storage), id_(id), shape_(shape)
    {
    }
    explicit operator bool() const { return storage_ != nullptr; }

    int init(bool rdonly);
    void close() { storage_->close(id_); }
    int reset();

    int add(const char *event_level, const char *diag_string, const char *ret_string,
            const char *fmt, va_list args);
    int add_raw_log(uint8_t *buf);
    int set_curr_log_status();
    int use_nxt_log();

    int open_dir();
    int read_dir(int history, time_t *ts);
    int open_log(int history);
    int read_log(int position, time_t *ts, char *msg, uint32_t buf_size);
    int read_raw_log(int position, uint8_t *buf);
    size_t raw_entry_size() const; // bytes that a raw read may fill

    int dump_log_msgs(int history);
    int dump_curr_log_msgs();
    int dump_all_log_msgs();

private:
    friend class pod_log_recovery;

    // The current history's header, and where it lies.
    struct current_header : pod_header {
        int64_t position;
    };

    const char *kind() const { return storage_->traits.kind; }
    uint32_t message_room() const;

    bool read_bytes(int64_t position, void *data, uint32_t size);
    bool write_bytes(int64_t position, const void *data, uint32_t size);
    template <typename Record>
    bool read(int64_t position, Record &record);
    template <typename Record>
    bool write(int64_t position, const Record &record);
    bool read_valid(int64_t position, pod_entry &entry);

    bool load(pod_index &index);
    bool load(current_header &current);
    bool write_index(int64_t position, pod_index index);
    bool write_index_or_report(const pod_index &index);
    bool write_header(const current_header &current);

    int check(bool rdonly);
    int check_hdr(const pod_index &index, int history);
    pod_headers verify_all_hdr(const pod_index &index);

    int64_t nth_header(uint32_t history, uint32_t distance) const;
    int64_t get_log_hdr_pos(const pod_index &index, int history);
    int64_t get_curr_log_hdr_pos(const pod_index &index);
    int get_curr_log_index(const pod_index &index);
    int64_t get_log_pos(const pod_index &index, int history, int number, pod_entry &entry);
    static int64_t get_nxt_log_pos(const current_header &current);
    int next_entry(int64_t position, const pod_entry &entry);
    int previous(int history) const;
    int newest_history();

    void empty(int64_t hdr_pos);
    void reset_logs(int64_t hdr_pos);
    void reset_hdr(int64_t hdr_pos);
    int advance(current_header &current, int64_t position) const;

    int dump_histories();
    int dump_entries(int64_t position, pod_entry entry);
    bool dump_entry(int64_t position, const pod_entry &entry);

    pod_storage *storage_ = nullptr;
    int id_ = -1;
    pod_shape shape_ = {};
};

// The logs of the devices of each storage, which is a source file of its own.
pod_log_ring nvram_ring(int nvram_id);
pod_log_ring file_ring(int file_id);
pod_log_ring eeprom_ring(int eeprom_id);

} // namespace device_access

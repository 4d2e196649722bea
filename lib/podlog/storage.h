// A storage of the POD log: one kind of device (NVRAM, file, EEPROM) and the table of its devices.
// This is all that the ring asks of a storage. A new one is a source file that implements this
// class; it gets the index of files and EEPROMs unless it says otherwise.
//
// Devices are known by their ids. Any int may come as one: for an id without device nothing can be
// opened, read or written. docs/pod_log_storage.md tells in what the storages differ.
#pragma once

#include "lib/base/errors.h"
#include "lib/base/print.h"
#include "lib/podlog/records.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace device_access
{

// The settings of a device that shape its log.
struct pod_shape {
    int num_subblock;  // histories
    int msg_size;      // bytes of an entry's message area
    int subblock_size; // bytes of a history
};

// In what storages differ by a number or a choice.
struct pod_log_traits {
    const char *kind;         // what its functions are called: podlog_KIND_add()
    uint32_t index_size;      // bytes of the index that are stored
    uint32_t first_header;    // position of history 0
    uint32_t status_position; // where the status call writes the index
    bool index_sets_distance; // headers lie as far apart as the index says, not as configured
    bool dumps_epoch;         // dumps show the time as a number too
    bool announces_start;     // a dump of all histories says where it starts
    bool reports_failed_dump; // a dump of all histories that stops early has failed
};

// What is to be done with a device that was opened, by its index.
enum class pod_opening {
    accept, // it holds a log
    check,  // it does if all headers are good
    guess,  // its index is damaged, its headers may tell
    format, // it holds no log
    refuse
};

// Failures that some storages report.
enum class pod_fault {
    index_not_read,
    index_not_written,
    index_magic,       // detail: the wrong number
    header_not_located // detail: the history
};

class pod_storage
{
public:
    virtual pod_shape shape(int id) const = 0;

    // Opening settles the shape; it fails on a device that is open. Both report.
    virtual bool open(int id, bool rdonly) = 0;
    virtual void close(int id) = 0;

    // One transfer at any position. 0 or less is a failure, which it reports.
    virtual int mem_rd(int id, int64_t position, void *data, uint32_t size) = 0;
    virtual int mem_wr(int id, int64_t position, const void *data, uint32_t size) = 0;

    // The rules of its index. They report what they do not accept.
    virtual pod_opening judge(const pod_index &index, bool rdonly) const;
    virtual bool verify_blk_index(const pod_index &index) const;
    virtual bool locates_current_history(const pod_shape &shape, const pod_index &index) const;

    virtual void report(int /*id*/, pod_fault, uint32_t /*detail*/) const {}

    // Resets what lies in the region besides the log.
    virtual bool reset_beyond_log(int /*id*/) { return true; }

    const pod_log_traits traits;
    uint32_t magic;         // of the index
    int histories_left = 0; // histories still to visit in the walk

    pod_storage(const pod_storage &) = delete;
    pod_storage &operator=(const pod_storage &) = delete;

protected:
    constexpr pod_storage(const pod_log_traits &its_traits, uint32_t its_magic)
        : traits(its_traits), magic(its_magic)
    {
    }
    ~pod_storage() = default;
};

//--- the index of files and EEPROMs: a fixed magic number, no checksum ----------------------------

inline pod_opening pod_storage::judge(const pod_index &index, bool rdonly) const
{
    if (index.magic == magic)
        return pod_opening::accept;
    if (!rdonly)
        return pod_opening::format;
    print_error("ERROR: podlog_%s_init: magic number not initialized! cannot open for reading!!\n",
                traits.kind);
    return REFUSE(print_error, pod_opening::refuse, "magic number: read = 0x%x expect = 0x%x\n",
                  index.magic, magic);
}

inline bool pod_storage::verify_blk_index(const pod_index &index) const
{
    return index.magic == magic;
}

inline bool pod_storage::locates_current_history(const pod_shape &shape,
                                                 const pod_index &index) const
{
    if (index.magic == magic && index.header_index < static_cast<uint32_t>(shape.num_subblock))
        return true;
    return REFUSE(print_error, false, "ERROR: %s_get_curr_log_hdr_pos: invalid index!\n",
                  traits.kind);
}

//--- the rows of the tables, which all begin alike ------------------------------------------------

template <typename Row>
pod_shape shape_of(const Row &row)
{
    return {row.num_subblock, row.msg_size, row.subblock_size};
}

// Any sizes may be configured. The overhead are the bytes that the histories do not share.
template <typename Row>
void compute_subblock_size(Row &row, uint32_t overhead)
{
    const int64_t shared = int64_t{row.mem_size} - overhead;
    const int64_t share = row.num_subblock == 0 ? 0 : shared / row.num_subblock;
    const int size = static_cast<int>(std::clamp<int64_t>(share, INT32_MIN, INT32_MAX));
    row.subblock_size = static_cast<int>(static_cast<uint32_t>(size) & row.log_align_msk);
}

template <typename Row>
void set_pod_info(Row &row, const char *dev_name, size_t name_limit, int mem_size, int num_log,
                  int msg_len, uint32_t align_msk)
{
    copy_pod_name(row.name, dev_name, name_limit);
    row.mem_size = mem_size;
    row.num_subblock = num_log;
    row.msg_size = msg_len;
    row.log_align_msk = align_msk;
}

} // namespace device_access

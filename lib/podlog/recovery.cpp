// Brings an NVRAM log back, or refuses it, by what the check of all its headers says.
#include "lib/podlog/recovery.h"

namespace device_access
{

int pod_log_recovery::accept(pod_headers headers)
{
    if (headers == pod_headers::unusable)
        return reset_because("invalid header structure found.");
    return headers == pod_headers::bad ? -1 : 1;
}

int pod_log_recovery::guess(pod_index index, pod_headers headers)
{
    if (headers == pod_headers::unusable)
        return reset_because("invalid hdr structure found!");
    if (headers != pod_headers::usable)
        return -1;
    const int latest = find_latest_blk(index);
    if (latest == no_history)
        return reset_because("no available block log");
    return latest == unreadable ? -1 : use_history(index, latest);
}

// The history whose first entry is the newest.
int pod_log_recovery::find_latest_blk(const pod_index &index)
{
    int latest = no_history;
    uint64_t latest_time = 0;
    for (int history = 0; history < ring_.shape_.num_subblock; ++history) {
        pod_entry entry;
        const int64_t position = ring_.get_log_pos(index, history, 0, entry);
        if (position == -1)
            return unreadable;
        if (position == 0 && history > 0)
            break;
        if (position != 0 && entry.epoch_time > latest_time) {
            latest = history;
            latest_time = entry.epoch_time;
        }
    }
    return latest;
}

// Writes the index anew, with the history that was found if its own is none.
int pod_log_recovery::use_history(pod_index index, int latest)
{
    const pod_shape &shape = ring_.shape_;
    if (index.header_index > static_cast<uint32_t>(shape.num_subblock) - 1) {
        print_output("podlog_%s_init: corrupted block index = 0x%x best guess = 0x%x\n",
                     ring_.kind(), index.header_index, static_cast<unsigned int>(latest));
        index.header_index = static_cast<uint32_t>(latest);
    }
    index.log_size = static_cast<uint32_t>(shape.subblock_size);
    return ring_.write_index_or_report(index) ? 1 : -1;
}

int pod_log_recovery::reset_because(const char *reason)
{
    print_output("podlog_%s_init: %s\n", ring_.kind(), reason);
    ring_.reset();
    return 1;
}

} // namespace device_access

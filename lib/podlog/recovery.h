// How opening an NVRAM log ends, by what the check of all its headers says.
#pragma once

#include "lib/podlog/ring.h"

namespace device_access
{

class pod_log_recovery
{
public:
    explicit pod_log_recovery(pod_log_ring &ring) : ring_(ring) {}

    // The result of opening a log whose index is right, and of one whose index is damaged.
    int accept(pod_headers headers);
    int guess(pod_index index, pod_headers headers);

private:
    // What a search for the newest history finds, if not its number.
    static constexpr int unreadable = -1;
    static constexpr int no_history = -4;
    int find_latest_blk(const pod_index &index);
    int use_history(pod_index index, int latest);
    int reset_because(const char *reason);

    pod_log_ring &ring_;
};

} // namespace device_access

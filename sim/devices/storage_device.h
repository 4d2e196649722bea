// An NVRAM block's device: memory, which one client may keep for itself.
#pragma once

#include "sim/base/files.h"
#include "sim/parts/nodes.h"

#include <string>

namespace chassis_sim
{

struct storage_device : storage_node {
    explicit storage_device(const storage_node &described);

    // A new opening; when it is kept out, errno says why.
    owned_fd open(int flags) const;

    // Whether a descriptor, which is a link to that in /proc, is such an opening.
    bool is_behind(const std::string &link) const { return link == link_; }

private:
    owned_fd memory_;
    std::string link_;
};

} // namespace chassis_sim

// An owner of an open directory.
#pragma once

#include "lib/base/errno_guard.h"

#include <memory>

#include <dirent.h>

namespace device_access
{

struct dir_closer {
    void operator()(DIR *dir) const
    {
        errno_guard keep;
        ::closedir(dir);
    }
};

// Owns an open directory; closing it leaves errno alone.
using unique_dir = std::unique_ptr<DIR, dir_closer>;

} // namespace device_access

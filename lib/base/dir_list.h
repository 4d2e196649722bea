// The sorted entries of a directory.
#pragma once

#include "lib/base/errno_guard.h"

#include <cstdlib>

#include <dirent.h>

namespace device_access
{

// Owns the sorted entries of a directory, as scandir(3) gives them.
class dir_list
{
public:
    using filter_t = int (*)(const dirent *);

    explicit dir_list(const char *path, filter_t filter = nullptr)
        : count_(::scandir(path, &entries_, filter, ::alphasort))
    {
    }
    ~dir_list()
    {
        errno_guard keep;
        for (int i = 0; i < count_; ++i)
            std::free(entries_[i]);
        std::free(entries_);
    }
    dir_list(const dir_list &) = delete;
    dir_list &operator=(const dir_list &) = delete;

    int count() const { return count_; } // negative, with errno, when it could not be read
    const char *name(int i) const { return entries_[i]->d_name; }

private:
    dirent **entries_ = nullptr;
    int count_;
};

} // namespace device_access

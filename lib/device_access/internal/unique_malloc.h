#pragma once

#include "errno_guard.h"

#include <cstdlib>
#include <memory>

namespace device_access
{

struct free_deleter {
    void operator()(void *block) const
    {
        errno_guard keep; // not every C library's free() leaves errno alone
        std::free(block);
    }
};

// Owns a block that came from malloc, calloc or realloc.
template <typename T>
using unique_malloc = std::unique_ptr<T, free_deleter>;

} // namespace device_access

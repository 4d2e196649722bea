// An owner of a block that came from malloc(), as clients free them.
#pragma once

#include "lib/base/errno_guard.h"
#include "lib/base/errors.h"

#include <cerrno>
#include <cstddef>
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

// A zeroed block of size and more bytes; NULL with ENOMEM also when the sum is too large.
inline unique_malloc<char> allocate_text(size_t size, size_t more)
{
    if (__builtin_add_overflow(size, more, &size))
        return fail(nullptr, ENOMEM);
    return unique_malloc<char>(static_cast<char *>(std::calloc(1, size)));
}

} // namespace device_access

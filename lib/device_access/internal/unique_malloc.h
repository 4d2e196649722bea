#pragma once

#include <cstdlib>
#include <memory>

namespace device_access
{

struct free_deleter {
    void operator()(void *block) const { std::free(block); }
};

// Owns a block that came from malloc, calloc or realloc.
template <typename T>
using unique_malloc = std::unique_ptr<T, free_deleter>;

} // namespace device_access

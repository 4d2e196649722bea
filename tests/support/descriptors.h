#pragma once

#include <cstddef>
#include <filesystem>
#include <iterator>

namespace test_support
{

// How many descriptors the process has open.
inline std::ptrdiff_t open_descriptors()
{
    namespace fs = std::filesystem;
    // The one that the count itself uses comes and goes.
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()) - 1;
}

} // namespace test_support

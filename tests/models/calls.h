// The library's calls that a model must see, or lets fail. They are touched only within expect().
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <sys/types.h>

namespace models
{

inline time_t now = 1700000000; // what time() gives

struct opening {
    std::string path;
    int flags; // but for O_CLOEXEC
    bool operator==(const opening &) const = default;
};
inline std::vector<opening> openings;    // all that open() was asked for
inline int mkdir_error = 0;              // that mkdir() fails with
inline std::vector<unsigned int> sleeps; // in microseconds, since expect_sleeps()

// Transfers at a position that touch these bytes fail with EIO.
struct byte_range {
    int64_t from = 0;
    int64_t to = 0;
    bool meets(int64_t position, size_t size) const
    {
        return position >= 0 && from < to && position < to &&
               position + static_cast<int64_t>(size) > from;
    }
};
inline byte_range unreadable;
inline byte_range unwritable;

// A byte that is not the same in every second read of it.
struct unsteady_byte {
    int64_t position = -1;
    int reads = 0;

    // Spoils what was read.
    void meet(int64_t from, char *data, size_t size)
    {
        if (position >= from && position < from + static_cast<int64_t>(size) && reads++ % 2 == 1)
            data[position - from] = static_cast<char>(data[position - from] ^ 0x41);
    }
};
inline unsteady_byte unsteady;

// Throws unless these were the pauses, and forgets them.
void expect_sleeps(const std::vector<unsigned int> &expected);

} // namespace models

// Paths of the UIO class directories, and the names of UIO nodes and maps.
#pragma once

#include "lib/base/unique_malloc.h"

#include <cstddef>
#include <initializer_list>

#include <sys/types.h>

namespace device_access
{

// A path on the caller's stack. The builders append at most 39 characters, which the longest,
// "/sys/class/uio/uio99999/maps/map63/size", fills exactly; the mark of a cut may follow them.
struct libuio_path_t {
    static constexpr unsigned int limit = 39;
    size_t len;
    char str[limit + 2];
};

// Writes the pieces' concatenation into buf and returns it as text. A piece that does not fit is
// reported and replaced by '^'; the path then simply fails at the next open.
const char *libuio_concat_path(libuio_path_t &buf, std::initializer_list<const char *> pieces);

// The number N of a name whose last component is "uioN" or "mapN", else -1.
int libuio_extract_inst_id(const char *name);
int libuio_extract_map_id(const char *name);

const char *libuio_basename(const char *name);

// If /sys/class/uio/BASENAME describes the character device dev_id, leaves that directory's path in
// buf and returns it, else NULL.
const char *libuio_make_class_dir(libuio_path_t &buf, const char *basename, dev_t dev_id);

// The canonical absolute path of given_name, with room for a suffix of up to 44 characters after
// it; NULL with errno on failure.
unique_malloc<char> libuio_locate_real_name(const char *given_name);

} // namespace device_access

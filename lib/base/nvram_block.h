// NVRAM blocks of the kernel class "zmt_nvram": found by name, their nodes made and opened. Serves
// every reader and writer of such blocks; each prints its own messages.
#pragma once

#include "lib/base/unique_fd.h"

#include <cstddef>

#include <sys/types.h>

namespace device_access
{

// Where a search for a block among "/sys/class/zmt_nvram/nvram0" to "nvram19" ended.
struct nvram_search {
    int found;   // its number, or -1
    int missing; // the number whose name file could not be opened, or -1
};
nvram_search find_nvram_block(const char *name);

// The path of an attribute file of block n.
struct nvram_attr_path {
    nvram_attr_path(int n, const char *attr);
    char str[64];
};

// Reads an attribute of a block: at most size bytes, of which the last one read (the line end)
// becomes the terminator. False when the file cannot be opened; an unreadable one gives "".
bool read_nvram_attr(const nvram_attr_path &path, char *text, size_t size);

// The device number of block n, from its "dev" attribute.
bool read_nvram_device_number(int n, dev_t &number);

// Makes the node of a block; a node that is there already will do. Reports a failure.
bool make_nvram_node(const char *node, dev_t number);

// Tries to open the node exclusively, sleeping a random while after each failure.
unique_fd open_nvram_exclusively(const char *node, int access_mode, int attempts);

} // namespace device_access

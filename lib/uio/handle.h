// A UIO handle's whole life, whatever kind of device is behind it: made with room for everything,
// finished (libuio_adjust_size()), unmapped (libuio_munmap()), shut.
#pragma once

#include "lib/base/unique_malloc.h"

#include <device_access/libuio.h>

namespace device_access
{

// What a handle stands for. Its fields are public and have no room for this: its strings tell.
enum class uio_kind {
    node,            // a UIO device
    pci_resource,    // an FPGA's register block, in the files of sys_device_dir
    physical_memory, // the same, in /dev/mem
};
uio_kind kind_of(const libuio_dev_t &uio);

// The sys_device_dir of physical memory.
inline constexpr char memory_dir[] = "/dev/";

// A zero-filled handle with room for every map and no node or removal notice open; NULL with
// ENOMEM. Its strings are still the opening call's.
unique_malloc<libuio_dev_t> libuio_new_handle(const char *devnode_name);

// Gives a filled handle its final size and its own strings.
bool libuio_finish_handle(unique_malloc<libuio_dev_t> &uio);

bool libuio_is_masked(const libuio_map_t &map, uint64_t nop_mask);

// Leaves the handle allocated, with nothing mapped and nothing open.
void libuio_shut(libuio_dev_t &uio);

} // namespace device_access

/*
 * Mapping of physical memory through /dev/mem.
 */
#ifndef DEVICE_ACCESS_MMAP_DEVICE_H
#define DEVICE_ACCESS_MMAP_DEVICE_H

#include <stdint.h>

#include <device_access/device_access_api.h>

DEVICE_ACCESS_BEGIN_DECLS

/*
 * Map a range of physical memory, readable, writable and shared.
 *
 * uio_addr: physical address in bytes, a multiple of the page size; it may lie above 4 GiB on the
 *           32-bit target too.
 * uio_size: length in bytes.
 *
 * Returns the address of the mapping, to be released with mmap_device_close(); NULL, with open(2)'s
 * errno and a line on standard error, when /dev/mem cannot be opened; MAP_FAILED (all ones, not
 * NULL) with mmap(2)'s errno when the range cannot be mapped. Callers must test for both.
 */
DEVICE_ACCESS_API void *mmap_device_open(uint64_t uio_addr, uint32_t uio_size);

/*
 * Unmap uio_size bytes at mmap_base_addr, a result of mmap_device_open(). NULL is allowed and does
 * nothing; errors are ignored.
 */
DEVICE_ACCESS_API void mmap_device_close(void *mmap_base_addr, uint32_t uio_size);

DEVICE_ACCESS_END_DECLS

#endif

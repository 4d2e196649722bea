/*
 * Single-width access to device registers in mapped memory (UIO maps, PCI resources, /dev/mem).
 *
 * Each call is one volatile access of the width in its name, in the processor's own byte order:
 * no barrier, no byte swapping, no retry. The 64-bit calls are two 32-bit accesses and therefore
 * not atomic. No call keeps state or touches errno; all may be called from any thread.
 */
#ifndef DEVICE_ACCESS_REGIOMAP_X86_H
#define DEVICE_ACCESS_REGIOMAP_X86_H

#include <stdint.h>

#include <device_access/device_access_api.h>

DEVICE_ACCESS_BEGIN_DECLS

/*
 * Store val in the register at addr with one access of the named width.
 *
 * addr: a mapped address, aligned to the width. NULL is allowed: the call then does nothing.
 */
DEVICE_ACCESS_API void iowrite8(uint8_t val, volatile void *addr);
DEVICE_ACCESS_API void iowrite16(uint16_t val, volatile void *addr);
DEVICE_ACCESS_API void iowrite32(uint32_t val, volatile void *addr);

/*
 * Store val with two 32-bit accesses: the lower half at addr, then the upper half at addr + 4.
 * Does nothing when addr is NULL.
 */
DEVICE_ACCESS_API void iowrite64(uint64_t val, volatile void *addr);

/*
 * Load the register at addr with one access of the named width.
 *
 * addr: a mapped address, aligned to the width; it is not checked and must not be NULL.
 */
DEVICE_ACCESS_API uint8_t ioread8(const volatile void *addr);
DEVICE_ACCESS_API uint16_t ioread16(const volatile void *addr);
DEVICE_ACCESS_API uint32_t ioread32(const volatile void *addr);

/*
 * Load a 64-bit register with two 32-bit accesses: the upper half at addr + 4, then the lower half
 * at addr. addr is not checked and must not be NULL.
 */
DEVICE_ACCESS_API uint64_t ioread64(const volatile void *addr);

DEVICE_ACCESS_END_DECLS

#endif

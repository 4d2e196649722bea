/*
 * What every public header of the library shares: the mark of an exported name, and C linkage.
 *
 * Names reserved for the library in a program that links it:
 *   - the macros DEVICE_ACCESS_*;
 *   - those that begin check_nvc_, crc32_, device_access_, diag_inventory_, ioread, iowrite,
 *     lc2_pod_log_, libuio_, mmap_device_, nvram_, _nvram_, pci_config_, pcie_config_, pcie_nvram_,
 *     pod_nvram_, podlog_, post_, postlog_, qel_pci_hotswap_, set_nvc_, sysfs_pci_;
 *   - SetChassisType, GetChassisType, GetSlotByName, GetSlotById.
 * A program that defines one of them for itself hides the library's. The one exception is there for
 * programs to define: libuio_log (libuio.h).
 */
#ifndef DEVICE_ACCESS_DEVICE_ACCESS_API_H
#define DEVICE_ACCESS_DEVICE_ACCESS_API_H

/* The library hides its symbols by default; what carries this mark is its interface. */
#define DEVICE_ACCESS_API __attribute__((visibility("default")))

/* Enumerations travel as int, and calls must cope with any value of one: C++ is told so. */
#ifdef __cplusplus
#define DEVICE_ACCESS_INT_ENUM : int
#else
#define DEVICE_ACCESS_INT_ENUM
#endif

/* Clang reports C's open arrays at the end of a record in every C++, __extension__ or not. */
#if defined(__cplusplus) && defined(__clang__)
#define DEVICE_ACCESS_BEGIN_DECLS                                                                  \
    _Pragma("clang diagnostic push")                                                               \
        _Pragma("clang diagnostic ignored \"-Wc99-extensions\"") extern "C"                        \
    {
#define DEVICE_ACCESS_END_DECLS                                                                    \
    }                                                                                              \
    _Pragma("clang diagnostic pop")
#elif defined(__cplusplus)
#define DEVICE_ACCESS_BEGIN_DECLS extern "C" {
#define DEVICE_ACCESS_END_DECLS }
#else
#define DEVICE_ACCESS_BEGIN_DECLS
#define DEVICE_ACCESS_END_DECLS
#endif

/* It is made when the library is, and says whether this program's time_t is the library's. */
#if defined(__has_include)
#if __has_include(<device_access/device_access_version.h>)
#include <device_access/device_access_version.h>
#endif
#endif

#endif

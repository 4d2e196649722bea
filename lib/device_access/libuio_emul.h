/*
 * UIO emulation over PCI resources: FPGA register blocks that have no UIO driver, opened by pseudo
 * node names "sysfs_pci:REGION.SLOT[.FPGA]" through libuio_open_timed().
 */
#ifndef DEVICE_ACCESS_LIBUIO_EMUL_H
#define DEVICE_ACCESS_LIBUIO_EMUL_H

#include <device_access/libuio.h>

DEVICE_ACCESS_BEGIN_DECLS

/* 1 when name is a pseudo node name (it begins "sysfs_pci:"), else 0. */
DEVICE_ACCESS_API uint32_t libuio_is_emul(const char *name);

DEVICE_ACCESS_API libuio_dev_t *libuio_emul_open_timed(const char *devnode_name,
                                                       const struct timespec *max_wait);
DEVICE_ACCESS_API int libuio_emul_mmap(libuio_dev_t *uio, uint64_t nop_mask);
DEVICE_ACCESS_API int libuio_emul_device_enable(libuio_dev_t *uio_p, int32_t enable);

DEVICE_ACCESS_END_DECLS

#endif

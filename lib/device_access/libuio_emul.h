/*
 * UIO emulation over PCI resources: register blocks of the chassis's FPGAs that have no UIO driver,
 * opened under pseudo node names through libuio_open_timed(). They give an ordinary handle, whose
 * maps are ranges of the FPGA's PCI resource files; libuio_mmap() and libuio_close() know it by its
 * name. It has no interrupts: libuio_irqwait() fails with EBADF.
 *
 * A pseudo node name is one word (white space ends it): "sysfs_pci:REGION.SLOT[.FPGA]", for
 * example "sysfs_pci:uio_cma.alsw1" or "sysfs_pci:uio_fe0.rpsw.zarnik2".
 *
 *   REGION  the register block, e.g. "uio_glb"
 *   SLOT    the card: "rpsw...", "self...", "peer...", "sw..." or "alsw..."
 *   FPGA    "zarnik", "zarnik2", "pellum", "pellum2", "vostra", "vostrat", "vostra2",
 *           "vostra_lite" or "vostra2_lite"
 *
 * Without an FPGA name the FPGA is asked what it is (register 0x28 of resource 0, bits 16 to 23);
 * without an answer an rpsw card has a zarnik2, an sw card a vostra_lite and an alsw card a
 * vostra2.
 *
 * 20 characters of each count; case is ignored in REGION, FPGA and the beginning of SLOT. An FPGA
 * "zarnik" or "zarnik2" of an rpsw card that sits at the same hot-swap port as the slot "peer" is
 * the other route processor's, which offers fewer blocks.
 *
 * The device is found through the hot-swap name service: the extended attribute
 * "user.com.velmora.zmt.attr_value" of "/dev/dynattr/rpsw/hotswap/byname/SLOT" is the PCI address
 * of the slot's port, and the device is the first one below it. A "pellum2" is always
 * 0000:0d:00.0; a "pellum" is reached by its physical addresses through /dev/mem.
 *
 * Threads and diagnostics are as in libuio.h.
 */
#ifndef DEVICE_ACCESS_LIBUIO_EMUL_H
#define DEVICE_ACCESS_LIBUIO_EMUL_H

#include <device_access/libuio.h>

DEVICE_ACCESS_BEGIN_DECLS

/* 1 when name is a pseudo node name (it begins "sysfs_pci:"), else 0; 0 for NULL. */
DEVICE_ACCESS_API uint32_t libuio_is_emul(const char *name);

/*
 * Open a register block; libuio_open_timed() calls this for pseudo node names. The PCI device is
 * enabled, nothing is mapped yet.
 *
 * devnode_name: a pseudo node name. One with parts missing is looked for, in vain, like any other.
 * max_wait:     how long to wait for the device to appear; counted as for libuio_open_timed(), so
 *               NULL waits for ever, for a slot that will never exist too.
 *
 * Returns the handle, owned by the caller until libuio_close(); both its directories are that of
 * the PCI device ("/dev/" for a "pellum"), its descriptors for node and removal are -1, that of the
 * timer 0. A map of a whole resource shows the size 0xffffffff until it is mapped. NULL with errno
 * on failure:
 *   EINVAL  devnode_name is NULL, the device did not appear in time, or such an FPGA in such a slot
 *           is not known or has no such block
 *   ENOMEM  out of memory
 *   other   from enabling the device, see libuio_emul_device_enable()
 */
DEVICE_ACCESS_API libuio_dev_t *libuio_emul_open_timed(const char *devnode_name,
                                                       const struct timespec *max_wait);

/*
 * Map the ranges of a register block; libuio_mmap() calls this for emulated handles. Every map that
 * is not mapped yet and whose bit in nop_mask is clear is mapped from the file "resourceN" of the
 * device; the map's size becomes the length mapped, in bytes, which is the file's for a whole
 * resource, and less than asked for when the resource shrinks at that moment.
 *
 * Returns as libuio_mmap() does. errno when a map fails: EINVAL for a range that is not
 * page-aligned or not inside the resource file, ENOMEM for one that the address space cannot hold,
 * ENAMETOOLONG for a path above 255 characters, else from open(2), fstat(2) or mmap(2).
 */
DEVICE_ACCESS_API int libuio_emul_mmap(libuio_dev_t *uio, uint64_t nop_mask);

/*
 * Enable (enable not 0) or disable (0) the PCI device of an emulated handle, through the file
 * "enable" of its directory. libuio_emul_open_timed() enables it, except for a "pellum";
 * libuio_close() disables it.
 *
 * Returns 0; -1 with errno: EINVAL for a NULL handle, ENAMETOOLONG for a path above 255 characters,
 * EIO when nothing was written, else from open(2) or write(2): EBUSY while a driver has the device.
 */
DEVICE_ACCESS_API int libuio_emul_device_enable(libuio_dev_t *uio_p, int32_t enable);

DEVICE_ACCESS_END_DECLS

#endif

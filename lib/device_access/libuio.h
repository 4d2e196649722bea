/*
 * UIO devices: opening them by node name, their register windows ("maps"), their interrupts and
 * their removal.
 *
 * A driver's life: libuio_open_timed(), libuio_mmap(), libuio_get_mapinfo() for each map, register
 * access with ioread32()/iowrite32() (regiomap_x86.h), then a loop of libuio_irqcontrol(uio, 1) and
 * libuio_irqwait(), and finally libuio_close().
 *
 * Names beginning "sysfs_pci:" are no UIO nodes: they are served by mapping PCI resource files (see
 * libuio_emul.h) and give a handle of the same kind, without interrupts.
 *
 * In an event loop of one's own: watch libuio_get_uio_fd() for POLLIN, which stays until the
 * interrupt's count has been read. Then call libuio_irqwait() with a deadline in the past, such as
 * {0, 0}, and a place for the count: it never blocks, and takes what has come, or fails with
 * ETIMEDOUT when nothing has. Watch libuio_get_removed_fd(), unless it is -1, for POLLPRI: the
 * kernel reports it, and POLLERR, when the device is removed. POLLIN is no sign there: many kernels
 * call the descriptor readable at any time. Since libuio_irqwait() takes any event on it for the
 * removal, on such a kernel read the 4 bytes of the count from libuio_get_uio_fd() instead.
 *
 * After a removal: a wait that reports it has unmapped everything, so that addresses handed out
 * before are no longer valid. Until then a register access may come first. Reads of a register on a
 * bus whose device has left give all ones, and writes are lost; where the kernel has taken the
 * mapping back, as it does with the resource files of emulated devices, an access raises SIGBUS.
 * Drivers of removable cards check for all ones, and those that must survive handle SIGBUS.
 *
 * Threads: no call keeps state outside the handle. Different handles may be used from different
 * threads; one handle must not be used from two threads at once.
 *
 * Diagnostics: the calls print through libuio_pr(), and only in programs that define a global
 * symbol named libuio_log (any object or function; it is never called or read). Printing never
 * changes errno.
 */
#ifndef DEVICE_ACCESS_LIBUIO_H
#define DEVICE_ACCESS_LIBUIO_H

#include <stddef.h>
#include <stdint.h>
#include <time.h>

#include <device_access/device_access_api.h>

struct timespec; /* which <time.h> does not define in C99 alone */

DEVICE_ACCESS_BEGIN_DECLS

/* Most maps a device can have, and one more than the highest map number. */
#define LIBUIO_MAX_MAPS 64

/* One register window of a device. */
typedef struct libuio_map_s {
    void *addr;          /* where it is mapped, NULL while it is not */
    size_t size;         /* length in bytes, from the map's "size" file */
    unsigned int index;  /* its number N, from "mapN": 0 to 63 */
    unsigned int offset; /* byte offset in a PCI resource; emulated devices only, else 0 */
    unsigned int bar;    /* PCI resource number; emulated devices only, else 0 */
} libuio_map_t;

/*
 * An opened device. One malloc block: these fields, map_count map records, and the three strings,
 * NUL-terminated, in the order sys_device_dir, sys_class_dir, devnode_name. Made by libuio_open()
 * and libuio_open_timed(), released by libuio_close() only. Clients read it through the calls
 * below.
 */
typedef struct libuio_dev_s {
    const char *devnode_name;   /* the name as the caller gave it */
    const char *sys_class_dir;  /* "/sys/class/uio/uioN"; emulated: the PCI device directory */
    const char *sys_device_dir; /* canonical sysfs directory of the device on its bus */
    int gone_fd;                /* the bus device's "uio_maps" attribute; -1 when it has none */
    int tmr_fd;                 /* timer on CLOCK_MONOTONIC, for waits with a deadline */
    int uio_fd;                 /* the device node, opened for reading and writing */
    unsigned int map_index_max; /* highest map number found */
    unsigned int map_count;     /* number of records in map */
    __extension__ libuio_map_t map[];
} libuio_dev_t;

/*
 * Open a UIO device, waiting without limit for its node to appear:
 * libuio_open_timed(devnode_name, NULL).
 */
DEVICE_ACCESS_API libuio_dev_t *libuio_open(const char *devnode_name);

/*
 * Open a UIO device by the name of its node, or of a symbolic link to it. The node's own name need
 * not be "uioN": a node under another name is found in /sys/class/uio by its device number, which
 * is compared as major * 256 + minor, whatever the C library's encoding of device numbers.
 *
 * devnode_name: path of the node, e.g. "/dev/uio3".
 * max_wait:     how long to wait for the node to appear, a relative time. NULL waits for ever; zero
 *               does not wait. The wait looks every 5 ms; its budget in milliseconds is
 *               tv_sec * 1000 + tv_nsec / 10000000, so the part below a second counts one tenth of
 *               its value: half a second given as nanoseconds waits 50 ms.
 *
 * The kernel makes the node of a new device a little before its maps, so a handle that waited for
 * the node can be without maps, though the device has some: close it then and open again.
 *
 * Returns the handle, owned by the caller until libuio_close(), with no map mapped yet; NULL with
 * errno on failure:
 *   EINVAL  devnode_name is NULL, not a character device, or its bus device directory is not one
 *   ENOENT  the node did not appear in time
 *   ENODEV  every directory of /sys/class/uio describes another device
 *   ENOMEM  out of memory, or the device has more than 64 maps
 *   EIO     a "dev" or "size" file or the "uio_maps" attribute is empty
 *   other   as the failing system call set it
 */
DEVICE_ACCESS_API libuio_dev_t *libuio_open_timed(const char *devnode_name,
                                                  const struct timespec *max_wait);

/*
 * Close a device: disable it if it is an emulated one, unmap its maps, close its descriptors (those
 * greater than 0) and free the handle. Valid in every state, after a removal too. A NULL handle
 * sets errno to EINVAL.
 */
DEVICE_ACCESS_API void libuio_close(libuio_dev_t *uio);

/*
 * Reallocate a handle that is being built (room for 64 maps, strings elsewhere) to the exact size
 * of its contents, moving the three strings into its tail. For the library's own opening calls.
 *
 * Returns the new handle, which replaces the old one; NULL when uio is NULL (errno untouched) or
 * memory ran out (ENOMEM; the old handle is then still the caller's).
 */
DEVICE_ACCESS_API libuio_dev_t *libuio_adjust_size(libuio_dev_t *uio);

/*
 * Open a file of the device's sysfs directory (libuio_get_sys_device_dir()).
 *
 * attr_name: its name relative to that directory; it may contain '/', but not begin with it.
 * flags:     open(2) flags.
 *
 * Returns a descriptor that the caller closes; -1 with errno: EINVAL for a NULL handle or name or
 * an absolute name, ENOENT for a handle without a device directory or an attribute that does not
 * exist (not reported: a missing attribute is normal), else as open(2) set it.
 */
DEVICE_ACCESS_API int libuio_open_device_attr(const libuio_dev_t *uio, const char *attr_name,
                                              int flags);

/*
 * Parts of a handle. The descriptors and strings stay the handle's: do not close or free them; the
 * strings live until libuio_close().
 *
 * Return -1 (descriptors) or NULL (strings) with errno EINVAL for a NULL handle. The descriptors
 * are also -1 (errno untouched) after a removal; that of the removal notice when the device offers
 * none.
 */
DEVICE_ACCESS_API int libuio_get_uio_fd(const libuio_dev_t *uio);
DEVICE_ACCESS_API const char *libuio_get_real_devnode(const libuio_dev_t *uio);
DEVICE_ACCESS_API const char *libuio_get_sys_class_dir(const libuio_dev_t *uio);
DEVICE_ACCESS_API const char *libuio_get_sys_device_dir(const libuio_dev_t *uio);

/*
 * The descriptor to watch for the device's removal in the client's own loop: for POLLPRI, as told
 * above. When it comes the device is gone; close the handle then.
 */
DEVICE_ACCESS_API int libuio_get_removed_fd(const libuio_dev_t *uio);

/*
 * Map the device's register windows: every map that is not mapped yet and whose bit in nop_mask is
 * clear. Bit N (bit 0 the lowest) stands for map number N, wherever it is in the table. Map N is
 * the device node at offset N * page size (the kernel's UIO interface).
 *
 * Returns the number of maps newly mapped; minus the number of the map that could not be mapped,
 * with mmap(2)'s errno (untouched after a removal), maps mapped before it staying mapped; -1 with
 * EINVAL for a NULL handle. A failure on map 0 thus returns 0, like "nothing to map":
 * libuio_get_mapinfo() tells them apart.
 */
DEVICE_ACCESS_API int libuio_mmap(libuio_dev_t *uio, uint64_t nop_mask);

/*
 * Unmap every mapped map whose bit in nop_mask is clear (bits as for libuio_mmap()). A NULL handle
 * sets errno to EINVAL.
 */
DEVICE_ACCESS_API void libuio_munmap(libuio_dev_t *uio, uint64_t nop_mask);

/*
 * Where a map is.
 *
 * index: map number, 0 to 63.
 * size:  if not NULL, receives the map's length in bytes, whether it is mapped or not.
 *
 * Returns the map's address, NULL while it is not mapped and when there is no such map (size and
 * errno are then untouched); NULL with EINVAL for a NULL handle.
 */
DEVICE_ACCESS_API void *libuio_get_mapinfo(const libuio_dev_t *uio, unsigned int index,
                                           size_t *size);

/*
 * One more than the highest map number, to size an array indexed by map number; 0 when the device
 * has no maps, and, with errno EINVAL, for a NULL handle.
 */
DEVICE_ACCESS_API unsigned int libuio_get_map_limit(const libuio_dev_t *uio);

/*
 * Enable (1) or disable (0) the device's interrupt; flag is handed to the driver unchanged, as the
 * 4 bytes that the kernel's UIO interface takes.
 *
 * Returns 0; -1 with errno: EINVAL for a NULL handle, EIO when the driver took fewer than 4 bytes,
 * else as the driver set it.
 */
DEVICE_ACCESS_API int libuio_irqcontrol(libuio_dev_t *uio, int32_t flag);

/*
 * Wait for the device's removal, its next interrupt or a deadline, in this order of priority when
 * several have come.
 *
 * abs_timeout: a time on CLOCK_MONOTONIC, or NULL to wait without limit. A time in the past still
 *              lets a pending removal or interrupt win.
 * event_count: if not NULL, receives the driver's count of interrupts so far, which also consumes
 *              the interrupt; with NULL the next wait wakes at once.
 *
 * Returns 0 on an interrupt; -1 with errno:
 *   EINVAL     uio is NULL, or its timer descriptor is not valid
 *   EBADF      the device was removed earlier, or is an emulated one
 *   ECANCELED  the device has been removed: its maps are unmapped and its descriptors closed; close
 *              the handle
 *   ETIMEDOUT  the deadline has passed
 *   EINTR      a signal came
 *   EIO        poll(2) woke for no known reason, or, when a count is asked for, the device has lost
 *              its driver; without a count that looks like an interrupt
 *   other      from timerfd_settime(2), poll(2) or the read of the count
 *
 * Every event on the removal notice, which is polled for POLLIN, counts as the removal. So a device
 * that offers one needs a kernel on which a sysfs attribute is silent until it is notified; today's
 * kernels call it readable at any time, and there every wait ends with ECANCELED at once.
 */
DEVICE_ACCESS_API int libuio_irqwait(libuio_dev_t *uio, const struct timespec *abs_timeout,
                                     uint32_t *event_count);

/*
 * Print one diagnostic line, if the program defines the symbol libuio_log:
 * "log[LEVELSTR]: lib/device_access/libuio:LINE_NUM:FUNC_NAME(): MESSAGE\n". Used by every libuio
 * call. Prefix and message are cut to fit 512 bytes.
 *
 * level:    a syslog priority: up to 5 prints to standard output, above to standard error (sic).
 * levelStr: its name, "LOG_ERR" for 3, "LOG_INFO" for 6, "LOG_DEBUG" for 7.
 *
 * Never changes errno.
 */
DEVICE_ACCESS_API void libuio_pr(int level, const char *levelStr, unsigned int line_num,
                                 const char *func_name, const char *fmt, ...)
    __attribute__((format(printf, 5, 6)));

DEVICE_ACCESS_END_DECLS

#endif

/*
 * PCI functions through the kernel's sysfs tree, "/sys/bus/pci/devices": naming them, listing and
 * scanning them, reading and writing their attribute files, mapping their memory.
 *
 * Threads: apart from the scan below, no call keeps state outside what it is handed, and all may be
 * used from several threads. sysfs_pci_info_init() replaces the process's one scan result without a
 * lock: scan before other threads iterate. An iterator belongs to one thread.
 */
#ifndef DEVICE_ACCESS_PCI_SYSFS_H
#define DEVICE_ACCESS_PCI_SYSFS_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <device_access/device_access_api.h>

DEVICE_ACCESS_BEGIN_DECLS

/*--- identities ---------------------------------------------------------------------------------*/

/*
 * The name of a PCI function: that of its sysfs directory, "dddd:bb:ss.f" (hexadecimal domain, bus
 * and slot, function 0 to 7). 16 bytes, aligned to 32 bits.
 */
typedef struct sysfs_pci_identity_s {
    char str[13]; /* NUL-terminated; no call reads beyond the 13 bytes */
    __extension__ uint32_t _pad[0];
} sysfs_pci_identity_t;

/*
 * The characters s to e - 1 of an identity as a number: each character, lower-cased, adds its value
 * to 16 times what came before it. Digits count 0 to 9, every other character its code - 107, so
 * that 'a' to 'f' count -10 to -5: bus "1f" is 11, bus "0a" is -10. These are the numbers that all
 * of the system uses for its devices; they are no hexadecimal numbers.
 *
 * Only the characters 0 to 12 exist: others in the range add nothing. The result is taken modulo
 * 2^32; an empty range and a NULL identity give 0. errno is left alone.
 */
DEVICE_ACCESS_API int sysfs_pci_identity_atox(int s, int e, const sysfs_pci_identity_t *ident);

/*
 * The parts of an identity, by the rule of sysfs_pci_identity_atox(): characters 0 to 3, 5 to 6,
 * 8 to 9, and 11.
 */
DEVICE_ACCESS_API int sysfs_pci_identity_domain(const sysfs_pci_identity_t *ident);
DEVICE_ACCESS_API int sysfs_pci_identity_bus(const sysfs_pci_identity_t *ident);
DEVICE_ACCESS_API int sysfs_pci_identity_slot(const sysfs_pci_identity_t *ident);
DEVICE_ACCESS_API int sysfs_pci_identity_function(const sysfs_pci_identity_t *ident);

/* ((slot * 8) & 0xff) | (function & 7) of the numbers above, 0 to 255. */
DEVICE_ACCESS_API int sysfs_pci_identity_devfn(const sysfs_pci_identity_t *ident);

/*--- scan and lists -----------------------------------------------------------------------------*/

/* The attributes that the scan reads, each a file of the device's directory. */
typedef enum attr_e DEVICE_ACCESS_INT_ENUM {
    ATTR_DEVICE = 1,
    ATTR_VENDOR = 2,
    ATTR_SUBSYSTEM_DEVICE = 3,
    ATTR_SUBSYSTEM_VENDOR = 4,
    ATTR_RESOURCE = 5,
    ATTR_MAX = 6
} attr_t;

typedef struct __com_pci_dev_s {
    uint16_t vendor;
    uint16_t device;
    uint16_t subsystem_vendor;
    uint16_t subsystem_device;
    uint8_t devfn;    /* sysfs_pci_identity_devfn(); 0 in what the scan finds */
    char sys_fs[100]; /* "/sys/bus/pci/devices/" and the identity, NUL-terminated */
} com_pci_dev_t;

/* One line of a device's "resource" file. */
typedef struct sysfs_pci_bar_s {
    uint64_t base; /* bus address */
    /*
     * Bytes; only the low 32 bits have a meaning for windows that end at or above 2 GiB, because
     * the end is taken as a signed 32-bit number. 1 for an unused line.
     */
    uint64_t size;
    uint64_t flags; /* the kernel's resource flags, below 2^32 */
} sysfs_pci_bar_t;

typedef struct sysfs_pci_info_s {
    com_pci_dev_t id; /* sys_fs is empty in a hole: a directory entry that is no device */
    sysfs_pci_bar_t resource_bar[6];
} sysfs_pci_info_t;

/* All that a scan found, in the order of the directory's sorted names, holes included. */
typedef struct sysfs_pci_info_set_s {
    size_t count; /* number of elements, holes included */
    __extension__ sysfs_pci_info_t element[];
} sysfs_pci_info_set_t;

/* An iterator over a scan's result; made by sysfs_pci_info_fetch_init(), owned by the caller. */
typedef struct sysfs_pci_get_next_element_s {
    size_t key;       /* index of the next element to look at */
    const void *seed; /* the sysfs_pci_info_set_t being walked */
} sysfs_pci_get_next_element_t;

/*
 * Scan the machine's PCI devices: ids and the six base address registers of each. Replaces the
 * result of an earlier scan, which is never freed, so that iterators on it stay valid.
 *
 * What goes wrong with a device is logged and leaves the field 0. All log lines of the scan, those
 * that only inform (level 7) too, go to standard output as
 * "[LEVEL], lib/device_access/pci_sysfs:LINE:FUNCTION(): MESSAGE\n".
 *
 * Returns 0; 1 when there is no result: no directory, nothing in it, or no memory. errno has no
 * meaning.
 */
DEVICE_ACCESS_API int sysfs_pci_info_init(void);

/*
 * Begin an iteration over the result of the last scan. Without one the iterator is not usable, as a
 * line like the scan's says. A NULL handle is only reported, to syslog(3) at LOG_ERR.
 */
DEVICE_ACCESS_API void sysfs_pci_info_fetch_init(sysfs_pci_get_next_element_t *handle);

/*
 * The next device of an iteration, skipping holes.
 *
 * Returns the device, which lives for the process; NULL at the end (again and again), and for a
 * handle that is NULL, has no scan result or a key beyond the number of elements, which is reported
 * to syslog(3) at LOG_ERR. errno is left alone.
 */
DEVICE_ACCESS_API const sysfs_pci_info_t *
sysfs_pci_info_fetch_next(sysfs_pci_get_next_element_t *handle);

/*
 * Fill the record of one device. An id whose attribute does not begin with a number below 0x10000,
 * as sysfs_pci_show_nums() reads it, becomes 0xffff. A NULL identity leaves sys_fs empty.
 *
 * pci_dev: not NULL.
 *
 * Returns 0, whatever failed. errno has no meaning.
 */
DEVICE_ACCESS_API int sysfs_pci_dev_fill(com_pci_dev_t *pci_dev,
                                         const sysfs_pci_identity_t *pci_ident);

/*
 * The identities of all devices, or of those that sysfs shows in a bridge's directory (its direct
 * children), sorted by name. Entries whose names are no identities are left out.
 *
 * Return an array that ends with an all-zero record, to be released with free(); NULL with errno on
 * failure: ENOMEM, that of reading the directory, or, for the children, that of
 * sysfs_pci_abspath() (ENAMETOOLONG for more than 12 characters).
 */
DEVICE_ACCESS_API sysfs_pci_identity_t *sysfs_pci_list(void);
DEVICE_ACCESS_API sysfs_pci_identity_t *
sysfs_pci_children_list(const sysfs_pci_identity_t *pci_ident);

/*--- attribute files ----------------------------------------------------------------------------*/

/*
 * The path of an attribute: "/sys/bus/pci/devices/IDENTITY/ATTR_NAME".
 *
 * path:      buffer of max bytes for the path and its terminator, or NULL for a malloc block.
 * max:       with a NULL path: bytes to allocate beyond those that the path needs.
 * attr_name: NULL for the device's directory itself, without a "/" after it.
 *
 * Returns path, or the block, to be released with free(); NULL with errno on failure: -22 (the
 * negative of EINVAL) for a NULL identity, ENOMEM, ENAMETOOLONG when max bytes are too few.
 */
DEVICE_ACCESS_API char *sysfs_pci_abspath(char *path, size_t max, const char *attr_name,
                                          const sysfs_pci_identity_t *pci_ident);

/*
 * access(2) and open(2) on an attribute of a device.
 *
 * attr_name:   name of the file, neither NULL nor empty.
 * access_mode: as for access(2), e.g. W_OK.
 * open_flags:  as for open(2); the caller closes the descriptor.
 *
 * Return what the system call returns; -1 with errno EINVAL for a NULL or empty name, else as
 * sysfs_pci_abspath() or the system call set it.
 */
DEVICE_ACCESS_API int sysfs_pci_access(const char *attr_name, int access_mode,
                                       const sysfs_pci_identity_t *pci_ident);
DEVICE_ACCESS_API int sysfs_pci_open(const char *attr_name, int open_flags,
                                     const sysfs_pci_identity_t *pci_ident);

/*
 * The text of an attribute, read with one pread(2) at position 0.
 *
 * attr_value: buffer of max bytes (2 at least), of which max - 1 are read; NULL for a malloc block
 *             of a page and max bytes, of which a page less 1 byte are read.
 * count:      if not NULL, receives the number of bytes read.
 * fd:         the attribute, opened for reading; sysfs_pci_show() opens and closes it by name.
 *
 * Return the text, NUL-terminated: attr_value, or the block, to be released with free(). NULL with
 * errno on failure: EINVAL for max below 2, ENOMEM, or as sysfs_pci_open() or the system call set
 * it. An empty file is a failure too; it leaves errno alone.
 */
DEVICE_ACCESS_API char *sysfs_pci_fshow(char *attr_value, size_t max, size_t *count, int fd);
DEVICE_ACCESS_API char *sysfs_pci_show(char *attr_value, size_t max, size_t *count,
                                       const char *attr_name,
                                       const sysfs_pci_identity_t *pci_ident);

/*
 * The numbers at the beginning of an attribute, separated by white space: decimal, hexadecimal
 * after "0x" or octal after "0", with or without a sign. A word that is not wholly a number ends
 * them.
 *
 * value:     array of num_count numbers (a count of 0 means 1).
 * num_count: most numbers to read. For one, no more than 31 bytes of the attribute are read; for
 *            more, a page less 1 byte.
 *
 * Return how many numbers were stored, 0 included; -1 with errno on failure: EINVAL for a NULL
 * value, else as for sysfs_pci_fshow() and sysfs_pci_show().
 */
DEVICE_ACCESS_API ssize_t sysfs_pci_fshow_nums(int64_t *value, size_t num_count, int fd);
DEVICE_ACCESS_API ssize_t sysfs_pci_show_nums(int64_t *value, size_t num_count,
                                              const char *attr_name,
                                              const sysfs_pci_identity_t *pci_ident);

/*
 * Write a text to an attribute, without its terminator, with one pwrite(2) at position 0.
 *
 * fd: the attribute, opened for writing; sysfs_pci_store() opens and closes it by name.
 *
 * Return 0; -1 with errno on failure: EINVAL for a NULL or empty text, else as sysfs_pci_open() or
 * the system call set it. A text that was not taken whole is a failure too; it leaves errno alone.
 */
DEVICE_ACCESS_API int sysfs_pci_fstore(const char *attr_value, int fd);
DEVICE_ACCESS_API int sysfs_pci_store(const char *attr_value, const char *attr_name,
                                      const sysfs_pci_identity_t *pci_ident);

/*
 * Write a number and a newline to an attribute: 0 to 9 as their digit, every other number as
 * hexadecimal after "0x", negative ones as their 64-bit pattern.
 *
 * Return as sysfs_pci_fstore() and sysfs_pci_store() do.
 */
DEVICE_ACCESS_API int sysfs_pci_fstore_num(int64_t value, int fd);
DEVICE_ACCESS_API int sysfs_pci_store_num(int64_t value, const char *attr_name,
                                          const sysfs_pci_identity_t *pci_ident);

/*--- device memory ------------------------------------------------------------------------------*/

/*
 * Map a device's memory, readable, writable and shared: the files "resource0" to "resource5" of its
 * directory. A resource of more than 256 bytes is memory. Of 128 to 256 bytes it is memory unless
 * its base address register in configuration space says that it is I/O space; one whose register
 * cannot be read is mapped. A smaller one (127 bytes at most) is never mapped, nor is I/O space,
 * nor a resource that does not exist.
 *
 * resource: array of 6 addresses, one per base address register; NULL for what is not mapped.
 * umask:    bit N (bit 0 the lowest) set: leave base address register N out.
 *
 * Returns 0, also when nothing was mapped; -1 with errno (ENOMEM also for a resource larger than
 * the address space) when a resource could not be opened or mapped. What had been mapped is then
 * unmapped again, and the array must not be used: its entries are not reset.
 */
DEVICE_ACCESS_API int sysfs_pci_mmap(void **resource, uint32_t umask,
                                     const sysfs_pci_identity_t *pci_ident);

/*
 * Unmap what sysfs_pci_mmap() has mapped and set all 6 entries to NULL. The lengths are those of
 * the files now: what a device that has gone had mapped stays for the process's life, and so does a
 * resource of 128 to 256 bytes whose register cannot be read.
 */
DEVICE_ACCESS_API void sysfs_pci_munmap(void **resource, const sysfs_pci_identity_t *pci_ident);

DEVICE_ACCESS_END_DECLS

#endif

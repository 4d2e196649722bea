/*
 * PCI configuration space through the "config" file of a function's sysfs directory: register
 * access, the capability list, and a PCI Express port's link and slot.
 *
 * Threads: no call keeps state outside the handle, and single accesses on one handle may be made
 * from several threads. Setting and clearing bits reads, then writes: nothing keeps another writer
 * out between the two.
 */
#ifndef DEVICE_ACCESS_PCI_CONFIG_H
#define DEVICE_ACCESS_PCI_CONFIG_H

#include <stdint.h>

#include <device_access/device_access_api.h>
#include <device_access/pci_sysfs.h>

DEVICE_ACCESS_BEGIN_DECLS

/*--- registers ----------------------------------------------------------------------------------*/

/*
 * Open a function's configuration space for reading and writing.
 *
 * Returns the handle, which carries a file descriptor and nothing else, to be released with
 * pci_config_close(); NULL with errno, that of sysfs_pci_open(), on failure. Without special rights
 * the kernel shows only the first 64 bytes.
 */
DEVICE_ACCESS_API void *pci_config_open(const sysfs_pci_identity_t *pci_ident);

/* Close a handle, leaving errno alone. One that is not valid, NULL included, sets it to EINVAL. */
DEVICE_ACCESS_API void pci_config_close(void *handle);

/*
 * Read or write one register with one system call, at its place in the file: the file position of
 * the descriptor is neither used nor moved.
 *
 * val:    in host byte order.
 * offset: in bytes, a multiple of the register's width.
 *
 * Reads return the value, zero-extended; 0xffffffff on failure. Of a 32-bit register that is a
 * legal value too: errno tells them apart. Writes return 0; -1 on failure.
 *
 * errno is 0 after success. On failure it is EINVAL for an offset that is no multiple of the width
 * and for a handle that is not valid, NULL included (nothing is read or written then); else as the
 * system call set it. An access that moved too few bytes, beyond the end of the file say, is a
 * failure that leaves errno alone.
 */
DEVICE_ACCESS_API uint32_t pci_config_read8(uint32_t offset, void *handle);
DEVICE_ACCESS_API uint32_t pci_config_read16(uint32_t offset, void *handle);
DEVICE_ACCESS_API uint32_t pci_config_read32(uint32_t offset, void *handle);
DEVICE_ACCESS_API int pci_config_write8(uint8_t val, uint32_t offset, void *handle);
DEVICE_ACCESS_API int pci_config_write16(uint16_t val, uint32_t offset, void *handle);
DEVICE_ACCESS_API int pci_config_write32(uint32_t val, uint32_t offset, void *handle);

/*
 * Set, or clear, the bits of a register that are set in mask: a read and, if it succeeded, a write.
 *
 * Return 0; -1 on failure, with errno as above.
 */
DEVICE_ACCESS_API int pci_config_bitset8(uint8_t mask, uint32_t offset, void *handle);
DEVICE_ACCESS_API int pci_config_bitset16(uint16_t mask, uint32_t offset, void *handle);
DEVICE_ACCESS_API int pci_config_bitset32(uint32_t mask, uint32_t offset, void *handle);
DEVICE_ACCESS_API int pci_config_bitclr8(uint8_t mask, uint32_t offset, void *handle);
DEVICE_ACCESS_API int pci_config_bitclr16(uint16_t mask, uint32_t offset, void *handle);
DEVICE_ACCESS_API int pci_config_bitclr32(uint32_t mask, uint32_t offset, void *handle);

/*--- capabilities, link and slot ----------------------------------------------------------------*/

/*
 * Find the first entry of a function's capability list with this id, as PCI assigns them
 * (0x10 is PCI Express).
 *
 * The header type must be exactly 0, 1 or 2: functions of multi-function devices, whose header type
 * has bit 7 set, count as having no list. Pointers are followed as they stand; a list that is
 * linked to a circle without the id is walked for ever.
 *
 * Returns the entry's offset, 1 to 255; -1 with errno on failure: ENOENT when there is no list or
 * no such entry, else as pci_config_read16() left it.
 */
DEVICE_ACCESS_API int pci_config_find_capability(uint8_t cap_id, void *handle);

/*
 * Wait, for about half a second at most, until the link of a PCI Express port is up, by the link
 * registers of its capability.
 *
 * If the port reports whether its data link is active, that is waited for, looking every 10 ms; the
 * link must then be trained. If it does not, the end of link training is waited for.
 *
 * Returns
 *   0    the link is up; errno is 0
 *   -1   the configuration space cannot be opened, its capability list cannot be read, or there is
 *        no PCI Express capability (ENOENT); errno as pci_config_open() and
 *        pci_config_find_capability() set it
 *   5    EIO: a register cannot be read; errno as pci_config_read16() left it
 *   67   ENOLINK: training has ended with a link width of 0; errno is the same
 *   71   EPROTO: the data link is active, yet training goes on; errno is the same
 *   110  ETIMEDOUT: the time is up; errno is the same
 */
DEVICE_ACCESS_API int pcie_config_wait_link_up(const sysfs_pci_identity_t *pci_ident);

/*
 * Whether a function is a PCI Express port with a slot that is hot-plug capable.
 *
 * Returns 1 if so; 0 if not, with errno 0, and on failure: EINVAL for a NULL handle, else as
 * pci_config_find_capability() or pci_config_read16() left it.
 */
DEVICE_ACCESS_API int pcie_config_is_hotplug(void *cfg_ioh);

/*
 * A text for a result of pcie_config_wait_link_up(): own texts for 67, 71 and 110, else that of
 * strerror(3), valid as long as that is.
 */
DEVICE_ACCESS_API const char *pcie_config_link_strerror(int errno_value);

DEVICE_ACCESS_END_DECLS

#endif

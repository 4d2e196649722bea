/*
 * POST logs behind a PCIe NVRAM controller, for boards that do not show them as device files: the
 * controller's registers in a mapped window, and the access functions that the POST log reader
 * (post_log_nvram.h) calls through its access table.
 *
 * Registers, 32 bits each, at byte offsets from the window's start:
 *   0xF000  control  written once for each transfer
 *   0xF004  status   bit 0: busy
 *   0xF008  data     each read gives the next word of the transfer
 *
 * The controller's NVRAM holds the blocks at addresses of its own, with all fields big-endian. A
 * block is usable from the start and, once closed, stays closed for the rest of the process.
 *
 * Threads: one transfer at a time; nothing is locked. Messages go to standard error. Calls other
 * than the mapping call and set_nvc_ctl_reg() use the window and must come after the mapping call.
 */
#ifndef DEVICE_ACCESS_POST_LOG_NVRAM_PCIE_ACCESS_H
#define DEVICE_ACCESS_POST_LOG_NVRAM_PCIE_ACCESS_H

#include <stdint.h>

#include <device_access/device_access_api.h>
#include <device_access/post_log_nvram.h>

#ifdef __cplusplus
namespace postlog
{
#endif

DEVICE_ACCESS_BEGIN_DECLS

/*
 * Let the POST log reader work through the controller: its own block table, and the functions
 * below.
 *
 * mmio_base: the mapped window, at least 0xF00C bytes; it stays the caller's and must stay mapped
 *            as long as POST logs are read.
 */
DEVICE_ACCESS_API void postlog_map_pcie_nvram_access(void *mmio_base);

/*
 * Wait until the controller is not busy: up to 10 looks, each but a successful one followed by a
 * sleep of 1 ms. Returns 1; 0 with a message when it stayed busy.
 */
DEVICE_ACCESS_API int check_nvc_ready(void);

/*
 * The word for the control register.
 *
 * addr:   NVRAM byte address, of which the low 20 bits count.
 * nvc_dir: 0 for a read; else a write of the byte w_data, which a read ignores.
 * nvc_ai: not 0 for auto-increment.
 */
DEVICE_ACCESS_API uint32_t set_nvc_ctl_reg(uint32_t addr, int nvc_dir, int nvc_ai, uint8_t w_data);

/*
 * Read num_bytes bytes at an NVRAM address in one transfer, with auto-increment above 32 bytes. The
 * controller is waited for before the transfer and before every 32nd byte of it.
 *
 * rd_buf: receives the words in host byte order; with swap, each with its bytes reversed. Of a tail
 *         of one to three bytes only the first is stored: of the last word, the byte of
 *         significance "tail length less 1". The tail's other bytes stay as they were.
 *
 * Returns 0; 1 with a message when the controller stays busy, rd_buf is NULL, num_bytes is 0 or
 * nvram_addr is 0: address 0 cannot be read.
 */
DEVICE_ACCESS_API int pcie_nvram_read(uint32_t nvram_addr, uint32_t num_bytes, uint8_t *rd_buf,
                                      int swap);

/*
 * Check that a block has a header (the event log) or an index. Returns 1; -1 with a message: the
 * block has then been closed, for good.
 */
DEVICE_ACCESS_API int postlog_pcie_nvram_init(log_type_t blk);

/* Close a block, for good. */
DEVICE_ACCESS_API void postlog_pcie_nvram_close(log_type_t blk);

/*
 * Read num_byte bytes at an offset in the block, as pcie_nvram_read() without swap does, but not
 * beyond the controller's 20 bits of address, where NVRAM would come round to its start. Returns
 * num_byte; 0 with a message on failure or when the block is closed.
 */
DEVICE_ACCESS_API int postlog_pcie_nvram_rd(log_type_t blk, uint32_t offset, uint8_t *buffer,
                                            uint32_t num_byte);

/*
 * Read a record at an offset in the block, within the same limit, and bring its fields into host
 * byte order. Return 1; -1 with a message on failure, which does not close the block. Of a closed
 * block the offset itself becomes the address: its start, and only that, is refused.
 */
DEVICE_ACCESS_API int postlog_pcie_rd_log_index(log_type_t blk, uint32_t offset,
                                                nvram_log_index_t *blk_index);
DEVICE_ACCESS_API int postlog_pcie_rd_log_header(log_type_t blk, uint32_t offset,
                                                 nvram_log_header_t *blk_hdr);
DEVICE_ACCESS_API int postlog_pcie_rd_log(log_type_t blk, uint32_t offset, nvram_log_t *msg_hdr);

/*
 * Compare a record's checksum, as one in host byte order, with that of its big-endian image: 1 when
 * they agree, else 0.
 */
DEVICE_ACCESS_API int postlog_pcie_validate_log_header(nvram_log_header_t *nvloghp);
DEVICE_ACCESS_API int postlog_pcie_validate_log_entry(nvram_log_t *lg);

DEVICE_ACCESS_END_DECLS

#ifdef __cplusplus
} // namespace postlog
#endif

#endif

/*
 * Reader of the firmware's POST logs: an event log and two diagnostic logs (test results and
 * errors), each in an NVRAM block of its own. The library never writes them.
 *
 * A block holds histories (also called subblocks), numbered from 0 and used as a ring: one for each
 * run of the firmware, with a header and a chain of entries. Blocks of two or more histories begin
 * with an index, which tells the current one; the event log is a single history without an index.
 *
 * How blocks are reached is an access table of eight functions, filled by one of the mapping calls,
 * which must come first:
 *   postlog_map_def_nvram_access()    character devices of the kernel class "zmt_nvram"
 *   postlog_map_pcie_nvram_access()   a PCIe NVRAM controller (post_log_nvram_pcie_access.h)
 *   postlog_map_nvram_access()        the caller's own functions and block table
 *
 * Walking a log:
 *   h = postlog_nvram_open_dir(blk);              the newest history
 *   while (h >= 0)
 *       h = postlog_nvram_read_dir(blk, h, &ts);  its time; next older one
 *   postlog_nvram_close_dir(blk);
 * Reading a history:
 *   p = postlog_nvram_open_log(blk, h);           its first entry
 *   while (p > 0)
 *       p = postlog_nvram_read_log(blk, p, &ts, msg, sizeof msg);
 *   postlog_nvram_close_log(blk, h);
 *
 * Results are 1 for success, 0 for nothing there or not valid, -1 for an error and -2 for no more,
 * unless said otherwise. errno is that of the failing system call where there was one; neither
 * messages nor clean-up change it. Messages go to standard error; dumps, warnings and the few lines
 * marked below go to standard output, and so does the line on the magic number of an index that is
 * none when a history is looked for.
 *
 * An open block keeps its descriptor in its row of the block table. A record that cannot be read
 * from a device file closes its block through the access table; closing a closed block is harmless.
 *
 * A block number that is none of log_type_t has no row: its blocks cannot be opened or read, and
 * calls fail with the results and messages of a block that is closed.
 *
 * Contents are not trusted: positions are computed in 64 bits, and a chain of entries that leads
 * out of the range of int ends as a failed read.
 *
 * Threads: the access table, the block table and the walk are one per process, without locks: use
 * the POST log from one thread at a time. Between processes, opening a device file with O_EXCL
 * keeps them apart.
 *
 * In C++ the names below live in namespace postlog, because the POD log has types of the same
 * names; unqualified names keep working as long as only one of the two headers is included. C files
 * include one of the two; including both is an error that says so.
 */
#ifndef DEVICE_ACCESS_POST_LOG_NVRAM_H
#define DEVICE_ACCESS_POST_LOG_NVRAM_H

#include <stdint.h>
#include <time.h>

#include <device_access/device_access_api.h>

#if !defined(__cplusplus) && defined(DEVICE_ACCESS_POD_LOG_NVRAM_H)
#error "a C file includes pod_log_nvram.h or post_log_nvram.h, not both: use two files, or C++"
#endif

/* The log blocks. */
typedef enum log_blk_e DEVICE_ACCESS_INT_ENUM {
    OFWEVENT_LOG = 0,
    OFWDIAG_TEST_LOG = 1,
    OFWDIAG_ERROR_LOG = 2
} log_type_t;

#ifdef __cplusplus
namespace postlog
{
#endif

DEVICE_ACCESS_BEGIN_DECLS

/* A row of the block table, which has one for each log_type_t. Texts need not be terminated. */
typedef struct nvram_dev_info {
    char path[40];          /* device node */
    char name[30];          /* name of the NVRAM block in sysfs */
    int attr;               /* 2 when its sysfs mode is "rw", else 0 */
    int mem_size;           /* bytes of the block */
    int num_subblock;       /* histories */
    int msg_size;           /* bytes of an entry's message */
    uint32_t log_align_msk; /* mask applied to subblock_size */
    int subblock_size;      /* bytes of a history, computed when the block is opened */
    int fd;                 /* open descriptor, -1 when closed */
    uint32_t ofw_base;      /* base address of the block */
} nvram_dev_info_t;

/* Index record: 12 bytes at the start of a block of two or more histories. */
typedef struct nvram_log_index {
    uint32_t magic;        /* 0x106F11E5 */
    uint32_t header_index; /* number of the current history */
    uint32_t log_size;     /* bytes from one history's header to the next one's */
} nvram_log_index_t;

/*
 * Header of a history: 24 bytes, at position 0 in the event log, else at the history's number times
 * the index's log_size, plus 12. Entry k lies 24 + k * (msg_size + 40) bytes after its start.
 */
typedef struct nvram_log_header {
    uint32_t header_checksum; /* crc32_cksum() of the 20 bytes that follow */
    uint32_t log_size;
    uint32_t index;   /* bytes of entries in use */
    uint32_t version; /* not checked */
    uint64_t start;   /* address or offset of the entries; for diagnostics only */
} nvram_log_header_t;

typedef struct lognv_timeval {
    uint64_t tv_sec;
    uint64_t tv_usec;
} lognv_timeval;

/* Head of an entry: 40 bytes, followed by its message. */
typedef struct nvram_log {
    lognv_timeval time;       /* wall-clock time */
    lognv_timeval epoch_time; /* since boot */
    uint32_t log_checksum;    /* crc32_cksum() of these 40 bytes with this field as 0 */
    uint32_t entry_size;      /* bytes of the message; the next entry follows it */
} nvram_log_t;

/*
 * The functions of an access table; see the calls of the same purpose below. Offsets are bytes from
 * the start of the block.
 */
typedef int (*nvram_init_fp)(log_type_t blk);
typedef int (*nvram_mem_rd_fp)(log_type_t blk, uint32_t offset, uint8_t *buffer, uint32_t num_byte);
typedef void (*nvram_close_fp)(log_type_t blk);
typedef int (*nvram_rd_log_index_fp)(log_type_t blk, uint32_t offset, nvram_log_index_t *blk_index);
typedef int (*nvram_rd_log_header_fp)(log_type_t blk, uint32_t offset, nvram_log_header_t *blk_hdr);
typedef int (*nvram_rd_log_fp)(log_type_t blk, uint32_t offset, nvram_log_t *msg_hdr);
typedef int (*nvram_validate_log_header)(nvram_log_header_t *nvloghp);
typedef int (*nvram_validate_log_entry)(nvram_log_t *lg);

/*--- access -------------------------------------------------------------------------------------*/

/*
 * Take a block table and eight access functions into use. The table has a row for each log_type_t
 * and stays the caller's; it must live as long as it is in use. A function may be NULL: calls that
 * need it then print that it is not mapped and fail; records count as valid where the function that
 * would check them is missing.
 */
DEVICE_ACCESS_API void
postlog_map_nvram_access(nvram_dev_info_t *nvram_dev_info, nvram_init_fp init, nvram_mem_rd_fp rd,
                         nvram_close_fp close, nvram_rd_log_index_fp rd_log_index,
                         nvram_rd_log_header_fp rd_log_header, nvram_rd_log_fp rd_log,
                         nvram_validate_log_header validate_log_header,
                         nvram_validate_log_entry validate_log_entry);

/* Read the blocks through device files: the library's own block table, and the functions below. */
DEVICE_ACCESS_API void postlog_map_def_nvram_access(void);

/*
 * Call the mapped function: open a block (1, -1), read num_byte bytes at an offset (the bytes read,
 * or 0), close it. An unmapped function gives -1, 0, and nothing.
 */
DEVICE_ACCESS_API int postlog_nvram_init(log_type_t blk);
DEVICE_ACCESS_API int post_nvram_mem_rd(log_type_t blk, uint32_t offset, uint8_t *buffer,
                                        uint32_t num_byte);
DEVICE_ACCESS_API void postlog_nvram_close(log_type_t blk);

/*
 * Call the mapped function: read a record (1, -1), or check one (1 valid, 0 not). An unmapped
 * function gives -1.
 */
DEVICE_ACCESS_API int postlog_rd_log_index(log_type_t blk, uint32_t offset,
                                           nvram_log_index_t *blk_index);
DEVICE_ACCESS_API int postlog_rd_log_header(log_type_t blk, uint32_t offset,
                                            nvram_log_header_t *blk_hdr);
DEVICE_ACCESS_API int postlog_rd_log(log_type_t blk, uint32_t offset, nvram_log_t *msg_hdr);
DEVICE_ACCESS_API int postlog_validate_log_header(nvram_log_header_t *nvloghp);
DEVICE_ACCESS_API int postlog_validate_log_entry(nvram_log_t *lg);

/*--- access through device files ----------------------------------------------------------------*/

/*
 * Open a block's device file for reading, exclusively; up to 10 attempts, 0.5 to 1.5 ms apart. If
 * none succeeds the block is looked up by name in /sys/class/zmt_nvram (nvram0 to nvram19, without
 * gaps), its node is made, and opened without exclusion.
 *
 * nvram_fd: gets the descriptor, which the caller closes; -1 on failure.
 *
 * Returns 1; 0 on failure, with a message when the node cannot be made or, once made, not opened.
 */
DEVICE_ACCESS_API int postlog_nvram_open_dev_file(log_type_t blk, int *nvram_fd);

/*
 * Look a block up by name, as above, and let its base address, size and mode in sysfs replace those
 * of the block's row, all three or none. Returns 1; -1 with a message.
 */
DEVICE_ACCESS_API int postlog_nvram_find_blk_properties(log_type_t blk);

/*
 * Open a block with the two calls above; without properties in sysfs those of its row stay, with a
 * warning. Then check its header (blocks of fewer than two histories) or its index.
 *
 * Returns 1 with the block open; -1 with a message, and the block closed, unless it was open
 * already: then it stays so.
 */
DEVICE_ACCESS_API int postlog_dev_file_nvram_init(log_type_t blk);

/*
 * Read num_byte bytes at offset. Returns the bytes read, fewer at the end of the block; 0 with a
 * message when there are none or the block is closed.
 */
DEVICE_ACCESS_API int post_dev_file_nvram_mem_rd(log_type_t blk, uint32_t offset, uint8_t *buffer,
                                                 uint32_t num_byte);

/* Close a block; nothing happens when it is not open. */
DEVICE_ACCESS_API void postlog_dev_file_nvram_close(log_type_t blk);

/*
 * Read a record, stored in host byte order, through the mapped read function; a short read counts
 * as success and leaves the rest of the record as it was. Return 1; -1 with a message when nothing
 * could be read: the block has then been closed through the mapped function.
 */
DEVICE_ACCESS_API int postlog_dev_rd_log_index(log_type_t blk, uint32_t offset,
                                               nvram_log_index_t *blk_index);
DEVICE_ACCESS_API int postlog_dev_rd_log_header(log_type_t blk, uint32_t offset,
                                                nvram_log_header_t *blk_hdr);
DEVICE_ACCESS_API int postlog_dev_rd_log(log_type_t blk, uint32_t offset, nvram_log_t *msg_hdr);

/* Compare a record's checksum with its contents: 1 when they agree, else 0. */
DEVICE_ACCESS_API int postlog_dev_validate_log_header(nvram_log_header_t *nvloghp);
DEVICE_ACCESS_API int postlog_dev_validate_log_entry(nvram_log_t *lg);

/*--- histories ----------------------------------------------------------------------------------*/

/*
 * Open a block and find its newest history with entries, from the current one backwards.
 *
 * Returns its number, with the block open; -2 when every history is empty or the current one's
 * header is invalid; -1 on error. Unless a number is returned the block has been closed (but for a
 * block that was open already). Lines that the device cannot be opened, that the index cannot be
 * read, or that its history number is invalid go to standard output.
 */
DEVICE_ACCESS_API int postlog_nvram_open_dir(log_type_t blk);

/*
 * Tell the time of history log_num, as open_dir or the last read_dir returned it, and find the next
 * older one with entries. Each history comes at most once in a walk.
 *
 * ts: receives the time of the history's first entry, 0 for an empty history: the low 32 bits of
 *     the stored seconds. A wider time_t gets their value without sign, which is right until 2106.
 *
 * Returns the next history's number; -2 when there is no more; -1 on error, a line about an entry
 * that cannot be read going to standard output. End the walk in every case.
 */
DEVICE_ACCESS_API int postlog_nvram_read_dir(log_type_t blk, int log_num, time_t *ts);

/* End a walk: close the block. Returns 1. */
DEVICE_ACCESS_API int postlog_nvram_close_dir(log_type_t blk);

/*
 * The current history's header: its position, 0 in the event log; -1 when the index cannot be read,
 * is not an index, or leads out of the block, where a line about a history number that is too large
 * goes to standard output. The block must be open.
 */
DEVICE_ACCESS_API int post_get_curr_log_hdr_pos(log_type_t blk);

/*
 * The position after the current history's entries as its header states it: the header's position
 * plus log_size * index + 24. -1 when the header cannot be found or read or is invalid, or the
 * position is beyond the range of int. The block must be open.
 */
DEVICE_ACCESS_API int post_get_nxt_log_pos(log_type_t blk);

/*--- entries ------------------------------------------------------------------------------------*/

/*
 * Open a block (a walk of its histories must be closed before, unless the access method allows
 * opening twice) and find the first entry of history log_num.
 *
 * Returns the entry's position, with the block open; -1 on error or when the history is empty or
 * invalid, with the block closed (but for a block that was open already).
 */
DEVICE_ACCESS_API int postlog_nvram_open_log(log_type_t blk, int log_num);

/*
 * Read the entry at a position that open_log or the last read_log returned.
 *
 * ts:       receives its time, as in postlog_nvram_read_dir().
 * msg:      receives the message: the smaller of its size and buf_size bytes. No terminator is
 *           added.
 * buf_size: bytes of msg, at most INT_MAX.
 *
 * Returns the position of the next entry; -2 when this was the last one (ts and msg are filled);
 * -1 on error, an invalid entry or an empty message included. The end of a history is its first
 * invalid entry. Close the block in every case: after an error it may be open or not.
 */
DEVICE_ACCESS_API int postlog_nvram_read_log(log_type_t blk, int offset, time_t *ts, char *msg,
                                             uint32_t buf_size);

/* End the reading of a history: close the block; log_num is not used. Returns 1. */
DEVICE_ACCESS_API int postlog_nvram_close_log(log_type_t blk, int log_num);

/*--- dumps, on standard output ------------------------------------------------------------------*/

/*
 * Print the entries of history log_num, or of the current history. The block must be open. A
 * message is printed up to its first NUL. Returns 1, for an empty or invalid history too, which
 * prints nothing; -1 on error.
 */
DEVICE_ACCESS_API int postlog_nvram_dump_log_msgs(log_type_t blk, int log_num);
DEVICE_ACCESS_API int postlog_nvram_dump_curr_log_msgs(log_type_t blk);

/*
 * Open a block, print the entries of all its histories, the current one first and then backwards,
 * and close it. Returns 1; -1 as soon as something fails.
 */
DEVICE_ACCESS_API int postlog_nvram_dump_all_log_msgs(log_type_t blk);

/* Print the fields of a header, of start the low 32 bits. */
DEVICE_ACCESS_API void post_dump_log_block_header(nvram_log_header_t *hp);

DEVICE_ACCESS_END_DECLS

#ifdef __cplusplus
} // namespace postlog
using namespace postlog; // NOLINT: C clients' names in C++
#endif

#endif

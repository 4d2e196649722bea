/*
 * The POD log in regular files under "/var/pod", for the cards whose log is not in the local NVRAM.
 * What a log is, and what holds for the calls of every storage, is described in pod_log.h.
 *
 * Files have ids 0 to 16:
 *
 *   0, 1    pod_alsw1.hex, pod_alsw2.hex
 *   2 - 5   pod_sw1.hex - pod_sw4.hex
 *   6, 7    pod_ft1.hex, pod_ft2.hex
 *   8 - 15  pod_pem1.hex - pod_pem8.hex
 *   16      pod_rpsw_mate.hex
 *
 * each of 16384 bytes, 10 histories and 64-byte messages until podlog_file_set_pod_info() says
 * otherwise. Other ids name no file: operations on them fail, or do nothing where there is no
 * result, and touch no file.
 *
 * A writer's life: podlog_file_init(id, 0), podlog_file_add() for each entry,
 * podlog_file_use_nxt_log() at the end of a run, podlog_file_close(). Readers open the file
 * themselves: podlog_file_open_dir(), podlog_file_read_dir() for each history,
 * podlog_file_close_dir(); then podlog_file_open_log(), podlog_file_read_log() for each entry,
 * podlog_file_close(). The file must be closed between the two.
 *
 * There are no locks on the files: one process writes a file at a time.
 */
#ifndef DEVICE_ACCESS_POD_LOG_FILE_H
#define DEVICE_ACCESS_POD_LOG_FILE_H

#include <stdarg.h>
#include <stdint.h>
#include <time.h>

#include <device_access/device_access_api.h>

DEVICE_ACCESS_BEGIN_DECLS

/*** The records in a file, for programs that read it themselves; all little-endian ***/

/* Index, 12 bytes at position 32. History i begins at 44 + i * log_size. */
typedef struct file_log_index {
    uint32_t magic;        /* 0x1FE2C363 */
    uint32_t header_index; /* number of the current history */
    uint32_t log_size;     /* history size in bytes */
} file_log_index_t;

/* History header, 20 bytes at the start of each history. */
typedef struct file_log_header {
    uint32_t header_checksum; /* crc32_cksum of the 16 bytes after it */
    uint32_t log_size;        /* history size in bytes */
    uint32_t index;           /* bytes of entries in use; the next goes to start + index */
    uint32_t version;         /* 0x1122 */
    uint32_t start;           /* position of the first entry */
} file_log_header_t;

/* Entry header, 16 bytes, directly followed by entry_size bytes of message. */
typedef struct file_log {
    uint64_t epoch_time;   /* 32-bit time of adding, sign-extended */
    uint32_t log_checksum; /* crc32_cksum of this record with a log_checksum of 0 */
    uint32_t entry_size;
} file_log_t;

/*** Configuration, before use ***/

/*
 * Describe a file.
 *
 * dev_name:  its path, of which at most 40 bytes are kept, without NUL if that many.
 * mem_size:  bytes of the log. New files have 16384 bytes, whatever this is.
 * num_log:   histories. Each gets (mem_size - 32) / num_log bytes, masked with align_msk; with no
 *            histories nothing can be logged.
 * msg_len:   bytes of message area per entry. Messages of up to 64 bytes are written whatever it
 *            is, so that less than 64 lets an entry reach into what follows it.
 * align_msk: mask applied to the history size.
 */
DEVICE_ACCESS_API void podlog_file_set_pod_info(int file_id, char *dev_name, int mem_size,
                                                int num_log, int msg_len, uint32_t align_msk);

/*** Writing ***/

/*
 * Open a file without looking into it. Makes the directory "/var/pod" if it is missing (setting the
 * process's file mode mask for a moment; it stays 0 if the directory cannot be made), and, for
 * writing, a missing file.
 *
 * file_fd:    gets the descriptor, which the caller closes; -1 on failure. It may be -1 on success
 *             too: when a file that is there, or could be made, cannot be opened.
 * flg_rdonly: nonzero opens for reading only.
 *
 * Returns 1; 0 on failure: no directory, no file to read, or a new file that cannot be filled.
 */
DEVICE_ACCESS_API int podlog_file_open_dev_file(int file_id, int *file_fd, int flg_rdonly);

/*
 * Open a file as podlog_file_open_dev_file() does, and keep it open. One whose index has not the
 * right magic number is formatted, or, with flg_rdonly nonzero, refused.
 *
 * Returns 1; -1, with the file closed again, on failure. A file that is open already stays so, and
 * the call fails.
 */
DEVICE_ACCESS_API int podlog_file_init(int file_id, int flg_rdonly);

/* Close a file, if it is open. */
DEVICE_ACCESS_API void podlog_file_close(int file_id);

/*
 * Format an open file: index and empty histories, the current one being 0. Returns 1; -1 when the
 * index cannot be written or read back. Histories that cannot be written do not count.
 */
DEVICE_ACCESS_API int podlog_file_reset(int file_id);

/*
 * Add an entry to the current history of an open file, composed as podlog_add() says.
 *
 * fmt, args: as for vprintf(3); args is indeterminate afterwards.
 *
 * Returns 1; 0 when the entry was written and the history is full, so that the next one will
 * overwrite it; -1 on failure. Costs 3 reads and 3 writes of the storage, and no memory.
 */
DEVICE_ACCESS_API int podlog_file_add(int file_id, char *event_level, char *diag_string,
                                      const char *ret_string, const char *fmt, va_list args);

/*
 * Make the next history of an open file the current one (the first after the last) and empty it.
 * Returns 1, also when the magic number is wrong and nothing was changed, or when the history could
 * not be emptied; -1 when the index cannot be read or written or the history not be located.
 */
DEVICE_ACCESS_API int podlog_file_use_nxt_log(int file_id);

/*
 * Copy the index of an open file to its beginning, which nothing else uses. clr_or_set is not used.
 * Returns 1 or -1.
 */
DEVICE_ACCESS_API int podlog_file_set_curr_log_status(int file_id, int clr_or_set);

/*** Reading ***/

/*
 * As podlog_open_dir(), podlog_open_log() and so on, on a file. The two that open take a closed
 * file and leave it open when they return a history or a position: until podlog_file_close_dir()
 * and podlog_file_close().
 */
DEVICE_ACCESS_API int podlog_file_open_dir(int file_id);
DEVICE_ACCESS_API int podlog_file_read_dir(int file_id, int log_num, time_t *ts);
DEVICE_ACCESS_API int podlog_file_open_log(int file_id, int log_num);
DEVICE_ACCESS_API int podlog_file_read_log(int file_id, int offset, time_t *ts, char *msg,
                                           uint32_t buf_size);
DEVICE_ACCESS_API int podlog_file_read_raw_log(int file_id, int offset, uint8_t *buf);

/* Close the file. Returns 1. */
DEVICE_ACCESS_API int podlog_file_close_dir(int file_id);

/*
 * Print the entries of history log_num, or of the current history, of an open file. Return 1, also
 * for a history without entries; -1 on failure.
 */
DEVICE_ACCESS_API int podlog_file_dump_log_msgs(int file_id, int log_num);
DEVICE_ACCESS_API int podlog_file_dump_curr_log_msgs(int file_id);

/*
 * Open a closed file, print the entries of all histories, newest first, until one cannot be read,
 * and close it. Returns 1; -1 when the file cannot be opened.
 */
DEVICE_ACCESS_API int podlog_file_dump_all_log_msgs(int file_id);

DEVICE_ACCESS_END_DECLS

#endif

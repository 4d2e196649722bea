/*
 * The POD log in regular files under "/var/pod", for the cards whose log is not in the local NVRAM.
 *
 * The log is a ring of histories, numbered from 0, each a list of entries: an entry header of 16
 * bytes (epoch_time u64, log_checksum u32, entry_size u32, little-endian) and its message of
 * entry_size bytes. One history is the current one, which grows. Files have ids 0 to 16:
 *
 *   0, 1   pod_alsw1.hex, pod_alsw2.hex     6, 7   pod_ft1.hex, pod_ft2.hex
 *   2 - 5  pod_sw1.hex - pod_sw4.hex        8 - 15 pod_pem1.hex - pod_pem8.hex
 *                                           16     pod_rpsw_mate.hex
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
 * Results and errors: where nothing else is said, 1 is success and -1 failure. Errors are reported
 * in words on standard error; dumps go to standard output. errno is what the failing system call
 * set; a failure without one (bad contents, no such file id) leaves it alone.
 *
 * Threads: no locks, neither in the process nor on the files. All calls belong to one thread at a
 * time, and one process writes a file at a time.
 *
 * Times are seconds since the epoch, of which the log keeps the low 32 bits. A time_t of 32 bits
 * gets them as they are; a wider one gets their value without sign, which is right until 2106.
 */
#ifndef DEVICE_ACCESS_POD_LOG_FILE_H
#define DEVICE_ACCESS_POD_LOG_FILE_H

#include <stdarg.h>
#include <stdint.h>
#include <time.h>

#include <device_access/device_access_api.h>

DEVICE_ACCESS_BEGIN_DECLS

/* The records of a log, for programs that read such a file themselves. They are little-endian. */

/* Index, 12 bytes at position 32. */
typedef struct file_log_index {
    uint32_t magic;        /* 0x1FE2C363 */
    uint32_t header_index; /* number of the current history */
    uint32_t log_size;     /* history size in bytes: header i is at 44 + i * log_size */
} file_log_index_t;

/* History header, 20 bytes at the start of each history. */
typedef struct file_log_header {
    uint32_t header_checksum; /* crc32_cksum of the 16 bytes behind it */
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


/*
 * Describe a file, before use.
 *
 * dev_name:  its path, of which at most 40 bytes are kept.
 * mem_size:  bytes of the log. New files have 16384 bytes, whatever this is.
 * num_log:   histories. Each gets (mem_size - 32) / num_log bytes, masked with align_msk; with no
 *            histories nothing can be logged.
 * msg_len:   bytes of message area per entry. Messages of up to 64 bytes are written whatever it
 *            is, so that less than 64 lets an entry reach into what follows it.
 * align_msk: mask applied to the history size.
 */
DEVICE_ACCESS_API void podlog_file_set_pod_info(int file_id, char *dev_name, int mem_size,
                                                int num_log, int msg_len, uint32_t align_msk);

/*
 * Open a file. Makes the directory "/var/pod" if it is missing (setting the process's file mode
 * mask for a moment; it stays 0 if the directory cannot be made). For writing, makes a missing file
 * too, and formats one whose index has not the right magic number; for reading, both are failures.
 *
 * flg_rdonly: nonzero opens for reading only.
 *
 * Returns 1; -1, with the file closed again, on failure. A file that is open already stays so, and
 * the call fails.
 */
DEVICE_ACCESS_API int podlog_file_open_dev_file(int file_id, int *file_fd, int flg_rdonly);
DEVICE_ACCESS_API int podlog_file_init(int file_id, int flg_rdonly);

/* Close a file, if it is open. */
DEVICE_ACCESS_API void podlog_file_close(int file_id);

/*
 * Format an open file: index and empty histories, the current one being 0. Returns 1; -1 when the
 * index cannot be written or read back. Histories that cannot be written do not count.
 */
DEVICE_ACCESS_API int podlog_file_reset(int file_id);

/*
 * Add an entry to the current history of an open file, stamped with the time of now. Its message is
 * event_level (which brings its own separator), diag_string and two blanks, ret_string and two
 * blanks, and the formatted text (at most 63 characters), cut to 64 bytes of which the last is NUL.
 * A string that is NULL or empty, or for which there is no room, is left out with its blanks.
 *
 * fmt, args: as for vprintf(3); args is indeterminate afterwards.
 *
 * Returns 1; 0 when the entry was written and the history is full, so that the next one will
 * overwrite it; -1 on failure. Costs 3 reads and 3 writes of the file, and no memory.
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

/*
 * Open a closed file for a walk over its histories, newest first.
 *
 * Returns the number of the newest history that holds entries; -2 when there is none, or when the
 * current history's header is bad; -1 on failure. On success the file stays open until
 * podlog_file_close_dir(); otherwise it is closed.
 */
DEVICE_ACCESS_API int podlog_file_open_dir(int file_id);

/*
 * Go on with the walk.
 *
 * log_num: the history that the last call of the walk returned.
 * ts:      gets the time of log_num's first entry, 0 when it has none.
 *
 * Returns the number of the next older history that holds entries; -2 when there is none; -1 on
 * failure (reported when it is about log_num; *ts is then unset).
 */
DEVICE_ACCESS_API int podlog_file_read_dir(int file_id, int log_num, time_t *ts);

/* Close the file. Returns 1. */
DEVICE_ACCESS_API int podlog_file_close_dir(int file_id);

/*
 * Open a closed file to read history log_num. Returns the position of its first entry, for
 * podlog_file_read_log(); the file then stays open until podlog_file_close(). Returns -1, with the
 * file closed again, when the history has no entry or on failure.
 */
DEVICE_ACCESS_API int podlog_file_open_log(int file_id, int log_num);

/*
 * Read the entry at a position of an open file.
 *
 * offset:   what podlog_file_open_log() or the last podlog_file_read_log() returned.
 * ts:       gets its time.
 * msg:      gets its message, at most buf_size bytes. No NUL is added: the message may fill msg.
 * buf_size: bytes at msg, at least 1.
 *
 * Returns the position of the next entry; -2 when this was the last one; -1 when the entry or what
 * follows it cannot be read or the entry is not valid. Costs at most 3 reads of the file.
 */
DEVICE_ACCESS_API int podlog_file_read_log(int file_id, int offset, time_t *ts, char *msg,
                                           uint32_t buf_size);

/*
 * As podlog_file_read_log(), with the entry as it is stored: the 16 bytes of its header and its
 * message.
 *
 * buf: 16 bytes and the file's message area size (80 bytes unless configured otherwise). A longer
 *      message is cut to that; bytes beyond a shorter one are left alone.
 */
DEVICE_ACCESS_API int podlog_file_read_raw_log(int file_id, int offset, uint8_t *buf);

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

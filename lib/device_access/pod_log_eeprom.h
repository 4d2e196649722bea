/*
 * The POD log in a card's EEPROM, reached through functions that the client binds.
 *
 * The log is a ring of histories, numbered from 0, each a list of entries: an entry header of 16
 * bytes (epoch_time u64, log_checksum u32, entry_size u32, little-endian) and its message of
 * entry_size bytes. One history is the current one, which grows. EEPROMs have ids 0 to 5 (ALSW1,
 * ALSW2, SW1 to SW4), each of 8192 bytes, 2 histories and 64-byte messages until
 * podlog_eeprom_set_pod_info() says otherwise. Other ids name no EEPROM: operations on them fail,
 * or do nothing where there is no result.
 *
 * An EEPROM is usable while its functions are bound; there is nothing to open or close.
 * podlog_eeprom_init() prepares it for writing, and must have been called once before the other
 * calls that write; the reading calls that open do so themselves. Writers then call
 * podlog_eeprom_add() or podlog_eeprom_add_raw_log() for each entry and podlog_eeprom_use_nxt_log()
 * at the end of a run; readers podlog_eeprom_open_dir(), podlog_eeprom_read_dir() for each history,
 * podlog_eeprom_open_log(), podlog_eeprom_read_log() for each entry.
 *
 * Results and errors: where nothing else is said, 1 is success and -1 failure. Errors are reported
 * in words on standard error; dumps and the warning of a full history go to standard output. A
 * function that fails is reported by nothing but the result. No call sets errno; it is what the
 * bound functions leave.
 *
 * Threads: no locks. All calls belong to one thread at a time.
 *
 * Times are seconds since the epoch, of which the log keeps the low 32 bits. A time_t of 32 bits
 * gets them as they are; a wider one gets their value without sign, which is right until 2106.
 */
#ifndef DEVICE_ACCESS_POD_LOG_EEPROM_H
#define DEVICE_ACCESS_POD_LOG_EEPROM_H

#include <stdarg.h>
#include <stdint.h>
#include <time.h>

#include <device_access/device_access_api.h>
#include <device_access/pod_log_file.h>

DEVICE_ACCESS_BEGIN_DECLS

/* The records of a log, which are those of a file. */
typedef file_log_index_t eeprom_log_index_t;
typedef file_log_header_t eeprom_log_header_t;
typedef file_log_t eeprom_log_t;

/*
 * Moves num_byte bytes between buffer and the EEPROM's log area at byte offset; a writing function
 * leaves buffer as it is. Returns the number of bytes moved; 0 or less means failure.
 *
 * Offsets below 2^31 occur, also beyond mem_size: a little beyond (with 8192 bytes, up to 8203) in
 * proper use, where they must be accepted, and any when the EEPROM holds nonsense or the caller
 * passes it on, where the function must fail.
 */
typedef int (*mem_access_fp_t)(uint32_t offset, uint8_t *buffer, uint32_t num_byte);

/*
 * Describe an EEPROM, before use.
 *
 * dev_name:  its name, of which at most 15 bytes are copied.
 * mem_size:  bytes of the log.
 * num_log:   histories. Each gets (mem_size - 32) / num_log bytes, masked with align_msk; with no
 *            histories nothing can be logged.
 * msg_len:   bytes of message area per entry. Messages of up to 64 bytes are written whatever it
 *            is, so that less than 64 lets an entry reach into what follows it.
 * align_msk: mask applied to the history size.
 */
DEVICE_ACCESS_API void podlog_eeprom_set_pod_info(int eeprom_id, char *dev_name, int mem_size,
                                                  int num_log, int msg_len, uint32_t align_msk);

/* Bind the functions that read and write an EEPROM, in place of those bound before; NULL unbinds.
 */
DEVICE_ACCESS_API void podlog_bind_eeprom_access_func(int eeprom_id, mem_access_fp_t rd_fp,
                                                      mem_access_fp_t wr_fp);
DEVICE_ACCESS_API void podlog_unbind_eeprom_access_func(int eeprom_id);

/*
 * Check the log of an EEPROM. One whose index has not the right magic number is formatted, or, with
 * flg_rdonly nonzero, refused. Returns 1 or -1.
 */
DEVICE_ACCESS_API int podlog_eeprom_init(int eeprom_id, int flg_rdonly);

/* Nothing is open, so that this does nothing. */
DEVICE_ACCESS_API void podlog_eeprom_close(int eeprom_id);

/*
 * Format an EEPROM: index and empty histories, the current one being 0. Returns 1; -1 when the
 * index cannot be written or read back. Histories that cannot be written do not count.
 */
DEVICE_ACCESS_API int podlog_eeprom_reset(int eeprom_id);

/*
 * Add an entry to the current history, stamped with the time of now. Its message is event_level
 * (which brings its own separator), diag_string and two blanks, ret_string and two blanks, and the
 * formatted text (at most 63 characters), cut to 64 bytes of which the last is NUL. A string that
 * is NULL or empty, or for which there is no room, is left out with its blanks.
 *
 * fmt, args: as for vprintf(3); args is indeterminate afterwards.
 *
 * Returns 1; 0 when the entry was written and the history is full, so that the next one will
 * overwrite it; -1 on failure. Costs 3 reads and 3 writes of the EEPROM, and no memory.
 */
DEVICE_ACCESS_API int podlog_eeprom_add(int eeprom_id, char *event_level, char *diag_string,
                                        const char *ret_string, const char *fmt, va_list args);

/*
 * Add an entry that was read raw from another log (podlog_file_read_raw_log()) to the current
 * history, as it is: with its own time, checksum and entry_size.
 *
 * buf: the 16 bytes of its header, as many bytes of message as the EEPROM's message area has, and
 *      one more, which tells whether the text goes on (81 bytes in all unless configured
 *      otherwise); what is behind a NUL in the text is not looked at for that. A longer text gets a
 *      NUL as the last byte of its message area, in buf. All but the last byte are written.
 *
 * Returns 1; 0, with a warning on standard output, when the entry was written and the history is
 * full, so that the next one will overwrite it; -1 on failure.
 */
DEVICE_ACCESS_API int podlog_eeprom_add_raw_log(int eeprom_id, uint8_t *buf);

/*
 * Make the next history the current one (the first after the last) and empty it. Returns 1, also
 * when the magic number is wrong and nothing was changed, or when the history could not be emptied;
 * -1 when the index cannot be read or written or the history not be located.
 */
DEVICE_ACCESS_API int podlog_eeprom_use_nxt_log(int eeprom_id);

/* Write the index back unchanged. clr_or_set is not used. Returns 1 or -1. */
DEVICE_ACCESS_API int podlog_eeprom_set_curr_log_status(int eeprom_id, int clr_or_set);

/*
 * Begin a walk over the histories, newest first. Returns the number of the newest history that
 * holds entries; -2 when there is none, or when the current history's header is bad; -1 on failure.
 */
DEVICE_ACCESS_API int podlog_eeprom_open_dir(int eeprom_id);

/*
 * Go on with the walk.
 *
 * log_num: the history that the last call of the walk returned.
 * ts:      gets the time of log_num's first entry, 0 when it has none.
 *
 * Returns the number of the next older history that holds entries; -2 when there is none; -1 on
 * failure (reported when it is about log_num; *ts is then unset).
 */
DEVICE_ACCESS_API int podlog_eeprom_read_dir(int eeprom_id, int log_num, time_t *ts);

/* Returns 1. */
DEVICE_ACCESS_API int podlog_eeprom_close_dir(int eeprom_id);

/*
 * Begin to read history log_num. Returns the position of its first entry, for
 * podlog_eeprom_read_log(); -1 when it has none or on failure.
 */
DEVICE_ACCESS_API int podlog_eeprom_open_log(int eeprom_id, int log_num);

/*
 * Read the entry at a position.
 *
 * offset:   what podlog_eeprom_open_log() or the last podlog_eeprom_read_log() returned.
 * ts:       gets its time.
 * msg:      gets its message, at most buf_size bytes. No NUL is added: the message may fill msg.
 * buf_size: bytes at msg, at least 1.
 *
 * Returns the position of the next entry; -2 when this was the last one; -1 when the entry or what
 * follows it cannot be read or the entry is not valid. Costs at most 3 reads of the EEPROM.
 */
DEVICE_ACCESS_API int podlog_eeprom_read_log(int eeprom_id, int offset, time_t *ts, char *msg,
                                             uint32_t buf_size);

/*
 * As podlog_eeprom_read_log(), with the entry as it is stored: the 16 bytes of its header and its
 * message.
 *
 * buf: 16 bytes and the EEPROM's message area size (80 bytes unless configured otherwise). A longer
 *      message is cut to that; bytes beyond a shorter one are left alone.
 */
DEVICE_ACCESS_API int podlog_eeprom_read_raw_log(int eeprom_id, int offset, uint8_t *buf);

/*
 * Print the entries of history log_num, or of the current history. Return 1, also for a history
 * without entries; -1 on failure.
 */
DEVICE_ACCESS_API int podlog_eeprom_dump_log_msgs(int eeprom_id, int log_num);
DEVICE_ACCESS_API int podlog_eeprom_dump_curr_log_msgs(int eeprom_id);

/*
 * Print the entries of all histories, newest first, until one cannot be read. Returns 1; -1 when
 * the log cannot be read at all.
 */
DEVICE_ACCESS_API int podlog_eeprom_dump_all_log_msgs(int eeprom_id);

DEVICE_ACCESS_END_DECLS

#endif

/*
 * The POD log in a card's EEPROM, reached through functions that the client binds. What a log is,
 * and what holds for the calls of every storage, is described in pod_log.h; the calls are those of
 * pod_log_file.h, with what is said here of the differences.
 *
 * EEPROMs have ids 0 to 5 (ALSW1, ALSW2, SW1 to SW4), each of 8192 bytes, 2 histories and 64-byte
 * messages until podlog_eeprom_set_pod_info() says otherwise. Other ids name no EEPROM: operations
 * on them fail, or do nothing where there is no result.
 *
 * An EEPROM is usable while its functions are bound; there is nothing to open or close. What is
 * said of an open file holds for an EEPROM that podlog_eeprom_init() has prepared: once, before the
 * other calls that write; the reading calls that open do so themselves.
 *
 * A bound function that fails is reported by nothing but the result. No call sets errno; it is what
 * the bound functions leave.
 */
#ifndef DEVICE_ACCESS_POD_LOG_EEPROM_H
#define DEVICE_ACCESS_POD_LOG_EEPROM_H

#include <stdarg.h>
#include <stdint.h>
#include <time.h>

#include <device_access/device_access_api.h>
#include <device_access/pod_log_file.h>

DEVICE_ACCESS_BEGIN_DECLS

/* The records in an EEPROM, which are those in a file. */
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

/* As podlog_file_set_pod_info(); of dev_name, a name only, at most 15 bytes are copied. */
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

/* Nothing is open, so that these do nothing. The directory's returns 1. */
DEVICE_ACCESS_API void podlog_eeprom_close(int eeprom_id);
DEVICE_ACCESS_API int podlog_eeprom_close_dir(int eeprom_id);

/* Write the index back unchanged. clr_or_set is not used. Returns 1 or -1. */
DEVICE_ACCESS_API int podlog_eeprom_set_curr_log_status(int eeprom_id, int clr_or_set);

/*
 * Add an entry that was read raw from another log (podlog_file_read_raw_log()) to the current
 * history, as it is: with its own time, checksum and entry_size.
 *
 * buf: the 16 bytes of its header, as many bytes of message as the EEPROM's message area has, and
 *      one more, which tells whether the text goes on (81 bytes in all unless configured
 *      otherwise); what follows a NUL in the text is not looked at for that. A longer text gets a
 *      NUL as the last byte of its message area, in buf. All but the last byte are written.
 *
 * Returns 1; 0, with a warning on standard output, when the entry was written and the history is
 * full, so that the next one will overwrite it; -1 on failure.
 */
DEVICE_ACCESS_API int podlog_eeprom_add_raw_log(int eeprom_id, uint8_t *buf);

/* As podlog_file_reset(), podlog_file_add() and so on, on an EEPROM. */
DEVICE_ACCESS_API int podlog_eeprom_reset(int eeprom_id);
DEVICE_ACCESS_API int podlog_eeprom_add(int eeprom_id, char *event_level, char *diag_string,
                                        const char *ret_string, const char *fmt, va_list args);
DEVICE_ACCESS_API int podlog_eeprom_use_nxt_log(int eeprom_id);
DEVICE_ACCESS_API int podlog_eeprom_dump_log_msgs(int eeprom_id, int log_num);
DEVICE_ACCESS_API int podlog_eeprom_dump_curr_log_msgs(int eeprom_id);
DEVICE_ACCESS_API int podlog_eeprom_dump_all_log_msgs(int eeprom_id);

/* As podlog_open_dir(), podlog_open_log() and so on, on an EEPROM. */
DEVICE_ACCESS_API int podlog_eeprom_open_dir(int eeprom_id);
DEVICE_ACCESS_API int podlog_eeprom_read_dir(int eeprom_id, int log_num, time_t *ts);
DEVICE_ACCESS_API int podlog_eeprom_open_log(int eeprom_id, int log_num);
DEVICE_ACCESS_API int podlog_eeprom_read_log(int eeprom_id, int offset, time_t *ts, char *msg,
                                             uint32_t buf_size);
DEVICE_ACCESS_API int podlog_eeprom_read_raw_log(int eeprom_id, int offset, uint8_t *buf);

DEVICE_ACCESS_END_DECLS

#endif

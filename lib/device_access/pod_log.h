/*
 * The POD (power-on diagnostics) log of every card: the registry that says where each card's log is
 * kept, the calls that POD runners and log readers use, and the POD status words and
 * fault-injection flags.
 *
 * A log is a ring of histories, numbered from 0, one for each POD run: the current one grows, and
 * the one after the last is the first. A history is a list of entries: a header of 16 bytes and a
 * message. Logs are kept in NVRAM (pod_log_nvram.h), in files (pod_log_file.h) and in EEPROMs on
 * the cards (pod_log_eeprom.h); which card's log is where, the registry says. An instance is one
 * card's log; its id is the card's slot number, its name the card's name. A card may have a
 * secondary storage as well, an EEPROM.
 *
 * Each storage has calls of its own, on one device by its id there: podlog_file_add() does to a
 * file what podlog_add() does to an instance. pod_log_file.h describes these calls; the other two
 * headers say in what theirs differ.
 *
 * A run:    podlog_config_pod_storage_n20_n10(), podlog_set_curr_active_inst(), podlog_init(),
 *           podlog_add() for every result, podlog_use_nxt_log() at its end, podlog_close(),
 *           podlog_clr_curr_active_inst().
 * A reader: podlog_open_dir(), podlog_read_dir() for every history, podlog_close_dir(); then, for a
 *           history, podlog_open_log(), podlog_read_log() while its result is positive,
 *           podlog_close_log().
 *
 * Results are 1 for success and -1 for failure unless stated. Errors are printed on standard error,
 * an id that the registry does not hold as "ERROR: CALL: invalid instance id ID!". Warnings and
 * dumps go to standard output. errno is not part of the interface of the calls below; after a
 * storage's own call that failed it is what the failing system call set. Where there was none (bad
 * contents, no such device) it is as before, or what a step of opening left that may fail: making
 * the directory of the files (EEXIST), or opening an NVRAM whose node was not there yet.
 *
 * Times are seconds since the epoch, of which the log keeps the low 32 bits. A time_t of 32 bits
 * gets them as they are; a wider one gets their value without sign, which is right until 2106.
 *
 * Threads: all state is the process's own and unlocked: the registry, the devices, and one walk
 * over the histories of each storage. Configure before several threads use it; one POD runner and
 * one reader at a time, and the calls of one storage from one thread at a time.
 */
#ifndef DEVICE_ACCESS_POD_LOG_H
#define DEVICE_ACCESS_POD_LOG_H

#include <stdint.h>
#include <time.h>

#include <device_access/device_access_api.h>
#include <device_access/pod_log_eeprom.h>

DEVICE_ACCESS_BEGIN_DECLS

/* Most instances the registry can hold. */
#define POD_MAX_STORAGE 22

/* Chassis types of podlog_config_pod_storage_n20_n10(). */
enum { ChassisType_N20 = 0, ChassisType_N10 = 1, ChassisType_N4 = 2 };

typedef enum pod_storage_type_e DEVICE_ACCESS_INT_ENUM {
    PODSTORAGE_NVRAM = 0,
    PODSTORAGE_FILE = 1,
    PODSTORAGE_EEPROM = 2
} pod_storage_type_t;

typedef enum pod_secondary_storage_type_e DEVICE_ACCESS_INT_ENUM {
    POD2NDSTORAGE_NONE = 0,
    POD2NDSTORAGE_EEPROM = 1
} pod_secondary_storage_type_t;

/* Where one instance's log is kept. */
typedef struct storage_info_s {
    char inst_name[40];      /* card name, NUL-terminated: "RPSW1" */
    int inst_id;             /* instance id: the card's slot number */
    pod_storage_type_t type; /* primary storage */
    int storage_inst_id;     /* index in that backend's device table */
    pod_secondary_storage_type_t secondary_storage_type;
    int secondary_storage_inst_id; /* EEPROM id; -1 when there is none */
} storage_info_t;

typedef struct pod_storage_info_s {
    int num_storage; /* valid rows of dev */
    storage_info_t dev[POD_MAX_STORAGE];
} pod_storage_info_t;

/*
 * A flag between clients: the library never reads or writes it. 0 when the library is loaded.
 */
DEVICE_ACCESS_API extern int lc2_pod_log_again;

/*--- the registry ------------------------------------------------------------------------------*/

/*
 * Replace the registry by a copy of *storage_info, count and all rows. More than POD_MAX_STORAGE
 * rows are never looked at. NULL changes nothing.
 */
DEVICE_ACCESS_API void podlog_config_pod_storage_info(pod_storage_info_t *storage_info);

/*
 * Fill the registry for a chassis, select its slot table (SetChassisType()) and give the NVRAM
 * backend its status mapping: the route processors, ALSW cards and, on N20, SW cards.
 *
 * chassis_type: ChassisType_N20, _N10 or _N4; another value prints a line on standard output and
 *               changes nothing.
 * is_rp2:       non-zero when the software runs on RPSW2. The route processor it runs on logs to
 *               NVRAM 0, its mate to file 16.
 *
 * Instance ids are taken from the slot table; a name that it lacks (RPSW1, ALSW1 ...) gets the id
 * -1. Which storage a row is switched to (podlog_select_primary_secondary_storage()) stays as it
 * was.
 */
DEVICE_ACCESS_API void podlog_config_pod_storage_n20_n10(int chassis_type, int is_rp2);

/*
 * Look an instance up; of several rows with the id or name the first counts. All return 1 when it
 * is found, and 0, leaving the outputs alone and printing nothing, when it is not.
 *
 * podlog_get_pod_instance_name: *inst_name points into the registry: do not free it; it changes
 *                               when the registry is configured anew.
 * podlog_find_pod_instance:     compares whole names, case counts.
 * podlog_get_pod_storage_info and podlog_get_pod_secondary_storage_info also give the number of the
 *                               row, from 0.
 */
DEVICE_ACCESS_API int podlog_get_pod_instance_name(int inst_id, char **inst_name);
DEVICE_ACCESS_API int podlog_find_pod_instance(char *inst_name, int *inst_id);
DEVICE_ACCESS_API int
podlog_get_pod_storage_info(int inst_id, pod_storage_type_t *primary_storage_type,
                            int *primary_storage_inst_id,
                            pod_secondary_storage_type_t *secondary_storage_type,
                            int *secondary_storage_inst_id, int *struct_index);
DEVICE_ACCESS_API int podlog_get_pod_primary_storage_info(int inst_id,
                                                          pod_storage_type_t *storage_type,
                                                          int *storage_inst_id);
DEVICE_ACCESS_API int
podlog_get_pod_secondary_storage_info(int inst_id, pod_secondary_storage_type_t *storage_type,
                                      int *storage_inst_id, int *index);

/*
 * Where the log of the card with this name is kept; names are compared as by
 * podlog_find_pod_instance(). This is the way to a card that the slot table lacks: several such
 * cards share the id -1, with which the calls by instance reach the first of them, and the reading
 * calls refuse their names. Read and write them with the calls of the storage and storage_inst_id:
 * for PODSTORAGE_FILE podlog_file_open_dir(), podlog_file_init() and so on. Or give them ids of
 * their own, in copies of the registry (podlog_get_pod_storage_table()) and of the mapping of the
 * status words (podlog_nvram_get_inst_mapping()) that replace these; then all calls by instance
 * reach them. examples/card_reader.c does the one, examples/pod_runner.c the other.
 *
 * storage: receives a copy of the row; left alone when there is none.
 *
 * Returns 1; 0 when no row has the name, or one of the two is NULL. Prints nothing.
 */
DEVICE_ACCESS_API int podlog_find_pod_storage(const char *inst_name, storage_info_t *storage);

/*
 * Copy the whole registry to *storage_info, what podlog_config_pod_storage_info() would take; its
 * num_storage is then between 0 and POD_MAX_STORAGE. NULL does nothing.
 */
DEVICE_ACCESS_API void podlog_get_pod_storage_table(pod_storage_info_t *storage_info);

/*
 * Where an instance's status word is: nvram_get_podstatus_inst_info() of pod_log_nvram.h, whose
 * result and message it gives.
 */
DEVICE_ACCESS_API int podlog_get_podstatus_inst_info(int podsts_inst_id, int *nvram_id,
                                                     int *mapped_index);

/*--- which card runs its POD -------------------------------------------------------------------*/

/*
 * Claim the POD run for an instance. flg_rdonly non-zero asks without claiming.
 *
 * Returns 0 when allowed: nothing runs, the same instance runs, or flg_rdonly is set; 1, with a
 * line on standard error, when another instance runs.
 */
DEVICE_ACCESS_API int podlog_set_curr_active_inst(int inst_id, int flg_rdonly);

/* The instance whose POD runs, -1 when none does. */
DEVICE_ACCESS_API int podlog_get_active_inst_id(void);

/*
 * End the run, whichever instance claimed it. pod_st non-zero counts it as failed, for inst_id.
 * Nothing happens when none runs.
 */
DEVICE_ACCESS_API void podlog_clr_curr_active_inst(int inst_id, int pod_st);

/*--- secondary storage -------------------------------------------------------------------------*/

/*
 * Bind, or unbind, the functions that reach an instance's secondary EEPROM (mem_access_fp_t in
 * pod_log_eeprom.h). The EEPROM can be used while they are bound.
 *
 * Return 1; -1, with a line on standard error, for an instance that is unknown or has no secondary
 * storage.
 */
DEVICE_ACCESS_API int podlog_bind_secondary_log_access_func(int inst_id, mem_access_fp_t rd_fp,
                                                            mem_access_fp_t wr_fp);
DEVICE_ACCESS_API int podlog_unbind_secondary_log_access_func(int inst_id);

/*
 * Switch podlog_init(), podlog_add(), podlog_use_nxt_log() and podlog_close() of an instance to its
 * primary (use_primary non-zero) or secondary storage. Results as above.
 */
DEVICE_ACCESS_API int podlog_select_primary_secondary_storage(int inst_id, int use_primary);

/*
 * Copy the newest history that holds entries from an instance's primary storage to its secondary
 * EEPROM, entry by entry as they are, and then start the EEPROM's next history, even after a failed
 * copy, but not when one of the two cannot be opened. Neither storage may be open. "No log!" on
 * standard output says that there was nothing to copy.
 *
 * Returns 1, also for an instance without secondary storage; -1 on failure. When the secondary
 * storage cannot be opened, the instance is left switched to it; otherwise it ends switched to its
 * primary storage.
 */
DEVICE_ACCESS_API int podlog_cpy_curr_subblock_to_secondary(int inst_id);

/*--- writing -----------------------------------------------------------------------------------*/

/*
 * Open the storage an instance is switched to; flg_rdonly non-zero for reading only. Opened for
 * writing, a missing file is created, and a storage that holds no log is formatted.
 *
 * Returns 1; -1 with a line on standard error on failure. Switched to a secondary storage that it
 * lacks, it opens nothing and returns 1.
 */
DEVICE_ACCESS_API int podlog_init(int inst_id, int flg_rdonly);

/*
 * Append one entry, stamped with the time of now, to the current history of the opened storage. Its
 * message is event_level (which brings its own separator), diag_string and two blanks, ret_string
 * and two blanks, and the text that fmt and the arguments give (at most 63 bytes of it), cut to 64
 * bytes of which the last is NUL. A string that is NULL or empty, or for which there is no room, is
 * left out with its blanks; fmt must not be NULL. In a full history the entry replaces the last
 * one.
 *
 * Returns 1; -1 when the storage could not be read or written. An instance switched to a secondary
 * storage that it lacks prints a line on standard error, drops the entry and returns 1.
 */
DEVICE_ACCESS_API int podlog_add(int inst_id, char *event_level, char *diag_string,
                                 const char *ret_string, const char *fmt, ...)
    __attribute__((format(printf, 5, 6)));

/*
 * Make the next history of the opened storage the current one, and empty it. Returns the backend's
 * result: 1 or -1.
 */
DEVICE_ACCESS_API int podlog_use_nxt_log(int inst_id);

/* Close the storage an instance is switched to. */
DEVICE_ACCESS_API void podlog_close(int inst_id);

/*
 * Open every instance's storage for writing and close it again, which creates and formats what is
 * missing. Every instance is tried. Returns 1 when all could be opened, else -1.
 */
DEVICE_ACCESS_API int podlog_chk_storage_integrity(void);

/*--- reading -----------------------------------------------------------------------------------*/

/*
 * The reading calls always use the primary storage, and name the card by its slot name
 * (GetSlotByName()); a name that the slot table lacks is an invalid instance. Opening opens the
 * storage, which must not be open; closing closes it.
 */

/*
 * Start a walk over a card's histories, newest first. Returns the number of the newest one that
 * holds entries; -2 when there is none, or when the current history's header is bad; -1 on failure.
 * On both the storage is closed again.
 */
DEVICE_ACCESS_API int podlog_open_dir(const char *cardname);

/*
 * Go on with the walk started last.
 *
 * log_num: the history that the last call of the walk returned.
 * ts:      receives the time of its first entry, 0 when it has none.
 *
 * Returns the number of the next older history that holds entries; -2 when none is left; -1 on
 * failure (reported when it is about log_num; *ts is then unset).
 */
DEVICE_ACCESS_API int podlog_read_dir(int log_num, time_t *ts);

/* End a walk. Returns 1; -1 for an invalid instance. */
DEVICE_ACCESS_API int podlog_close_dir(const char *cardname);

/*
 * Open a card's history. Returns the position of its first entry (greater than 0); -1 when it has
 * none or cannot be read, with the storage closed again.
 */
DEVICE_ACCESS_API int podlog_open_log(const char *cardname, int log_num);

/*
 * Read an entry of the history opened last.
 *
 * offset:   its position: what podlog_open_log() or the last podlog_read_log() returned.
 * ts:       receives its time.
 * msg:      receives its message, at most buf_size bytes. No NUL is added: it may fill msg.
 * buf_size: bytes that msg has room for, at least 1.
 *
 * Returns the position of the next entry; -2 after the last one; -1 when the entry or what follows
 * it cannot be read or the entry is not valid. Costs at most 3 reads of the storage.
 */
DEVICE_ACCESS_API int podlog_read_log(int offset, time_t *ts, char *msg, uint32_t buf_size);

/*
 * As podlog_read_log(), with the entry as it is stored: the 16 bytes of its header and its message.
 * Not for NVRAM (-1, with a line on standard error).
 *
 * buf: 16 bytes and the device's message area size (80 bytes unless configured otherwise). A longer
 *      message is cut to that; bytes beyond a shorter one are left alone.
 */
DEVICE_ACCESS_API int podlog_read_raw_log(int offset, uint8_t *buf);

/* Close the card's storage; log_num is not used. Returns 1; -1 for an invalid instance. */
DEVICE_ACCESS_API int podlog_close_log(const char *cardname, int log_num);

/*--- POD status and fault injection -------------------------------------------------------------*/

/*
 * The calls below by instance id work on the NVRAM that the caller has opened (podlog_init(), or
 * podlog_nvram_init()), and find an instance through the status mapping of NVRAM 0. Status values
 * are 0 passed, 0x0FFFFFFF failed, 0x80000000 unknown; podlog_nvram_convert_pod_status_str() of
 * pod_log_nvram.h gives their texts.
 *
 * An instance without a mapping is invalid: -1, which as a status is 0xFFFFFFFF.
 */

/* Set the status to unknown, or to any 32-bit value. Return 1 or -1. */
DEVICE_ACCESS_API int podlog_invalidate_pod_status(int inst_id);
DEVICE_ACCESS_API int podlog_set_pod_status(int inst_id, int pod_status);

/* The status, as one of the three values; unknown when it cannot be read. */
DEVICE_ACCESS_API uint32_t podlog_get_pod_status(int inst_id);

/* Position of the fault-injection word in the NVRAM, in bytes. */
DEVICE_ACCESS_API int podlog_get_faultinject_pos(int inst_id);

/* Store 0 in *faultinjected: no injection is ever reported. Returns 1; -1 for NULL. */
DEVICE_ACCESS_API int podlog_is_faultinject(int inst_id, int *faultinjected);

/* Set the instance's fault-injection flag, or clear it (clr non-zero). Returns 1 or -1. */
DEVICE_ACCESS_API int podlog_faultinject_pod_status(int inst_id, int clr);

/*
 * Clear the flags of all instances on the instance's primary storage, which must be NVRAM. Returns
 * 1 or -1.
 */
DEVICE_ACCESS_API int podlog_clr_all_faultinject(int inst_id);

/*
 * The same by chassis slot; these open the NVRAM for writing themselves and close it again, so they
 * fail while somebody has it open.
 *
 * podlog_get_pod_status_cc: the status; 0x80000000 on every failure.
 * podlog_is_faultinject_cc: 1 with *faultinjected 0; -1 on failure and for NULL.
 */
DEVICE_ACCESS_API uint32_t podlog_get_pod_status_cc(uint8_t slotId);
DEVICE_ACCESS_API int podlog_is_faultinject_cc(uint8_t slotId, int *faultinjected);

DEVICE_ACCESS_END_DECLS

#endif

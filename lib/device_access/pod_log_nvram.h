/*
 * The POD log in battery-backed NVRAM, and the POD status words and fault mask next to it. What a
 * log is, and what holds for the calls of every storage, is described in pod_log.h; the calls of
 * the log are those of pod_log_file.h, with what is said here of the differences.
 *
 * Devices have ids 0 and 1 and are described by the rows of _nvram_dev_info; other ids name no
 * device: operations on them fail, or do nothing where there is no result, and touch no device.
 *
 * A device is opened exclusively: while one process holds it, others cannot open it.
 *
 * In C++ the record types below live in namespace podlog, because the POST reader has types of the
 * same names (namespace postlog); unqualified names work where one of the two headers is included.
 * C files include one of the two.
 */
#ifndef DEVICE_ACCESS_POD_LOG_NVRAM_H
#define DEVICE_ACCESS_POD_LOG_NVRAM_H

#include <stdarg.h>
#include <stdint.h>
#include <time.h>

#include <device_access/device_access_api.h>

#if !defined(__cplusplus) && defined(DEVICE_ACCESS_POST_LOG_NVRAM_H)
#error "a C file includes pod_log_nvram.h or post_log_nvram.h, not both: use two files, or C++"
#endif

/* POD status of a card, as podlog_nvram_get_pod_status() gives it. */
#define POD_STATUS_PASSED 0u
#define POD_STATUS_FAILED 0x0FFFFFFFu
#define POD_STATUS_INVALID 0x80000000u

/*
 * Which instances (cards) the POD status words belong to. Status index i is the i-th status word
 * and bit i of the fault mask.
 */
typedef struct pod_nvram_inst_map {
    int num_inst;      /* status indexes in use; those beyond 8 do not count */
    int index0[8];     /* instance id of each status index */
    int index1[8];     /* instance that shares the status index, -1 for none */
    char name0[8][40]; /* name of the instance in index0 */
    char name1[8][40]; /* name of the instance in index1 */
} pod_nvram_inst_map_t;

#ifdef __cplusplus
namespace podlog
{
#endif

/* An NVRAM device. */
typedef struct {
    char name[40];           /* path of the device node; without NUL when it has 40 bytes */
    int attr;                /* attribute word, set to 2; not read */
    int mem_size;            /* region size in bytes */
    int num_subblock;        /* histories in the ring */
    int msg_size;            /* bytes of message area per entry */
    uint32_t log_align_msk;  /* mask applied to the history size */
    int subblock_size;       /* history size in bytes, computed by podlog_nvram_init() */
    int fd;                  /* open descriptor, -1 when closed */
    int pod_status_pos;      /* byte position of the 8 status words */
    int pod_faultinject_pos; /* byte position of the fault mask */
    pod_nvram_inst_map_t inst_map;
} nvram_dev_info_t;

/* Block index record, 16 bytes at position 32. Records are little-endian. */
typedef struct {
    uint32_t magic;
    uint32_t header_index; /* number of the current history */
    uint32_t log_size;     /* history size in bytes */
    uint32_t checksum;     /* crc32_cksum of the 12 bytes before it */
} nvram_log_index_t;

/* History header, 20 bytes at the start of each history. */
typedef struct {
    uint32_t header_checksum; /* crc32_cksum of the 16 bytes after it */
    uint32_t log_size;        /* history size in bytes */
    uint32_t index;           /* bytes of entries in use; the next goes to start + index */
    uint32_t version;         /* 0x1122 */
    uint32_t start;           /* position of the first entry */
} nvram_log_header_t;

/* Entry header, 16 bytes, directly followed by entry_size bytes of message. */
typedef struct {
    uint64_t epoch_time;   /* 32-bit time of adding, sign-extended */
    uint32_t log_checksum; /* crc32_cksum of this record with a log_checksum of 0 */
    uint32_t entry_size;
} nvram_log_t;

DEVICE_ACCESS_BEGIN_DECLS

/*
 * The devices 0 and 1. As loaded, both have 16384 bytes, 10 histories, 64-byte messages and the
 * alignment mask 0xFFFFFFE0; device 0 is "/dev/nvlog-pod", device 1 has no node. Change them
 * through the calls below, while they are closed.
 */
extern DEVICE_ACCESS_API nvram_dev_info_t _nvram_dev_info[2];

DEVICE_ACCESS_END_DECLS

#ifdef __cplusplus
} // namespace podlog
#endif

DEVICE_ACCESS_BEGIN_DECLS

/*** Configuration, before use ***/

/*
 * As podlog_file_set_pod_info(). dev_name is the path of the device's node; mem_size counts the
 * whole region, with 8 status words at mem_size - 72 and the fault mask at mem_size - 40; each
 * history gets (mem_size - 100) / num_log bytes, masked with align_msk.
 */
DEVICE_ACCESS_API void podlog_nvram_set_pod_info(int nvram_id, char *dev_name, int mem_size,
                                                 int num_log, int msg_len, uint32_t align_msk);

/*
 * Replace the instance mapping: status index i gets instance inst_id[i] and no second one.
 *
 * num_inst:  number of elements of the two arrays; those beyond 8 are not looked at.
 * inst_name: names of the instances, of which at most 40 bytes are copied. All are copied to
 *            name0[0], so that it ends up with the last one; the other names become empty.
 */
DEVICE_ACCESS_API void podlog_nvram_set_podstatus_info(int nvram_id, int num_inst, int *inst_id,
                                                       char **inst_name);

/* Copy the whole instance mapping in or out. That of an id without device is all zero. */
DEVICE_ACCESS_API void podlog_nvram_config_inst_mapping(int nvram_id,
                                                        pod_nvram_inst_map_t *inst_map);
DEVICE_ACCESS_API void podlog_nvram_get_inst_mapping(int nvram_id, pod_nvram_inst_map_t *inst_map);

/* Set the magic number (0x1FE2C365 as loaded) of all later checks and resets, on all devices. */
DEVICE_ACCESS_API void podlog_nvram_set_magic_number(uint32_t new_magic_num);

/*** The device ***/

/*
 * Open a device's node exclusively, trying 20 times with a sleep of 500 to 1499 microseconds after
 * each failure. If that fails, find the block "nvlog-pod" among "/sys/class/zmt_nvram/nvram0" to
 * "nvram19", make its node and open that, not exclusively.
 *
 * nvram_fd:   gets the descriptor, which the caller closes; -1 on failure.
 * flg_rdonly: nonzero opens for reading only.
 *
 * Returns 1; 0 on failure, reported unless the node is busy (EBUSY). A descriptor 0 is not taken
 * from the exclusive attempts.
 */
DEVICE_ACCESS_API int podlog_nvram_open_dev_file(int nvram_id, int *nvram_fd, int flg_rdonly);

/*
 * Read or write num_byte bytes at the position offset of an open device, in one system call.
 * Return the number of bytes moved, which may be smaller; 0 on failure (reported), which includes
 * that the device is closed and that nothing could be moved.
 */
DEVICE_ACCESS_API int pod_nvram_mem_rd(int nvram_id, uint32_t offset, uint8_t *buffer,
                                       uint32_t num_byte);
DEVICE_ACCESS_API int pod_nvram_mem_wr(int nvram_id, uint32_t offset, uint8_t *buffer,
                                       uint32_t num_byte);

/*** The log ***/

/*
 * Open a device and check its log. With a right index checksum every history's header must be good.
 * With a wrong one, opening for reading fails; opening for writing resets the region if the magic
 * number is wrong too, and fails otherwise. A region that fails so is brought back by
 * podlog_nvram_reset(), after podlog_nvram_open_dev_file() has given a descriptor for its row.
 *
 * flg_rdonly: nonzero opens for reading only.
 *
 * Returns 1; -1, with the device closed again, on failure. A device that is open already stays so,
 * and the call fails.
 */
DEVICE_ACCESS_API int podlog_nvram_init(int nvram_id, int flg_rdonly);

/* Close a device; one that is closed is reported on standard output. Valid in every state. */
DEVICE_ACCESS_API void podlog_nvram_close(int nvram_id);

/*
 * As podlog_file_reset(), and set the status words to invalid and the fault mask to 0; -1 also when
 * these cannot be written.
 */
DEVICE_ACCESS_API int podlog_nvram_reset(int nvram_id);

/* Write the index of an open device back unchanged. clr_or_set is not used. Returns 1 or -1. */
DEVICE_ACCESS_API int podlog_nvram_set_curr_log_status(int nvram_id, int clr_or_set);

/* Close the device; log_num is not used. Returns 1. */
DEVICE_ACCESS_API int podlog_nvram_close_log(int nvram_id, int log_num);

/* As podlog_file_dump_all_log_msgs(); -1 also at the first history that cannot be read. */
DEVICE_ACCESS_API int podlog_nvram_dump_all_log_msgs(int nvram_id);

/* As podlog_file_add() and so on, on a device. */
DEVICE_ACCESS_API int podlog_nvram_add(int nvram_id, char *event_level, char *diag_string,
                                       const char *ret_string, const char *fmt, va_list args);
DEVICE_ACCESS_API int podlog_nvram_use_nxt_log(int nvram_id);
DEVICE_ACCESS_API int podlog_nvram_close_dir(int nvram_id);
DEVICE_ACCESS_API int podlog_nvram_dump_log_msgs(int nvram_id, int log_num);
DEVICE_ACCESS_API int podlog_nvram_dump_curr_log_msgs(int nvram_id);

/*
 * As podlog_open_dir(), podlog_open_log() and so on, on a device. The two that open take a closed
 * device and leave it open when they return a history or a position: until podlog_nvram_close_dir()
 * and podlog_nvram_close_log().
 */
DEVICE_ACCESS_API int podlog_nvram_open_dir(int nvram_id);
DEVICE_ACCESS_API int podlog_nvram_read_dir(int nvram_id, int log_num, time_t *ts);
DEVICE_ACCESS_API int podlog_nvram_open_log(int nvram_id, int log_num);
DEVICE_ACCESS_API int podlog_nvram_read_log(int nvram_id, int offset, time_t *ts, char *msg,
                                            uint32_t buf_size);

/*** POD status and fault injection ***/

/*
 * The status index of an instance in the device's mapping: the lowest one that names it. Returns
 * -1, after a report and a dump of the mapping, when there is none.
 */
DEVICE_ACCESS_API int nvram_get_podstatus_inst_mapped_index(int nvram_id, int inst_id);

/*
 * Where the status of an instance is: nvram_id gets the device (always 0) and mapped_index the
 * status index. Returns 1; 0 (reported) when no status index belongs to it: nvram_id then gets -1.
 */
DEVICE_ACCESS_API int nvram_get_podstatus_inst_info(int podsts_inst_id, int *nvram_id,
                                                    int *mapped_index);

/* Print the device's instance mapping. */
DEVICE_ACCESS_API void nvram_dump_podstatus_inst_mapping(int nvram_id);

/* "Passed", "Failed", "Invalid", or "Unrecognized!" for what is no POD_STATUS_*; constant texts. */
DEVICE_ACCESS_API const char *podlog_nvram_convert_pod_status_str(uint32_t val);

/* Set the status of an instance of an open device to POD_STATUS_INVALID. Returns 1 or -1. */
DEVICE_ACCESS_API int podlog_nvram_invalidate_pod_status(int nvram_id, int inst_id);

/*
 * The status of an instance of an open device, one of POD_STATUS_*. What cannot be read is invalid;
 * so is a stored word with its top bit set, and any other but 0 is a failure.
 */
DEVICE_ACCESS_API uint32_t podlog_nvram_get_pod_status(int nvram_id, int inst_id);

/*
 * Store any value as the status of an instance. Always on device 0, which must be open, and by its
 * mapping: nvram_id is not used. Returns 1 or -1.
 */
DEVICE_ACCESS_API int podlog_nvram_set_pod_status(int nvram_id, int inst_id, int pod_status);

/* Byte position of the fault mask; -1 for an id without device. */
DEVICE_ACCESS_API int podlog_nvram_get_faultinject_pos(int nvram_id);

/*
 * Ask for an injected fault: *faultinjected gets 0, whatever the mask says; only
 * nvram_disp_faultinject_status() shows the mask. Returns 1; -1 when faultinjected is NULL.
 */
DEVICE_ACCESS_API int podlog_nvram_is_faultinject(int nvram_id, int inst_id, int *faultinjected);

/* Clear the whole fault mask of an open device. Returns 1 or -1. */
DEVICE_ACCESS_API int podlog_nvram_clr_all_faultinject(int nvram_id);

/* Set (clr 0) or clear the bit of an instance in an open device's mask. Returns 1 or -1. */
DEVICE_ACCESS_API int podlog_nvram_faultinject_pod_status(int nvram_id, int inst_id, int clr);

/* Print the injected faults of an open device. Returns 1; -1 when the mask cannot be read. */
DEVICE_ACCESS_API int nvram_disp_faultinject_status(int nvram_id);

DEVICE_ACCESS_END_DECLS

#ifdef __cplusplus
using namespace podlog;
#endif

#endif

// The front end of the POD log: the run, and the calls that go to the log of an instance or card.
#include <device_access/pod_log.h>

#include "lib/base/errors.h"
#include "lib/base/print.h"
#include "lib/podlog/registry.h"

#include <cstdarg>

using namespace device_access;

int lc2_pod_log_again = 0;

namespace
{

struct pod_state_info_t {
    int pod_running;
    int active_inst_id;
    int dbg_last_failed_inst_id; // the dbg fields are for who looks with a debugger
    int dbg_pod_failed_cnt;
    int dbg_pod_runs;
};
pod_state_info_t pod_state_info = {0, -1, -1, 0, 0};

int directory_instance = -1; // of the last podlog_open_dir()
int log_instance = -1;       // of the last podlog_open_log()

} // namespace

//--- the run --------------------------------------------------------------------------------------

int podlog_set_curr_active_inst(int inst_id, int flg_rdonly)
{
    if (!pod_state_info.pod_running) {
        if (!flg_rdonly) {
            ++pod_state_info.dbg_pod_runs;
            pod_state_info.pod_running = 1;
            pod_state_info.active_inst_id = inst_id;
        }
        return 0;
    }
    if (flg_rdonly || inst_id == pod_state_info.active_inst_id)
        return 0;
    return REFUSE(print_error, 1,
                  "ERROR: %s: POD currently running for %d and  cannot run card %d!\n", __func__,
                  pod_state_info.active_inst_id, inst_id);
}

int podlog_get_active_inst_id(void)
{
    return pod_state_info.active_inst_id;
}

void podlog_clr_curr_active_inst(int inst_id, int pod_st)
{
    if (!pod_state_info.pod_running)
        return;
    pod_state_info.active_inst_id = -1;
    pod_state_info.pod_running = 0;
    if (pod_st) {
        pod_state_info.dbg_last_failed_inst_id = inst_id;
        ++pod_state_info.dbg_pod_failed_cnt;
    }
}

//--- writing --------------------------------------------------------------------------------------

int podlog_init(int inst_id, int flg_rdonly)
{
    const storage_info_t *row = find_instance_or_report(__func__, inst_id);
    if (!row)
        return -1;
    pod_log_ring primary = primary_log(row);
    if (uses_primary(row)) {
        if (primary && primary.init(flg_rdonly != 0) != -1)
            return 1;
        return REFUSE(print_error, -1,
                      "ERROR: %s: failed to initialize primary storage for instance id %d!\n",
                      __func__, inst_id);
    }
    pod_log_ring secondary = secondary_log(row);
    if (!secondary || secondary.init(flg_rdonly != 0) != -1)
        return 1;
    if (primary)
        primary.close();
    return REFUSE(print_error, -1,
                  "ERROR: %s: failed to initialize secondary storage (EEPROM) for instance %d!\n",
                  __func__, inst_id);
}

int podlog_add(int inst_id, char *event_level, char *diag_string, const char *ret_string,
               const char *fmt, ...)
{
    const storage_info_t *row = find_instance_or_report(__func__, inst_id);
    if (!row)
        return -1;
    if (!uses_primary(row) && row->secondary_storage_type == POD2NDSTORAGE_NONE)
        return REFUSE(print_error, 1, "ERROR(%s): No secondary storage for instance id %d!\n",
                      __func__, inst_id);
    pod_log_ring log = selected_log(row);
    if (!log)
        return 1;
    va_list args;
    va_start(args, fmt);
    const int result = log.add(event_level, diag_string, ret_string, fmt, args);
    va_end(args);
    return result == -1 ? -1 : 1;
}

int podlog_use_nxt_log(int inst_id)
{
    pod_log_ring log = selected_log(find_instance_or_report(__func__, inst_id));
    return log ? log.use_nxt_log() : -1;
}

void podlog_close(int inst_id)
{
    if (pod_log_ring log = selected_log(find_instance_or_report(__func__, inst_id)))
        log.close();
}

int podlog_chk_storage_integrity(void)
{
    int result = 1;
    for (const storage_info_t &row : registered_instances()) {
        if (podlog_init(row.inst_id, 0) == 1) {
            podlog_close(row.inst_id);
        } else {
            print_error("ERROR: %s: failed to open device for instance %d!\n", __func__,
                        row.inst_id);
            result = -1;
        }
    }
    return result;
}

//--- reading --------------------------------------------------------------------------------------

int podlog_open_dir(const char *cardname)
{
    const storage_info_t *row = find_card_or_report(__func__, cardname);
    if (!row)
        return -1;
    directory_instance = row->inst_id;
    pod_log_ring log = primary_log(row);
    return log ? log.open_dir() : -1;
}

int podlog_read_dir(int log_num, time_t *ts)
{
    pod_log_ring log = primary_log(find_instance_or_report(__func__, directory_instance));
    return log ? log.read_dir(log_num, ts) : -1;
}

int podlog_close_dir(const char *cardname)
{
    pod_log_ring log = primary_log(find_card_or_report(__func__, cardname));
    if (!log)
        return -1;
    log.close();
    return 1;
}

int podlog_open_log(const char *cardname, int log_num)
{
    const storage_info_t *row = find_card_or_report(__func__, cardname);
    if (!row)
        return -1;
    log_instance = row->inst_id;
    pod_log_ring log = primary_log(row);
    return log ? log.open_log(log_num) : -1;
}

int podlog_read_log(int offset, time_t *ts, char *msg, uint32_t buf_size)
{
    pod_log_ring log = primary_log(find_instance_or_report(__func__, log_instance));
    return log ? log.read_log(offset, ts, msg, buf_size) : -1;
}

int podlog_read_raw_log(int offset, uint8_t *buf)
{
    const storage_info_t *row = find_instance_or_report(__func__, log_instance);
    if (row && row->type == PODSTORAGE_NVRAM)
        return REFUSE(print_error, -1, "ERROR: %s: read raw log not support for NVRAM!\n",
                      __func__);
    pod_log_ring log = primary_log(row);
    return log ? log.read_raw_log(offset, buf) : -1;
}

int podlog_close_log(const char *cardname, int)
{
    const storage_info_t *row = find_card_or_report(__func__, cardname);
    if (!row)
        return -1;
    if (pod_log_ring log = primary_log(row))
        log.close();
    return 1;
}

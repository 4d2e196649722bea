#include <device_access/pod_log.h>

#include <device_access/pod_log_file.h>
#include <device_access/pod_log_nvram.h>
#include <device_access/slot_names.h>

#include "lib/base/print.h"
#include "lib/base/unique_malloc.h"
#include "lib/podlog/ring.h"

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <iterator>

#include <sys/types.h>

using namespace device_access;

int lc2_pod_log_again = 0;

namespace
{

//--- the registry ---------------------------------------------------------------------------------

constexpr storage_info_t nvram_row(const char (&name)[6], int inst_id)
{
    storage_info_t row = {{}, inst_id, PODSTORAGE_NVRAM, 0, POD2NDSTORAGE_NONE, -1};
    std::copy(std::begin(name), std::end(name), row.inst_name);
    return row;
}

template <size_t Size>
constexpr storage_info_t file_row(const char (&name)[Size], int inst_id, int file_id,
                                  int eeprom_id = -1)
{
    storage_info_t row = {{},
                          inst_id,
                          PODSTORAGE_FILE,
                          file_id,
                          eeprom_id < 0 ? POD2NDSTORAGE_NONE : POD2NDSTORAGE_EEPROM,
                          eeprom_id};
    std::copy(std::begin(name), std::end(name), row.inst_name);
    return row;
}

// In force until the registry is configured. The last rows name file devices that do not exist:
// they have always been shipped so, and no chassis runs on this table.
pod_storage_info_t pod_storage_info = {
    POD_MAX_STORAGE,
    {nvram_row("RPSW1", 20),      nvram_row("RPSW2", 21),    file_row("ALSW1", 22, 0, 0),
     file_row("ALSW2", 23, 1, 1), file_row("SW1", 24, 2, 2), file_row("SW2", 25, 3, 3),
     file_row("SW3", 26, 4, 4),   file_row("SW4", 27, 5, 5), file_row("FT1", 28, 6),
     file_row("FT2", 29, 7),      file_row("PEM1", 30, 8),   file_row("PEM2", 31, 9),
     file_row("PEM3", 32, 10),    file_row("PEM4", 33, 11),  file_row("PEM5", 34, 12),
     file_row("PEM6", 35, 13),    file_row("PEM7", 36, 14),  file_row("PEM8", 37, 15),
     file_row("FT3", 38, 16),     file_row("FT4", 39, 17),   file_row("FT5", 40, 18),
     file_row("FT6", 41, 19)}};

// By row: whether an instance's calls go to its primary storage. Configuring anew leaves it.
int _flg_use_primary_storage[POD_MAX_STORAGE] = {1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1,
                                                 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1};

int num_rows()
{
    return std::clamp(pod_storage_info.num_storage, 0, POD_MAX_STORAGE);
}

template <typename Matches>
storage_info_t *first_row(Matches matches)
{
    storage_info_t *const end = pod_storage_info.dev + num_rows();
    storage_info_t *const row = std::find_if(pod_storage_info.dev, end, matches);
    return row == end ? nullptr : row;
}

storage_info_t *find_row(int inst_id)
{
    return first_row([inst_id](const storage_info_t &row) { return row.inst_id == inst_id; });
}

// None for NULL, and for what is longer than a name.
storage_info_t *find_named_row(const char *name)
{
    return first_row([name](const storage_info_t &row) {
        return name && ::strnlen(name, sizeof row.inst_name) < sizeof row.inst_name &&
               std::strncmp(row.inst_name, name, sizeof row.inst_name) == 0;
    });
}

int row_number(const storage_info_t *row)
{
    return static_cast<int>(row - pod_storage_info.dev);
}

int &use_primary_flag(const storage_info_t *row)
{
    return _flg_use_primary_storage[row_number(row)];
}

int invalid_instance(const char *func, int inst_id)
{
    return refuse(-1, "ERROR: %s: invalid instance id %d!\n", func, inst_id);
}

const storage_info_t *find_row_or_report(const char *func, int inst_id)
{
    const storage_info_t *row = find_row(inst_id);
    if (!row)
        invalid_instance(func, inst_id);
    return row;
}

//--- the registry of one chassis ------------------------------------------------------------------

enum on_chassis : unsigned { on_n20 = 1, on_n10 = 2, on_n4 = 4, on_all = 7 };

struct chassis_model {
    on_chassis mark;
    int num_mapped; // leading rows that have a POD status word
};
constexpr chassis_model chassis_models[] = {{on_n20, 8}, {on_n10, 4}, {on_n4, 4}}; // by type

struct card {
    const char *name;
    int file_id;
    int eeprom_id; // of the secondary storage; -1: none
    unsigned chassis;
};

// In the order of their rows, which follow those of the route processors.
constexpr card cards[] = {
    {"ALSW1", 0, 0, on_all},
    {"ALSW2", 1, 1, on_all},
    {"SW1", 2, 2, on_n20},
    {"SW2", 3, 3, on_n20},
    {"SW3", 4, 4, on_n20},
    {"SW4", 5, 5, on_n20},
    {"FT1", 6, -1, on_all},
    {"FT2", 7, -1, on_all},
    {"PM1", 8, -1, on_all},
    {"PM2", 9, -1, on_all},
    {"PM3", 10, -1, on_all},
    {"PM4", 11, -1, on_n20 | on_n10},
    {"PM5", 12, -1, on_n20 | on_n10},
    {"PM6", 13, -1, on_n20 | on_n10},
    {"PM7", 14, -1, on_n20},
    {"PM8", 15, -1, on_n20},
    {"FT3", 11, -1, on_n4},
    {"FT4", 12, -1, on_n4},
    {"FT5", 13, -1, on_n4},
    {"FT6", 14, -1, on_n4},
};
constexpr int mate_file_id = 16; // of the route processor the software does not run on

// Writes the rows of a chassis one after another.
class registry_builder
{
public:
    explicit registry_builder(int num_mapped) : num_mapped_(num_mapped) {}

    void add(const char *name, pod_storage_type_t type, int storage_id, int eeprom_id)
    {
        storage_info_t &row = pod_storage_info.dev[count_];
        std::strncpy(row.inst_name, name, name_room); // the rest keeps what it held
        row.inst_id = GetSlotByName(name)->slotN;
        row.type = type;
        row.storage_inst_id = storage_id;
        row.secondary_storage_type = eeprom_id < 0 ? POD2NDSTORAGE_NONE : POD2NDSTORAGE_EEPROM;
        row.secondary_storage_inst_id = eeprom_id;
        if (++count_ == num_mapped_)
            hand_out_status_mapping();
    }

    void finish() { pod_storage_info.num_storage = count_; }

private:
    static constexpr size_t name_room = 10;

    void hand_out_status_mapping() const
    {
        pod_nvram_inst_map_t map = {};
        map.num_inst = num_mapped_;
        for (int i = 0; i < num_mapped_; ++i) {
            const storage_info_t &row = pod_storage_info.dev[i];
            map.index0[i] = row.inst_id;
            map.index1[i] = -1;
            std::strncpy(map.name0[i], row.inst_name, name_room);
        }
        podlog_nvram_config_inst_mapping(0, &map);
    }

    int num_mapped_;
    int count_ = 0;
};

//--- the logs of an instance ----------------------------------------------------------------------

// None for no row, and for a type that is none of the three.
pod_log_ring primary_log(const storage_info_t *row)
{
    if (!row)
        return {};
    switch (row->type) {
    case PODSTORAGE_NVRAM:
        return nvram_ring(row->storage_inst_id);
    case PODSTORAGE_FILE:
        return file_ring(row->storage_inst_id);
    case PODSTORAGE_EEPROM:
        return eeprom_ring(row->storage_inst_id);
    }
    return {};
}

pod_log_ring secondary_log(const storage_info_t *row)
{
    if (row->secondary_storage_type == POD2NDSTORAGE_EEPROM)
        return eeprom_ring(row->secondary_storage_inst_id);
    return {};
}

// The log an instance is switched to; none for no row.
pod_log_ring selected_log(const storage_info_t *row)
{
    if (!row)
        return {};
    return use_primary_flag(row) ? primary_log(row) : secondary_log(row);
}

//--- the run --------------------------------------------------------------------------------------

struct pod_state_info_t {
    int pod_running;
    int active_inst_id;
    int dbg_last_failed_inst_id; // the dbg fields are for who looks with a debugger
    int dbg_pod_failed_cnt;
    int dbg_pod_runs;
};
pod_state_info_t pod_state_info = {0, -1, -1, 0, 0};

//--- the readers ----------------------------------------------------------------------------------

int _hist_inst_id = -1;            // of the last podlog_open_dir()
int _curr_opened_log_inst_id = -1; // of the last podlog_open_log()

// The row of a card's log. A name that the slot table lacks must not find the rows whose names it
// lacked too.
const storage_info_t *find_card_or_report(const char *func, const char *cardname)
{
    const int inst_id = GetSlotByName(cardname)->slotN;
    if (inst_id == -1) {
        invalid_instance(func, inst_id);
        return nullptr;
    }
    return find_row_or_report(func, inst_id);
}

// The row of an instance whose secondary storage is an EEPROM.
const storage_info_t *find_secondary_or_report(const char *func, int inst_id)
{
    const storage_info_t *row = find_row_or_report(func, inst_id);
    if (!row || row->secondary_storage_type == POD2NDSTORAGE_EEPROM)
        return row;
    if (row->secondary_storage_type == POD2NDSTORAGE_NONE)
        print_error("ERROR: %s: No secondary storage for instance %d!\n", func, inst_id);
    return nullptr;
}

//--- copying to the secondary storage -------------------------------------------------------------

// Room for one entry as either end of the copy takes it, and a NUL behind its text.
unique_malloc<uint8_t> make_entry_buffer(const storage_info_t *row)
{
    const pod_log_ring source = primary_log(row);
    const pod_log_ring target = eeprom_ring(row->secondary_storage_inst_id);
    const size_t size = std::max(source ? source.raw_entry_size() : 0, target.raw_entry_size());
    return unique_malloc<uint8_t>(static_cast<uint8_t *>(std::calloc(1, size + 1)));
}

// Whether a raw read has filled the header of an entry that was blank before: no valid one is.
bool has_entry(const uint8_t *entry)
{
    return std::any_of(entry, entry + sizeof(pod_entry), [](uint8_t byte) { return byte != 0; });
}

// The last entry is read even when what follows it cannot be.
int copy_entries(const char *func, const storage_info_t *row, int offset)
{
    const unique_malloc<uint8_t> entry = make_entry_buffer(row);
    if (!entry)
        return -1;
    pod_log_ring target = eeprom_ring(row->secondary_storage_inst_id);
    for (int count = 0; offset > 0; ++count) {
        std::memset(entry.get(), 0, sizeof(pod_entry));
        offset = podlog_read_raw_log(offset, entry.get());
        if (!has_entry(entry.get()))
            return -1;
        if (target.add_raw_log(entry.get()) == -1)
            return refuse(-1, "ERROR: %s: faild to write %dth log to the secondary storage!\n",
                          func, count);
    }
    return 1;
}

// Moves the secondary storage, opened by the copy, to its next history and closes it.
int close_secondary_history(const char *func, const storage_info_t *row, int result)
{
    pod_log_ring target = eeprom_ring(row->secondary_storage_inst_id);
    if (target.use_nxt_log() == -1)
        result = refuse(
            -1, "ERROR: %s: faild to increment to next history for secondary storage!\n", func);
    target.close();
    return result;
}

//--- POD status -----------------------------------------------------------------------------------

constexpr uint32_t status_unknown = 0x80000000;

// Calls a status function of the backend with the NVRAM that holds the instance's word.
template <typename Result, typename... Arguments>
Result with_status_word(const char *func, Result (*call)(int, int, Arguments...), int inst_id,
                        Arguments... arguments)
{
    int nvram_id;
    int mapped_index;
    if (podlog_get_podstatus_inst_info(inst_id, &nvram_id, &mapped_index) != 1)
        return static_cast<Result>(invalid_instance(func, inst_id));
    return call(nvram_id, inst_id, arguments...);
}

} // namespace

//--- the registry ---------------------------------------------------------------------------------

void podlog_config_pod_storage_info(pod_storage_info_t *storage_info)
{
    if (storage_info)
        pod_storage_info = *storage_info;
}

void podlog_config_pod_storage_n20_n10(int chassis_type, int is_rp2)
{
    if (chassis_type < ChassisType_N20 || chassis_type > ChassisType_N4) {
        print_output("%s: Incorrect chassis type %d\n", __func__, chassis_type);
        return;
    }
    SetChassisType(static_cast<chassis_t>(chassis_type));
    const chassis_model &model = chassis_models[chassis_type];
    registry_builder rows(model.num_mapped);
    for (const bool is_second : {false, true}) {
        const bool is_local = is_second == (is_rp2 != 0);
        rows.add(is_second ? "RPSW2" : "RPSW1", is_local ? PODSTORAGE_NVRAM : PODSTORAGE_FILE,
                 is_local ? 0 : mate_file_id, -1);
    }
    for (const card &one : cards)
        if (one.chassis & model.mark)
            rows.add(one.name, PODSTORAGE_FILE, one.file_id, one.eeprom_id);
    rows.finish();
}

int podlog_get_pod_instance_name(int inst_id, char **inst_name)
{
    storage_info_t *row = find_row(inst_id);
    if (!row)
        return 0;
    *inst_name = row->inst_name;
    return 1;
}

int podlog_find_pod_instance(char *inst_name, int *inst_id)
{
    const storage_info_t *row = find_named_row(inst_name);
    if (!row)
        return 0;
    *inst_id = row->inst_id;
    return 1;
}

int podlog_find_pod_storage(const char *inst_name, storage_info_t *storage)
{
    const storage_info_t *row = find_named_row(inst_name);
    if (!row || !storage)
        return 0;
    *storage = *row;
    return 1;
}

void podlog_get_pod_storage_table(pod_storage_info_t *storage_info)
{
    if (!storage_info)
        return;
    *storage_info = pod_storage_info;
    storage_info->num_storage = num_rows();
}

int podlog_get_pod_storage_info(int inst_id, pod_storage_type_t *primary_storage_type,
                                int *primary_storage_inst_id,
                                pod_secondary_storage_type_t *secondary_storage_type,
                                int *secondary_storage_inst_id, int *struct_index)
{
    return podlog_get_pod_primary_storage_info(inst_id, primary_storage_type,
                                               primary_storage_inst_id) &&
           podlog_get_pod_secondary_storage_info(inst_id, secondary_storage_type,
                                                 secondary_storage_inst_id, struct_index);
}

int podlog_get_pod_primary_storage_info(int inst_id, pod_storage_type_t *storage_type,
                                        int *storage_inst_id)
{
    const storage_info_t *row = find_row(inst_id);
    if (!row)
        return 0;
    *storage_type = row->type;
    *storage_inst_id = row->storage_inst_id;
    return 1;
}

int podlog_get_pod_secondary_storage_info(int inst_id, pod_secondary_storage_type_t *storage_type,
                                          int *storage_inst_id, int *index)
{
    const storage_info_t *row = find_row(inst_id);
    if (!row)
        return 0;
    *storage_type = row->secondary_storage_type;
    *storage_inst_id = row->secondary_storage_inst_id;
    *index = row_number(row);
    return 1;
}

int podlog_get_podstatus_inst_info(int podsts_inst_id, int *nvram_id, int *mapped_index)
{
    return nvram_get_podstatus_inst_info(podsts_inst_id, nvram_id, mapped_index);
}

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
    return refuse(1, "ERROR: %s: POD currently running for %d and  cannot run card %d!\n", __func__,
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

//--- secondary storage ----------------------------------------------------------------------------

int podlog_bind_secondary_log_access_func(int inst_id, mem_access_fp_t rd_fp, mem_access_fp_t wr_fp)
{
    const storage_info_t *row = find_secondary_or_report(__func__, inst_id);
    if (!row)
        return -1;
    podlog_bind_eeprom_access_func(row->secondary_storage_inst_id, rd_fp, wr_fp);
    return 1;
}

int podlog_unbind_secondary_log_access_func(int inst_id)
{
    const storage_info_t *row = find_secondary_or_report(__func__, inst_id);
    if (!row)
        return -1;
    podlog_unbind_eeprom_access_func(row->secondary_storage_inst_id);
    return 1;
}

int podlog_select_primary_secondary_storage(int inst_id, int use_primary)
{
    const storage_info_t *row = find_secondary_or_report(__func__, inst_id);
    if (!row)
        return -1;
    use_primary_flag(row) = use_primary;
    return 1;
}

int podlog_cpy_curr_subblock_to_secondary(int inst_id)
{
    storage_info_t *const row = find_row(inst_id);
    if (!row)
        return invalid_instance(__func__, inst_id);
    if (row->secondary_storage_type == POD2NDSTORAGE_NONE)
        return 1;
    const char *const name = row->inst_name;

    use_primary_flag(row) = 0;
    if (podlog_init(inst_id, 0) == -1)
        return refuse(-1, "ERROR: %s: failed to open device for instance %d!\n", __func__, inst_id);
    use_primary_flag(row) = 1;
    const int history = podlog_open_dir(name);
    podlog_close_dir(name);
    if (history == -1)
        return refuse(-1, "ERROR: failed when opening the storage device!\n");
    if (history == -2)
        print_output("No log!\n");

    int result = copy_entries(__func__, row, podlog_open_log(name, history));
    result = close_secondary_history(__func__, row, result);
    const int closed = podlog_close_log(name, history);
    if (closed != 1)
        return refuse(closed, "ERROR: %s: faild to close podlog rtn_close=%d\n", __func__, closed);
    return result;
}

//--- writing --------------------------------------------------------------------------------------

int podlog_init(int inst_id, int flg_rdonly)
{
    const storage_info_t *row = find_row_or_report(__func__, inst_id);
    if (!row)
        return -1;
    pod_log_ring primary = primary_log(row);
    if (use_primary_flag(row)) {
        if (primary && primary.init(flg_rdonly != 0) != -1)
            return 1;
        return refuse(-1, "ERROR: %s: failed to initialize primary storage for instance id %d!\n",
                      __func__, inst_id);
    }
    pod_log_ring secondary = secondary_log(row);
    if (!secondary || secondary.init(flg_rdonly != 0) != -1)
        return 1;
    if (primary)
        primary.close();
    return refuse(-1,
                  "ERROR: %s: failed to initialize secondary storage (EEPROM) for instance %d!\n",
                  __func__, inst_id);
}

int podlog_add(int inst_id, char *event_level, char *diag_string, const char *ret_string,
               const char *fmt, ...)
{
    const storage_info_t *row = find_row_or_report(__func__, inst_id);
    if (!row)
        return -1;
    if (!use_primary_flag(row) && row->secondary_storage_type == POD2NDSTORAGE_NONE)
        return refuse(1, "ERROR(%s): No secondary storage for instance id %d!\n", __func__,
                      inst_id);
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
    pod_log_ring log = selected_log(find_row_or_report(__func__, inst_id));
    return log ? log.use_nxt_log() : -1;
}

void podlog_close(int inst_id)
{
    if (pod_log_ring log = selected_log(find_row_or_report(__func__, inst_id)))
        log.close();
}

int podlog_chk_storage_integrity(void)
{
    int result = 1;
    for (int i = 0; i < num_rows(); ++i) {
        const int inst_id = pod_storage_info.dev[i].inst_id;
        if (podlog_init(inst_id, 0) == 1) {
            podlog_close(inst_id);
        } else {
            print_error("ERROR: %s: failed to open device for instance %d!\n", __func__, inst_id);
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
    _hist_inst_id = row->inst_id;
    pod_log_ring log = primary_log(row);
    return log ? log.open_dir() : -1;
}

int podlog_read_dir(int log_num, time_t *ts)
{
    pod_log_ring log = primary_log(find_row_or_report(__func__, _hist_inst_id));
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
    _curr_opened_log_inst_id = row->inst_id;
    pod_log_ring log = primary_log(row);
    return log ? log.open_log(log_num) : -1;
}

int podlog_read_log(int offset, time_t *ts, char *msg, uint32_t buf_size)
{
    pod_log_ring log = primary_log(find_row_or_report(__func__, _curr_opened_log_inst_id));
    return log ? log.read_log(offset, ts, msg, buf_size) : -1;
}

int podlog_read_raw_log(int offset, uint8_t *buf)
{
    const storage_info_t *row = find_row_or_report(__func__, _curr_opened_log_inst_id);
    if (row && row->type == PODSTORAGE_NVRAM)
        return refuse(-1, "ERROR: %s: read raw log not support for NVRAM!\n", __func__);
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

//--- POD status and fault injection ---------------------------------------------------------------

int podlog_invalidate_pod_status(int inst_id)
{
    return with_status_word(__func__, podlog_nvram_invalidate_pod_status, inst_id);
}

uint32_t podlog_get_pod_status(int inst_id)
{
    return with_status_word(__func__, podlog_nvram_get_pod_status, inst_id);
}

int podlog_set_pod_status(int inst_id, int pod_status)
{
    return with_status_word(__func__, podlog_nvram_set_pod_status, inst_id, pod_status);
}

int podlog_get_faultinject_pos(int inst_id)
{
    const auto position = [](int nvram_id, int) {
        return podlog_nvram_get_faultinject_pos(nvram_id);
    };
    return with_status_word(__func__, +position, inst_id);
}

int podlog_is_faultinject(int inst_id, int *faultinjected)
{
    return with_status_word(__func__, podlog_nvram_is_faultinject, inst_id, faultinjected);
}

int podlog_faultinject_pod_status(int inst_id, int clr)
{
    return with_status_word(__func__, podlog_nvram_faultinject_pod_status, inst_id, clr);
}

int podlog_clr_all_faultinject(int inst_id)
{
    pod_storage_type_t type;
    int nvram_id;
    if (podlog_get_pod_primary_storage_info(inst_id, &type, &nvram_id) != 1)
        return invalid_instance(__func__, inst_id);
    if (type != PODSTORAGE_NVRAM)
        return refuse(-1, "ERROR: %s: not suppored for instance %d!\n", __func__, inst_id);
    return podlog_nvram_clr_all_faultinject(nvram_id);
}

uint32_t podlog_get_pod_status_cc(uint8_t slotId)
{
    const int slot = GetSlotById(slotId)->slotN;
    if (slot == -1)
        return refuse(status_unknown, "ERROR: %s: invalid slot id %d!\n", __func__, slot);
    int nvram_id;
    int mapped_index;
    if (podlog_get_podstatus_inst_info(slotId, &nvram_id, &mapped_index) != 1)
        return refuse(status_unknown, "ERROR: %s: slot %d not matched for pod status!\n", __func__,
                      slot);
    pod_log_ring nvram = nvram_ring(nvram_id);
    if (nvram.init(false) == -1)
        return refuse(status_unknown, "ERROR: %s: cannot open POD Status stroage NVRAM %d!\n",
                      __func__, nvram_id);
    const uint32_t status = podlog_nvram_get_pod_status(nvram_id, slotId);
    nvram.close();
    return status;
}

int podlog_is_faultinject_cc(uint8_t slotId, int *faultinjected)
{
    if (!faultinjected)
        return -1;
    *faultinjected = 0;
    const int slot = GetSlotById(slotId)->slotN;
    if (slot == -1)
        return -1;
    int nvram_id;
    int mapped_index;
    if (podlog_get_podstatus_inst_info(slotId, &nvram_id, &mapped_index) != 1)
        return invalid_instance(__func__, slot);
    pod_log_ring nvram = nvram_ring(nvram_id);
    if (nvram.init(false) == -1)
        return -1;
    const int result = podlog_nvram_is_faultinject(nvram_id, slotId, faultinjected);
    if (result == -1)
        print_error("ERROR: Fail to read fault inject for slot Id %d!\n", slotId);
    nvram.close();
    return result == -1 ? -1 : 1;
}

// The registry of the POD log's instances: the built-in table, a client's, or that of a chassis.
#include "lib/podlog/registry.h"

#include <device_access/pod_log_nvram.h>
#include <device_access/slot_names.h>

#include "lib/base/errors.h"
#include "lib/base/print.h"

#include <algorithm>
#include <cstring>
#include <iterator>

using namespace device_access;

namespace
{

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
pod_storage_info_t registry = {
    POD_MAX_STORAGE,
    {nvram_row("RPSW1", 20),      nvram_row("RPSW2", 21),    file_row("ALSW1", 22, 0, 0),
     file_row("ALSW2", 23, 1, 1), file_row("SW1", 24, 2, 2), file_row("SW2", 25, 3, 3),
     file_row("SW3", 26, 4, 4),   file_row("SW4", 27, 5, 5), file_row("FT1", 28, 6),
     file_row("FT2", 29, 7),      file_row("PEM1", 30, 8),   file_row("PEM2", 31, 9),
     file_row("PEM3", 32, 10),    file_row("PEM4", 33, 11),  file_row("PEM5", 34, 12),
     file_row("PEM6", 35, 13),    file_row("PEM7", 36, 14),  file_row("PEM8", 37, 15),
     file_row("FT3", 38, 16),     file_row("FT4", 39, 17),   file_row("FT5", 40, 18),
     file_row("FT6", 41, 19)}};

// By row; see uses_primary().
int primary_in_use[POD_MAX_STORAGE] = {1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1,
                                       1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1};

template <typename Matches>
storage_info_t *first_row(Matches matches)
{
    const auto rows = registered_instances();
    const auto row = std::find_if(rows.begin(), rows.end(), matches);
    return row == rows.end() ? nullptr : &*row;
}

// None for NULL, and for what is longer than a name.
storage_info_t *find_named_instance(const char *name)
{
    return first_row([name](const storage_info_t &row) {
        return name && ::strnlen(name, sizeof row.inst_name) < sizeof row.inst_name &&
               std::strncmp(row.inst_name, name, sizeof row.inst_name) == 0;
    });
}

int row_number(const storage_info_t *row)
{
    return static_cast<int>(row - registry.dev);
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
        storage_info_t &row = registry.dev[count_];
        std::strncpy(row.inst_name, name, name_room); // the rest keeps what it held
        row.inst_id = GetSlotByName(name)->slotN;
        row.type = type;
        row.storage_inst_id = storage_id;
        row.secondary_storage_type = eeprom_id < 0 ? POD2NDSTORAGE_NONE : POD2NDSTORAGE_EEPROM;
        row.secondary_storage_inst_id = eeprom_id;
        if (++count_ == num_mapped_)
            hand_out_status_mapping();
    }

    void finish() { registry.num_storage = count_; }

private:
    static constexpr size_t name_room = 10;

    void hand_out_status_mapping() const
    {
        pod_nvram_inst_map_t map = {};
        map.num_inst = num_mapped_;
        for (int i = 0; i < num_mapped_; ++i) {
            const storage_info_t &row = registry.dev[i];
            map.index0[i] = row.inst_id;
            map.index1[i] = -1;
            std::strncpy(map.name0[i], row.inst_name, name_room);
        }
        podlog_nvram_config_inst_mapping(0, &map);
    }

    int num_mapped_;
    int count_ = 0;
};

} // namespace

//--- for the front end ----------------------------------------------------------------------------

std::span<storage_info_t> device_access::registered_instances()
{
    const int count = std::clamp(registry.num_storage, 0, POD_MAX_STORAGE);
    return {registry.dev, static_cast<size_t>(count)};
}

storage_info_t *device_access::find_instance(int inst_id)
{
    return first_row([inst_id](const storage_info_t &row) { return row.inst_id == inst_id; });
}

int device_access::invalid_instance(const char *func, int inst_id)
{
    return REFUSE(print_error, -1, "ERROR: %s: invalid instance id %d!\n", func, inst_id);
}

const storage_info_t *device_access::find_instance_or_report(const char *func, int inst_id)
{
    const storage_info_t *row = find_instance(inst_id);
    if (!row)
        invalid_instance(func, inst_id);
    return row;
}

// A name that the slot table lacks must not find the rows whose names it lacked too.
const storage_info_t *device_access::find_card_or_report(const char *func, const char *cardname)
{
    const int inst_id = GetSlotByName(cardname)->slotN;
    if (inst_id == -1) {
        invalid_instance(func, inst_id);
        return nullptr;
    }
    return find_instance_or_report(func, inst_id);
}

const storage_info_t *device_access::find_secondary_or_report(const char *func, int inst_id)
{
    const storage_info_t *row = find_instance_or_report(func, inst_id);
    if (!row || row->secondary_storage_type == POD2NDSTORAGE_EEPROM)
        return row;
    if (row->secondary_storage_type == POD2NDSTORAGE_NONE)
        print_error("ERROR: %s: No secondary storage for instance %d!\n", func, inst_id);
    return nullptr;
}

int &device_access::uses_primary(const storage_info_t *row)
{
    return primary_in_use[row_number(row)];
}

pod_log_ring device_access::primary_log(const storage_info_t *row)
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

pod_log_ring device_access::secondary_log(const storage_info_t *row)
{
    if (row && row->secondary_storage_type == POD2NDSTORAGE_EEPROM)
        return eeprom_ring(row->secondary_storage_inst_id);
    return {};
}

pod_log_ring device_access::selected_log(const storage_info_t *row)
{
    return row && uses_primary(row) ? primary_log(row) : secondary_log(row);
}

//--- the interface --------------------------------------------------------------------------------

void podlog_config_pod_storage_info(pod_storage_info_t *storage_info)
{
    if (storage_info)
        registry = *storage_info;
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
    storage_info_t *row = find_instance(inst_id);
    if (!row)
        return 0;
    *inst_name = row->inst_name;
    return 1;
}

int podlog_find_pod_instance(char *inst_name, int *inst_id)
{
    const storage_info_t *row = find_named_instance(inst_name);
    if (!row)
        return 0;
    *inst_id = row->inst_id;
    return 1;
}

int podlog_find_pod_storage(const char *inst_name, storage_info_t *storage)
{
    const storage_info_t *row = find_named_instance(inst_name);
    if (!row || !storage)
        return 0;
    *storage = *row;
    return 1;
}

void podlog_get_pod_storage_table(pod_storage_info_t *storage_info)
{
    if (!storage_info)
        return;
    *storage_info = registry;
    storage_info->num_storage = static_cast<int>(registered_instances().size());
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
    const storage_info_t *row = find_instance(inst_id);
    if (!row)
        return 0;
    *storage_type = row->type;
    *storage_inst_id = row->storage_inst_id;
    return 1;
}

int podlog_get_pod_secondary_storage_info(int inst_id, pod_secondary_storage_type_t *storage_type,
                                          int *storage_inst_id, int *index)
{
    const storage_info_t *row = find_instance(inst_id);
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

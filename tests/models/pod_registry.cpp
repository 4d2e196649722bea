// The registry of POD instances, and the run that belongs to one of them, beside tables as the
// interface describes them.
#include "walk.h"

#include <device_access/pod_log.h>
#include <device_access/pod_log_nvram.h>
#include <device_access/slot_names.h>

#include <algorithm>
#include <cstring>
#include <map>

#include <strings.h>

namespace
{

using namespace models;
using std::string;
using slot_table = std::vector<std::pair<int, string>>;

const slot_table small_chassis = {{0, "1"},   {2, "RP1"}, {4, "SW1"},
                                  {5, "FT1"}, {6, "PM1"}, {7, "PM2"}};
const slot_table large_chassis = {{0, "1"},   {1, "2"},   {2, "RP1"},  {3, "RP2"},
                                  {4, "SW1"}, {5, "SW2"}, {6, "FT1"},  {7, "FT2"},
                                  {8, "PM1"}, {9, "PM2"}, {10, "PM3"}, {11, "PM4"}};

storage_info_t row_of(const string &name, int id, bool nvram, int device, int eeprom)
{
    storage_info_t row = {};
    name.copy(row.inst_name, sizeof row.inst_name - 1);
    row.inst_id = id;
    row.type = nvram ? PODSTORAGE_NVRAM : PODSTORAGE_FILE;
    row.storage_inst_id = device;
    row.secondary_storage_type = eeprom < 0 ? POD2NDSTORAGE_NONE : POD2NDSTORAGE_EEPROM;
    row.secondary_storage_inst_id = eeprom;
    return row;
}

class registry_model : public model
{
public:
    registry_model()
    {
        const char *const names[] = {
            "RPSW1", "RPSW2", "ALSW1", "ALSW2", "SW1",  "SW2",  "SW3",  "SW4", "FT1", "FT2", "PEM1",
            "PEM2",  "PEM3",  "PEM4",  "PEM5",  "PEM6", "PEM7", "PEM8", "FT3", "FT4", "FT5", "FT6"};
        table_.num_storage = 22;
        for (int i = 0; i < 22; ++i)
            table_.dev[i] =
                row_of(names[i], 20 + i, i < 2, i < 2 ? 0 : i - 2, i >= 2 && i < 8 ? i - 2 : -1);
        map_.num_inst = 8;
        for (int i = 0; i < 8; ++i) {
            map_.index0[i] = i < 6 ? 22 + i : 14 + i;
            map_.index1[i] = -1;
            std::strcpy(map_.name0[i], names[i < 6 ? i + 2 : i - 6]);
        }
    }

    void step(choices &choose) override
    {
        switch (choose.below(7)) {
        case 0:
            return configure(choose);
        case 1:
            return build(choose);
        case 2:
            return find_by_name(choose);
        case 3:
            return claim(choose);
        case 4:
            return release(choose);
        default:
            return find_by_id(choose);
        }
    }

private:
    void configure(choices &choose)
    {
        pod_storage_info_t table = {};
        table.num_storage = choose.of({0, -1, 1, 2, 5, 21, 22, 23, choose.hostile()});
        for (storage_info_t &row : table.dev) {
            row = row_of(choose.text(3), choose.between(-1, 12), false, choose.hostile(),
                         choose.hostile());
            row.type = static_cast<pod_storage_type_t>(choose.between(0, 3));
            if (choose.one_in(20))
                std::memset(row.inst_name, 'x', sizeof row.inst_name); // no NUL
        }
        expect(printed("podlog_config_pod_storage_info({%d, ...})", table.num_storage), {}, [&] {
            podlog_config_pod_storage_info(&table);
            return 0;
        });
        table_ = table;
        std::memset(&table, 0xEE, sizeof table);
    }

    void add(const string &name, bool nvram, int device, int eeprom = -1)
    {
        storage_info_t &row = table_.dev[built_++];
        const storage_info_t fresh = row_of(name, slot_of(name), nvram, device, eeprom);
        std::copy_n(row.inst_name + 10, sizeof row.inst_name - 10,
                    const_cast<char *>(fresh.inst_name) + 10);
        row = fresh;
    }
    void add(const char *kind, int first, int count, int device, bool has_eeprom = false)
    {
        for (int i = 0; i < count; ++i)
            add(kind + std::to_string(first + i), false, device + i, has_eeprom ? device + i : -1);
    }

    void build(choices &choose)
    {
        const int chassis = choose.of({0, 1, 2, 3, -1, choose.hostile()});
        const int is_rp2 = choose.of({0, 1, 2, -1});
        const bool known = chassis >= 0 && chassis <= 2;
        if (known)
            build(chassis, is_rp2 != 0);
        expect(printed("podlog_config_pod_storage_n20_n10(%d, %d)", chassis, is_rp2),
               {.out = known ? ""
                             : printed(
                                   "podlog_config_pod_storage_n20_n10: Incorrect chassis type %d\n",
                                   chassis)},
               [&] {
                   podlog_config_pod_storage_n20_n10(chassis, is_rp2);
                   return 0;
               });
    }

    void build(int chassis, bool is_rp2)
    {
        const bool n20 = chassis == 0;
        const bool n4 = chassis == 2;
        set_slots(chassis);
        built_ = 0;
        add("RPSW1", !is_rp2, is_rp2 ? 16 : 0);
        add("RPSW2", is_rp2, is_rp2 ? 0 : 16);
        add("ALSW", 1, 2, 0, true);
        if (n20)
            add("SW", 1, 4, 2, true);
        map_ = {};
        map_.num_inst = n20 ? 8 : 4;
        for (int i = 0; i < map_.num_inst; ++i) {
            map_.index0[i] = table_.dev[i].inst_id;
            map_.index1[i] = -1;
            std::strcpy(map_.name0[i], table_.dev[i].inst_name);
        }
        add("FT", 1, 2, 6);
        add("PM", 1, n20 ? 8 : n4 ? 3 : 6, 8);
        if (n4)
            add("FT", 3, 4, 11);
        table_.num_storage = built_;
    }

    //--- slots

    void set_slots(int chassis)
    {
        if (chassis == 0 || chassis == 1)
            stack_ = chassis;
    }

    const slot_table &slots() const { return stack_ == 0 ? small_chassis : large_chassis; }

    int slot_of(const string &name) const
    {
        for (const auto &[number, slot] : slots())
            if (::strcasecmp(slot.c_str(), name.c_str()) == 0)
                return number;
        return -1;
    }

    //--- look-ups

    int rows() const { return std::clamp(table_.num_storage, 0, 22); }

    int row_with(int id) const
    {
        for (int i = 0; i < rows(); ++i)
            if (table_.dev[i].inst_id == id)
                return i;
        return -1;
    }

    void find_by_name(choices &choose)
    {
        string name(choose.of(table_.dev).inst_name, 40);
        name = name.substr(0, name.find('\0'));
        name = choose.of({name, name + "x", string("ALSW1"), string("alsw1"), choose.text(3)});
        int row = 0;
        while (row < rows() && (name.size() >= 40 ||
                                std::strncmp(table_.dev[row].inst_name, name.c_str(), 40) != 0))
            ++row;
        int id = 77;
        expect("podlog_find_pod_instance(\"" + name + "\")", {.value = row < rows()},
               [&] { return podlog_find_pod_instance(name.data(), &id); });
        expect_same("the id", row < rows() ? table_.dev[row].inst_id : 77, id);
    }

    void find_by_id(choices &choose)
    {
        const int id =
            choose.of({choose.of(table_.dev).inst_id, choose.between(-2, 45), choose.hostile()});
        const int row = row_with(id);
        const storage_info_t none = {"",
                                     0,
                                     static_cast<pod_storage_type_t>(91),
                                     92,
                                     static_cast<pod_secondary_storage_type_t>(93),
                                     94};
        const storage_info_t &found = row < 0 ? none : table_.dev[row];
        pod_storage_type_t type = none.type;
        pod_secondary_storage_type_t second = none.secondary_storage_type;
        int device = 92, eeprom = 94, number = 95;
        const outcome is_found = {.value = row >= 0};
        switch (choose.below(3)) {
        case 0:
            expect(printed("podlog_get_pod_storage_info(%d)", id), is_found, [&] {
                return podlog_get_pod_storage_info(id, &type, &device, &second, &eeprom, &number);
            });
            break;
        case 1:
            expect(printed("podlog_get_pod_primary_storage_info(%d)", id), is_found,
                   [&] { return podlog_get_pod_primary_storage_info(id, &type, &device); });
            second = found.secondary_storage_type;
            eeprom = found.secondary_storage_inst_id;
            number = row < 0 ? 95 : row;
            break;
        default:
            expect(printed("podlog_get_pod_secondary_storage_info(%d)", id), is_found, [&] {
                return podlog_get_pod_secondary_storage_info(id, &second, &eeprom, &number);
            });
            type = found.type;
            device = found.storage_inst_id;
        }
        expect_same("the type", int{found.type}, int{type});
        expect_same("the device", found.storage_inst_id, device);
        expect_same("the second type", int{found.secondary_storage_type}, int{second});
        expect_same("the second device", found.secondary_storage_inst_id, eeprom);
        expect_same("the row", row < 0 ? 95 : row, number);
        find_name_and_word(id, row);
    }

    void find_name_and_word(int id, int row)
    {
        char *name = nullptr;
        expect(printed("podlog_get_pod_instance_name(%d)", id), {.value = row >= 0},
               [&] { return podlog_get_pod_instance_name(id, &name); });
        if (row >= 0)
            expect_same("all of the name's field", string(table_.dev[row].inst_name, 40),
                        string(name, 40));
        int index = 0;
        while (index < map_.num_inst && map_.index0[index] != id && map_.index1[index] != id)
            ++index;
        const bool mapped = index < map_.num_inst;
        int nvram = 5, seen = 6;
        expect(printed("podlog_get_podstatus_inst_info(%d)", id),
               {.value = mapped,
                .err = mapped
                           ? ""
                           : printed("ERROR: nvram_get_podstatus_inst_info: invalid inst id %d!\n ",
                                     id)},
               [&] { return podlog_get_podstatus_inst_info(id, &nvram, &seen); });
        expect_same("the NVRAM", mapped ? 0 : -1, nvram);
        expect_same("the status index", mapped ? index : 6, seen);
    }

    //--- the run

    void claim(choices &choose)
    {
        const int id = choose.of({3, 4, -1, choose.hostile()});
        const int rdonly = choose.of({0, 0, 1, -1});
        const bool refused = running_ && rdonly == 0 && id != active_;
        if (!running_ && rdonly == 0) {
            running_ = true;
            active_ = id;
        }
        expect(
            printed("podlog_set_curr_active_inst(%d, %d)", id, rdonly),
            {.value = refused,
             .err =
                 refused
                     ? printed(
                           "ERROR: podlog_set_curr_active_inst: POD currently running for %d and  "
                           "cannot run card %d!\n",
                           active_, id)
                     : ""},
            [&] { return podlog_set_curr_active_inst(id, rdonly); });
        expect("podlog_get_active_inst_id()", {.value = active_}, podlog_get_active_inst_id);
    }

    void release(choices &choose)
    {
        running_ = false;
        active_ = -1;
        expect("podlog_clr_curr_active_inst(), podlog_get_active_inst_id()", {.value = -1}, [&] {
            podlog_clr_curr_active_inst(choose.hostile(), choose.below(2));
            return podlog_get_active_inst_id();
        });
    }

    pod_storage_info_t table_ = {};
    pod_nvram_inst_map_t map_ = {};
    int built_ = 0;
    int stack_ = 1;
    bool running_ = false;
    int active_ = -1;
};

} // namespace

int main(int argc, char **argv)
{
    return walk(argc, argv, [](choices &) { return std::make_unique<registry_model>(); });
}

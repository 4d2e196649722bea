// The registry and the front end, over the real backends in a simulated chassis.
#include "sim/chassis.h"
#include "support/captured_output.h"
#include "support/descriptors.h"

#include <device_access/pod_log.h>
#include <device_access/pod_log_crc_tmp.h>
#include <device_access/pod_log_file.h>
#include <device_access/pod_log_nvram.h>
#include <device_access/slot_names.h>

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace
{

namespace fs = std::filesystem;
using test_support::captured_output;
using test_support::open_descriptors;

char *text(const char *constant)
{
    return const_cast<char *>(constant);
}

// Every row that can be found by its id, in compact form: name=id:type/device,second/device.
std::string registry_row(int inst_id)
{
    char *name;
    pod_storage_type_t type;
    pod_secondary_storage_type_t second;
    int device;
    int second_device;
    int row;
    if (podlog_get_pod_instance_name(inst_id, &name) != 1 ||
        podlog_get_pod_storage_info(inst_id, &type, &device, &second, &second_device, &row) != 1)
        return "";
    return std::to_string(row) + " " + name + "=" + std::to_string(inst_id) + ":" +
           "NFE"[static_cast<int>(type)] + std::to_string(device) +
           (second == POD2NDSTORAGE_EEPROM ? "/E" : "/-") + std::to_string(second_device) + " ";
}

std::string registry(int first_id, int last_id)
{
    std::string rows;
    for (int id = first_id; id <= last_id; ++id)
        rows += registry_row(id);
    return rows;
}

// A row for a custom registry.
storage_info_t row(const char *name, int id, pod_storage_type_t type, int device, int eeprom = -1)
{
    storage_info_t one = {};
    std::strncpy(one.inst_name, name, sizeof one.inst_name - 1);
    one.inst_id = id;
    one.type = type;
    one.storage_inst_id = device;
    one.secondary_storage_type = eeprom < 0 ? POD2NDSTORAGE_NONE : POD2NDSTORAGE_EEPROM;
    one.secondary_storage_inst_id = eeprom;
    return one;
}

void configure(const std::vector<storage_info_t> &rows)
{
    pod_storage_info_t info = {};
    info.num_storage = static_cast<int>(rows.size());
    std::copy(rows.begin(), rows.end(), info.dev);
    podlog_config_pod_storage_info(&info);
}

constexpr auto unknown_type = static_cast<pod_storage_type_t>(7);

// Slot names that the large chassis knows, one for each kind of storage.
constexpr int rp1 = 2; // NVRAM 0
constexpr int sw1 = 4; // file 2, secondary EEPROM 2
constexpr int ft1 = 6; // EEPROM 0
constexpr int pm1 = 8; // a type that does not exist, secondary EEPROM 3
constexpr int pm2 = 9; // NVRAM 0 too, secondary EEPROM 3
void configure_one_of_each()
{
    configure({row("PM1", pm1, unknown_type, 0, 3), row("RP1", rp1, PODSTORAGE_NVRAM, 0),
               row("SW1", sw1, PODSTORAGE_FILE, 2, 2), row("FT1", ft1, PODSTORAGE_EEPROM, 0),
               row("PM2", pm2, PODSTORAGE_NVRAM, 0, 3)});
}

// Memory behind the EEPROM callbacks.
struct eeprom_memory {
    std::string bytes = std::string(16384, '\0');
    int writes_left = 1 << 20;
};
eeprom_memory eeprom[2]; // 0: of FT1; 1: the secondary one

template <int N>
int eeprom_read(uint32_t offset, uint8_t *buffer, uint32_t count)
{
    if (uint64_t{offset} + count > eeprom[N].bytes.size())
        return 0;
    std::memcpy(buffer, eeprom[N].bytes.data() + offset, count);
    return static_cast<int>(count);
}

template <int N>
int eeprom_write(uint32_t offset, uint8_t *buffer, uint32_t count)
{
    if (uint64_t{offset} + count > eeprom[N].bytes.size() || eeprom[N].writes_left-- <= 0)
        return 0;
    std::memcpy(eeprom[N].bytes.data() + offset, buffer, count);
    return static_cast<int>(count);
}

void start_chassis()
{
    chassis_sim::enter_private_root();
    chassis_sim::device_server server;
    chassis_sim::add_nvram(server, {});
    server.start();
    configure_one_of_each();
    podlog_bind_eeprom_access_func(0, eeprom_read<0>, eeprom_write<0>);
    podlog_bind_secondary_log_access_func(sw1, eeprom_read<1>, eeprom_write<1>);
}

// The messages of a card's log as the reading calls give them: "history: text|text|; ...", newest
// history first.
std::string read_card(const char *card)
{
    std::vector<int> histories;
    time_t ts = -1;
    for (int h = podlog_open_dir(card); h >= 0; h = podlog_read_dir(h, &ts)) {
        histories.push_back(h);
        EXPECT_LT(histories.size(), 20u);
    }
    podlog_close_dir(card);
    std::string all;
    for (int h : histories) {
        all += std::to_string(h) + ": ";
        int offset = podlog_open_log(card, h);
        while (offset > 0) {
            char message[65] = "";
            offset = podlog_read_log(offset, &ts, message, 64);
            EXPECT_NE(offset, -1);
            EXPECT_NEAR(static_cast<double>(ts), static_cast<double>(time(nullptr)), 100);
            all += std::string(message) + "|";
        }
        EXPECT_EQ(podlog_close_log(card, h), 1);
        all += "; ";
    }
    return all;
}

//--- the registry ---------------------------------------------------------------------------------

TEST(pod_registry, starts_with_a_row_for_every_card)
{
    EXPECT_EQ(registry(0, 60),
              "0 RPSW1=20:N0/--1 1 RPSW2=21:N0/--1 2 ALSW1=22:F0/E0 3 ALSW2=23:F1/E1 "
              "4 SW1=24:F2/E2 5 SW2=25:F3/E3 6 SW3=26:F4/E4 7 SW4=27:F5/E5 8 FT1=28:F6/--1 "
              "9 FT2=29:F7/--1 10 PEM1=30:F8/--1 11 PEM2=31:F9/--1 12 PEM3=32:F10/--1 "
              "13 PEM4=33:F11/--1 14 PEM5=34:F12/--1 15 PEM6=35:F13/--1 16 PEM7=36:F14/--1 "
              "17 PEM8=37:F15/--1 18 FT3=38:F16/--1 19 FT4=39:F17/--1 20 FT5=40:F18/--1 "
              "21 FT6=41:F19/--1 ");
    int id = 0;
    EXPECT_EQ(podlog_find_pod_instance(text("PEM8"), &id), 1);
    EXPECT_EQ(id, 37);
    for (const char *unknown : {"pem8", "PEM", "PEM88", ""})
        EXPECT_EQ(podlog_find_pod_instance(text(unknown), &id), 0) << unknown;
    EXPECT_EQ(podlog_find_pod_instance(nullptr, &id), 0);
    EXPECT_EQ(id, 37) << "outputs are left alone";
    EXPECT_EQ(lc2_pod_log_again, 0);
}

// Rows of a built registry by name, since many ids are -1.
std::string built_row(const char *name)
{
    int id;
    return podlog_find_pod_instance(text(name), &id) == 1
               ? std::string(name) + "=" + std::to_string(id) + " "
               : std::string();
}

TEST(pod_registry, is_built_for_each_chassis)
{
    struct {
        int chassis;
        std::string names; // rows with the ids of their slots
        std::string rows;  // those that can be told by their id
        int num_mapped;
    } cases[] = {
        {ChassisType_N20,
         "RPSW1=-1 RPSW2=-1 ALSW1=-1 ALSW2=-1 SW1=4 SW2=-1 SW3=-1 SW4=-1 FT1=5 FT2=-1 PM1=6 "
         "PM2=7 PM3=-1 PM4=-1 PM5=-1 PM6=-1 PM7=-1 PM8=-1 ",
         "4 SW1=4:F2/E2 8 FT1=5:F6/--1 10 PM1=6:F8/--1 11 PM2=7:F9/--1 ", 8},
        {ChassisType_N10,
         "RPSW1=-1 RPSW2=-1 ALSW1=-1 ALSW2=-1 FT1=6 FT2=7 PM1=8 PM2=9 PM3=10 PM4=11 PM5=-1 "
         "PM6=-1 ",
         "4 FT1=6:F6/--1 5 FT2=7:F7/--1 6 PM1=8:F8/--1 7 PM2=9:F9/--1 8 PM3=10:F10/--1 "
         "9 PM4=11:F11/--1 ",
         4},
        {ChassisType_N4,
         "RPSW1=-1 RPSW2=-1 ALSW1=-1 ALSW2=-1 FT1=6 FT2=7 PM1=8 PM2=9 PM3=10 FT3=-1 FT4=-1 "
         "FT5=-1 FT6=-1 ",
         "4 FT1=6:F6/--1 5 FT2=7:F7/--1 6 PM1=8:F8/--1 7 PM2=9:F9/--1 8 PM3=10:F10/--1 ", 4},
    };
    const char *const every_name[] = {
        "RPSW1", "RPSW2", "ALSW1", "ALSW2", "SW1", "SW2", "SW3", "SW4", "FT1", "FT2", "PM1", "PM2",
        "PM3",   "PM4",   "PM5",   "PM6",   "PM7", "PM8", "FT3", "FT4", "FT5", "FT6", "PEM1"};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.chassis);
        podlog_config_pod_storage_n20_n10(c.chassis, 0);
        std::string names;
        for (const char *name : every_name)
            names += built_row(name);
        EXPECT_EQ(names, c.names);
        EXPECT_EQ(registry(0, 60), c.rows);
        EXPECT_EQ(registry_row(-1), "0 RPSW1=-1:N0/--1 ");
        pod_nvram_inst_map_t map;
        podlog_nvram_get_inst_mapping(0, &map);
        EXPECT_EQ(map.num_inst, c.num_mapped);
        for (int i = 0; i < map.num_inst; ++i) {
            EXPECT_STREQ(map.name0[i], every_name[i]);
            EXPECT_EQ(map.index0[i], c.chassis == ChassisType_N20 && i == 4 ? 4 : -1);
            EXPECT_EQ(map.index1[i], -1);
        }
    }
    EXPECT_EQ(GetChassisType(), ChassisType_2nd_Stack) << "N4 leaves it as N10 set it";
    podlog_config_pod_storage_n20_n10(ChassisType_N10, 1);
    EXPECT_EQ(registry_row(-1), "0 RPSW1=-1:F16/--1 ") << "its mate is the local one";
}

TEST(pod_registry, refuses_an_unknown_chassis_and_keeps_the_rest_of_the_name_fields)
{
    captured_output output;
    configure({row("0123456789kept", 1, PODSTORAGE_FILE, 3)});
    SetChassisType(ChassisType_1st_Stack);
    for (int type : {3, -1}) {
        podlog_config_pod_storage_n20_n10(type, 0);
        EXPECT_EQ(output.take_stdout(),
                  "podlog_config_pod_storage_n20_n10: Incorrect chassis type " +
                      std::to_string(type) + "\n");
    }
    EXPECT_EQ(registry_row(1), "0 0123456789kept=1:F3/--1 ");
    EXPECT_EQ(GetChassisType(), ChassisType_1st_Stack);
    podlog_config_pod_storage_n20_n10(ChassisType_N10, 0);
    char *name;
    ASSERT_EQ(podlog_get_pod_instance_name(-1, &name), 1);
    EXPECT_EQ(std::string(name, 14), std::string("RPSW1\0\0\0\0\0kept", 14));
    EXPECT_EQ(output.take_stdout() + output.take_stderr(), "");
}

TEST(pod_registry, copes_with_any_table)
{
    pod_storage_info_t info = {};
    for (storage_info_t &one : info.dev)
        one = row("X", 5, PODSTORAGE_FILE, 0);
    info.dev[0] = row("FIRST", 5, PODSTORAGE_EEPROM, 1);
    std::memset(info.dev[1].inst_name, 'x', sizeof info.dev[1].inst_name);
    for (int count : {0, -3}) {
        info.num_storage = count;
        podlog_config_pod_storage_info(&info);
        EXPECT_EQ(registry_row(5), "");
        EXPECT_EQ(podlog_chk_storage_integrity(), 1);
    }
    info.num_storage = 1 << 30;
    podlog_config_pod_storage_info(&info);
    podlog_config_pod_storage_info(nullptr);
    std::memset(&info, 0, sizeof info);
    EXPECT_EQ(registry_row(5), "0 FIRST=5:E1/--1 ") << "copied; the first of equal ids counts";
    EXPECT_EQ(registry_row(6), "");
    int id = -1;
    EXPECT_EQ(podlog_find_pod_instance(std::string(40, 'x').data(), &id), 0) << "not a name";
    EXPECT_EQ(podlog_find_pod_instance(std::string(60, 'x').data(), &id), 0);
}

//--- the run --------------------------------------------------------------------------------------

TEST(pod_run, belongs_to_one_instance_at_a_time)
{
    captured_output output;
    EXPECT_EQ(podlog_get_active_inst_id(), -1);
    podlog_clr_curr_active_inst(3, 1);
    EXPECT_EQ(podlog_set_curr_active_inst(3, 1), 0);
    EXPECT_EQ(podlog_get_active_inst_id(), -1) << "asking does not claim";
    EXPECT_EQ(podlog_set_curr_active_inst(3, 0), 0);
    EXPECT_EQ(podlog_set_curr_active_inst(3, 0), 0);
    EXPECT_EQ(podlog_set_curr_active_inst(4, 1), 0);
    EXPECT_EQ(output.take_stderr(), "");
    EXPECT_EQ(podlog_set_curr_active_inst(4, 0), 1);
    EXPECT_EQ(output.take_stderr(), "ERROR: podlog_set_curr_active_inst: POD currently running "
                                    "for 3 and  cannot run card 4!\n");
    EXPECT_EQ(podlog_get_active_inst_id(), 3);
    podlog_clr_curr_active_inst(99, 0);
    EXPECT_EQ(podlog_get_active_inst_id(), -1);
    EXPECT_EQ(podlog_set_curr_active_inst(4, 0), 0);
    EXPECT_EQ(output.take_stdout(), "");
}

//--- dispatch -------------------------------------------------------------------------------------

TEST(pod_front_end, reports_unknown_instances_by_the_name_of_the_call)
{
    captured_output output;
    configure_one_of_each();
    time_t ts;
    uint8_t byte = 0;
    char c;
    int injected;
    const auto nothing = [](uint32_t, uint8_t *, uint32_t) { return 0; };
    const struct {
        const char *name;
        int result;
        int id;
    } cases[] = {
        {"podlog_init", podlog_init(77, 0), 77},
        {"podlog_add", podlog_add(77, nullptr, nullptr, nullptr, "x"), 77},
        {"podlog_use_nxt_log", podlog_use_nxt_log(77), 77},
        {"podlog_cpy_curr_subblock_to_secondary", podlog_cpy_curr_subblock_to_secondary(77), 77},
        {"podlog_bind_secondary_log_access_func",
         podlog_bind_secondary_log_access_func(77, nothing, nothing), 77},
        {"podlog_unbind_secondary_log_access_func", podlog_unbind_secondary_log_access_func(77),
         77},
        {"podlog_select_primary_secondary_storage", podlog_select_primary_secondary_storage(77, 0),
         77},
        {"podlog_open_dir", podlog_open_dir("PM4"), 11},
        {"podlog_open_dir", podlog_open_dir("RPSW1"), -1},
        {"podlog_read_dir", podlog_read_dir(0, &ts), -1},
        {"podlog_close_dir", podlog_close_dir("PM4"), 11},
        {"podlog_open_log", podlog_open_log("PM4", 0), 11},
        {"podlog_read_log", podlog_read_log(1, &ts, &c, 1), -1},
        {"podlog_read_raw_log", podlog_read_raw_log(1, &byte), -1},
        {"podlog_close_log", podlog_close_log("PM4", 0), 11},
        {"podlog_clr_all_faultinject", podlog_clr_all_faultinject(77), 77},
    };
    std::string expected;
    for (const auto &call : cases) {
        EXPECT_EQ(call.result, -1) << call.name;
        expected += std::string("ERROR: ") + call.name + ": invalid instance id " +
                    std::to_string(call.id) + "!\n";
    }
    EXPECT_EQ(output.take_stderr(), expected);
    podlog_close(77);
    EXPECT_EQ(output.take_stderr(), "ERROR: podlog_close: invalid instance id 77!\n");

    const struct {
        const char *name;
        uint32_t result;
    } status_calls[] = {
        {"podlog_invalidate_pod_status", static_cast<uint32_t>(podlog_invalidate_pod_status(77))},
        {"podlog_get_pod_status", podlog_get_pod_status(77)},
        {"podlog_set_pod_status", static_cast<uint32_t>(podlog_set_pod_status(77, 0))},
        {"podlog_get_faultinject_pos", static_cast<uint32_t>(podlog_get_faultinject_pos(77))},
        {"podlog_is_faultinject", static_cast<uint32_t>(podlog_is_faultinject(77, &injected))},
        {"podlog_faultinject_pod_status",
         static_cast<uint32_t>(podlog_faultinject_pod_status(77, 0))},
    };
    expected.clear();
    for (const auto &call : status_calls) {
        EXPECT_EQ(call.result, 0xFFFFFFFFu) << call.name;
        expected += std::string("ERROR: nvram_get_podstatus_inst_info: invalid inst id 77!\n ") +
                    "ERROR: " + call.name + ": invalid instance id 77!\n";
    }
    EXPECT_EQ(output.take_stderr(), expected);
    EXPECT_EQ(output.take_stdout(), "");
}

TEST(pod_front_end, a_storage_type_that_does_not_exist_fails_where_it_must_and_only_there)
{
    captured_output output;
    configure_one_of_each();
    time_t ts;
    uint8_t byte = 0;
    char c;
    EXPECT_EQ(podlog_init(pm1, 0), -1);
    EXPECT_EQ(output.take_stderr(),
              "ERROR: podlog_init: failed to initialize primary storage for instance id 8!\n");
    EXPECT_EQ(podlog_add(pm1, nullptr, nullptr, nullptr, "x"), 1);
    EXPECT_EQ(podlog_use_nxt_log(pm1), -1);
    podlog_close(pm1);
    EXPECT_EQ(podlog_open_dir("PM1"), -1);
    EXPECT_EQ(podlog_read_dir(0, &ts), -1);
    EXPECT_EQ(podlog_close_dir("PM1"), -1);
    EXPECT_EQ(podlog_open_log("PM1", 0), -1);
    EXPECT_EQ(podlog_read_log(1, &ts, &c, 1), -1);
    EXPECT_EQ(podlog_read_raw_log(1, &byte), -1);
    EXPECT_EQ(podlog_close_log("PM1", 0), 1);
    EXPECT_EQ(output.take_stderr() + output.take_stdout(), "");
    EXPECT_EQ(podlog_clr_all_faultinject(pm1), -1);
    EXPECT_EQ(output.take_stderr(),
              "ERROR: podlog_clr_all_faultinject: not suppored for instance 8!\n");
}

TEST(pod_front_end, formatted_arguments_arrive_in_every_storage)
{
    start_chassis();
    const auto before = open_descriptors();
    struct {
        int id;
        const char *card;
    } storages[] = {{rp1, "RP1"}, {sw1, "SW1"}, {ft1, "FT1"}};
    for (const auto &storage : storages) {
        SCOPED_TRACE(storage.card);
        ASSERT_EQ(podlog_init(storage.id, 0), 1);
        EXPECT_EQ(podlog_add(storage.id, text("INFO: "), text("test"), "PASS", "%d %s %llx %% %c",
                             -7, "text", 0x123456789abcdefull, 'z'),
                  1);
        EXPECT_EQ(podlog_use_nxt_log(storage.id), 1);
        EXPECT_EQ(podlog_add(storage.id, nullptr, nullptr, nullptr, "next"), 1);
        podlog_close(storage.id);
        EXPECT_EQ(read_card(storage.card),
                  "1: next|; 0: INFO: test  PASS  -7 text 123456789abcdef % z|; ");
    }
    EXPECT_EQ(open_descriptors(), before);
}

TEST(pod_front_end, a_full_history_still_adds)
{
    start_chassis();
    ASSERT_EQ(podlog_init(ft1, 0), 1);
    for (int i = 0; i < 60; ++i)
        EXPECT_EQ(podlog_add(ft1, nullptr, nullptr, nullptr, "%d", i), 1);
    EXPECT_NE(read_card("FT1").find("59|"), std::string::npos);
    eeprom[0].writes_left = 0;
    EXPECT_EQ(podlog_add(ft1, nullptr, nullptr, nullptr, "x"), -1);
}

TEST(pod_front_end, prepares_every_storage_that_can_be_opened)
{
    start_chassis();
    captured_output output;
    EXPECT_EQ(podlog_chk_storage_integrity(), -1);
    const std::string errors = output.take_stderr();
    EXPECT_NE(errors.find("ERROR: podlog_chk_storage_integrity: failed to open device for "
                          "instance 8!\n"),
              std::string::npos)
        << errors;
    EXPECT_TRUE(fs::exists("/var/pod/pod_sw1.hex"));
    EXPECT_NE(eeprom[0].bytes.find("\x63\xc3\xe2\x1f"), std::string::npos) << "formatted";
    configure({row("SW1", sw1, PODSTORAGE_FILE, 2, 2), row("FT1", ft1, PODSTORAGE_EEPROM, 0)});
    EXPECT_EQ(podlog_chk_storage_integrity(), 1);
    EXPECT_EQ(output.take_stderr(), "");
}

//--- secondary storage ----------------------------------------------------------------------------

TEST(pod_secondary, is_told_apart_from_none_and_from_unknown_kinds)
{
    captured_output output;
    configure_one_of_each();
    EXPECT_EQ(podlog_select_primary_secondary_storage(rp1, 0), -1);
    EXPECT_EQ(podlog_unbind_secondary_log_access_func(rp1), -1);
    EXPECT_EQ(podlog_bind_secondary_log_access_func(rp1, nullptr, nullptr), -1);
    EXPECT_EQ(output.take_stderr(),
              "ERROR: podlog_select_primary_secondary_storage: No secondary storage for instance "
              "2!\n"
              "ERROR: podlog_unbind_secondary_log_access_func: No secondary storage for instance "
              "2!\n"
              "ERROR: podlog_bind_secondary_log_access_func: No secondary storage for instance "
              "2!\n");
    EXPECT_EQ(podlog_cpy_curr_subblock_to_secondary(rp1), 1);

    // Switched to a secondary storage that a new registry no longer has.
    EXPECT_EQ(podlog_select_primary_secondary_storage(sw1, 0), 1);
    configure({row("PM1", pm1, unknown_type, 0), row("RP1", rp1, PODSTORAGE_NVRAM, 0),
               row("SW1", sw1, PODSTORAGE_FILE, 2)});
    EXPECT_EQ(podlog_init(sw1, 0), 1);
    EXPECT_EQ(podlog_use_nxt_log(sw1), -1);
    podlog_close(sw1);
    EXPECT_EQ(output.take_stderr(), "");
    EXPECT_EQ(podlog_add(sw1, nullptr, nullptr, nullptr, "x"), 1);
    EXPECT_EQ(output.take_stderr(), "ERROR(podlog_add): No secondary storage for instance id 4!\n");
    EXPECT_EQ(output.take_stdout(), "");
}

TEST(pod_secondary, takes_the_calls_of_an_instance_switched_to_it)
{
    start_chassis();
    ASSERT_EQ(podlog_select_primary_secondary_storage(sw1, 0), 1);
    ASSERT_EQ(podlog_init(sw1, 0), 1);
    EXPECT_EQ(podlog_add(sw1, nullptr, nullptr, nullptr, "to the EEPROM"), 1);
    EXPECT_EQ(podlog_use_nxt_log(sw1), 1);
    podlog_close(sw1);
    EXPECT_NE(eeprom[1].bytes.find("to the EEPROM"), std::string::npos);
    EXPECT_FALSE(fs::exists("/var/pod/pod_sw1.hex"));

    captured_output output;
    ASSERT_EQ(podlog_unbind_secondary_log_access_func(sw1), 1);
    EXPECT_EQ(podlog_init(sw1, 0), -1);
    const std::string errors = output.take_stderr();
    EXPECT_NE(errors.find("ERROR: podlog_init: failed to initialize secondary storage (EEPROM) "
                          "for instance 4!\n"),
              std::string::npos)
        << errors;
    // The primary storage is closed then, though it was not opened: the NVRAM says so.
    ASSERT_EQ(podlog_select_primary_secondary_storage(pm2, 0), 1);
    EXPECT_EQ(podlog_init(pm2, 0), -1);
    EXPECT_NE(output.take_stdout().find("already closed previously! \n"), std::string::npos);
}

// Tells whether SW1's calls go to the EEPROM, by where an entry ends up.
bool switched_to_secondary()
{
    const std::string before = eeprom[1].bytes;
    EXPECT_EQ(podlog_init(sw1, 0), 1);
    podlog_add(sw1, nullptr, nullptr, nullptr, "probe");
    podlog_close(sw1);
    return eeprom[1].bytes != before;
}

class pod_copy : public testing::Test
{
protected:
    void SetUp() override { start_chassis(); }

    // A run in SW1's file.
    static void run(std::initializer_list<const char *> entries)
    {
        ASSERT_EQ(podlog_init(sw1, 0), 1);
        for (const char *entry : entries)
            EXPECT_EQ(podlog_add(sw1, nullptr, nullptr, nullptr, "%s", entry), 1);
        podlog_close(sw1);
    }

    // SW1's EEPROM, read as the primary storage of another card.
    static std::string read_secondary()
    {
        configure({row("FT2", 7, PODSTORAGE_EEPROM, 2)});
        const std::string all = read_card("FT2");
        configure_one_of_each();
        return all;
    }

    // Number of the EEPROM's current history.
    static int secondary_history() { return eeprom[1].bytes[36]; }
};

TEST_F(pod_copy, takes_the_newest_history_entry_by_entry_and_starts_the_next)
{
    run({"old"});
    ASSERT_EQ(podlog_init(sw1, 0), 1);
    podlog_use_nxt_log(sw1);
    podlog_close(sw1);
    run({"one", "two", "three"});
    const auto before = open_descriptors();
    captured_output output;
    EXPECT_EQ(podlog_cpy_curr_subblock_to_secondary(sw1), 1);
    EXPECT_EQ(output.take_stdout() + output.take_stderr(), "");
    EXPECT_EQ(open_descriptors(), before + 4) << "the capture's own";
    EXPECT_EQ(read_secondary(), "0: one|two|three|; ");
    EXPECT_EQ(secondary_history(), 1);
    EXPECT_FALSE(switched_to_secondary());
}

TEST_F(pod_copy, of_an_empty_log_says_so_and_still_starts_the_next_history)
{
    run({});
    captured_output output;
    EXPECT_EQ(podlog_cpy_curr_subblock_to_secondary(sw1), 1);
    EXPECT_EQ(output.take_stdout(), "No log!\n");
    EXPECT_EQ(output.take_stderr(), "ERROR: pod_file_mem_rd: cannot read or reach eof!! "
                                    "range=0xfffff366-0xfffff379\n")
        << "the history -2 is asked for";
    EXPECT_EQ(secondary_history(), 1);
    EXPECT_FALSE(switched_to_secondary());
}

TEST_F(pod_copy, that_cannot_open_the_secondary_leaves_the_instance_switched_to_it)
{
    run({"one"});
    eeprom[1].writes_left = 0;
    podlog_unbind_eeprom_access_func(2);
    captured_output output;
    EXPECT_EQ(podlog_cpy_curr_subblock_to_secondary(sw1), -1);
    const std::string errors = output.take_stderr();
    EXPECT_NE(errors.find("ERROR: podlog_cpy_curr_subblock_to_secondary: failed to open device "
                          "for instance 4!\n"),
              std::string::npos)
        << errors;
    eeprom[1].writes_left = 100000;
    podlog_bind_eeprom_access_func(2, eeprom_read<1>, eeprom_write<1>);
    EXPECT_TRUE(switched_to_secondary());
}

TEST_F(pod_copy, that_cannot_open_the_primary_ends_switched_to_it)
{
    run({"one"});
    fs::remove("/var/pod/pod_sw1.hex");
    captured_output output;
    EXPECT_EQ(podlog_cpy_curr_subblock_to_secondary(sw1), -1);
    EXPECT_EQ(output.take_stderr(), "ERROR: file /var/pod/pod_sw1.hex does not exist!\n"
                                    "ERROR: failed when opening the storage device!\n");
    EXPECT_EQ(secondary_history(), 0);
    EXPECT_FALSE(switched_to_secondary());
}

TEST_F(pod_copy, that_fails_half_way_still_tries_to_start_the_next_history)
{
    run({"one", "two"});
    podlog_select_primary_secondary_storage(sw1, 0);
    ASSERT_EQ(podlog_init(sw1, 0), 1); // formatted, so that the copy only appends
    podlog_select_primary_secondary_storage(sw1, 1);
    eeprom[1].writes_left = 2; // one entry and its header
    captured_output output;
    EXPECT_EQ(podlog_cpy_curr_subblock_to_secondary(sw1), -1);
    EXPECT_EQ(output.take_stderr(),
              "ERROR: podlog_cpy_curr_subblock_to_secondary: faild to write 1th log to the "
              "secondary storage!\n"
              "ERROR: podlog_cpy_curr_subblock_to_secondary: faild to increment to next history "
              "for secondary storage!\n");
    eeprom[1].writes_left = 100000;
    EXPECT_EQ(read_secondary(), "0: one|; ");
    EXPECT_FALSE(switched_to_secondary());
}

TEST_F(pod_copy, does_not_work_from_nvram)
{
    ASSERT_EQ(podlog_bind_secondary_log_access_func(pm2, eeprom_read<1>, eeprom_write<1>), 1);
    ASSERT_EQ(podlog_init(pm2, 0), 1);
    podlog_add(pm2, nullptr, nullptr, nullptr, "in NVRAM");
    podlog_close(pm2);
    captured_output output;
    EXPECT_EQ(podlog_cpy_curr_subblock_to_secondary(pm2), -1);
    EXPECT_EQ(output.take_stderr(),
              "ERROR: podlog_read_raw_log: read raw log not support for NVRAM!\n");
    EXPECT_EQ(eeprom[1].bytes[44 + 8], 0) << "nothing was appended";
    EXPECT_EQ(secondary_history(), 1);
}

TEST_F(pod_copy, takes_no_entry_that_cannot_be_read)
{
    run({"good", "bad", "never"});
    // The second entry states an empty message, which cannot be read; its checksum is right.
    std::fstream file("/var/pod/pod_sw1.hex", std::ios::in | std::ios::out | std::ios::binary);
    char header[16];
    const auto second = 44 + 20 + 80;
    file.seekg(second).read(header, sizeof header);
    std::memset(header + 8, 0, 8);
    const uint32_t checksum = crc32_cksum(header, sizeof header);
    std::memcpy(header + 8, &checksum, sizeof checksum);
    file.seekp(second).write(header, sizeof header);
    file.close();
    captured_output output;
    EXPECT_EQ(podlog_cpy_curr_subblock_to_secondary(sw1), -1);
    EXPECT_EQ(read_secondary(), "0: good|; ");
    EXPECT_EQ(secondary_history(), 1);
}

//--- POD status and fault injection ---------------------------------------------------------------

TEST(pod_status, is_kept_by_instance_and_by_slot)
{
    start_chassis();
    pod_nvram_inst_map_t map = {};
    map.num_inst = 2;
    map.index0[0] = sw1;
    map.index0[1] = 200; // no slot
    map.index1[0] = map.index1[1] = -1;
    podlog_nvram_config_inst_mapping(0, &map);
    const auto before = open_descriptors();
    captured_output output;
    int injected = 7;
    EXPECT_EQ(podlog_is_faultinject_cc(sw1, &injected), 1) << "opened for writing, so formatted";
    ASSERT_EQ(podlog_init(rp1, 0), 1);
    output.take_stdout();
    output.take_stderr();
    EXPECT_EQ(podlog_get_pod_status(sw1), 0x80000000u);
    EXPECT_EQ(podlog_set_pod_status(sw1, 0), 1);
    EXPECT_EQ(podlog_get_pod_status(sw1), 0u);
    EXPECT_EQ(podlog_set_pod_status(sw1, 0x7FFFFFFF), 1);
    EXPECT_EQ(podlog_get_pod_status(sw1), 0x0FFFFFFFu);
    EXPECT_EQ(podlog_get_faultinject_pos(sw1), 16344);
    injected = 7;
    EXPECT_EQ(podlog_faultinject_pod_status(sw1, 0), 1);
    EXPECT_EQ(podlog_is_faultinject(sw1, &injected), 1);
    EXPECT_EQ(injected, 0) << "never reported";
    EXPECT_EQ(podlog_clr_all_faultinject(rp1), 1);

    const std::string busy = "ERROR: podlog_nvram_init: nvram 0 current device is currently "
                             "opened already!\n";
    EXPECT_EQ(podlog_get_pod_status_cc(sw1), 0x80000000u);
    EXPECT_EQ(podlog_is_faultinject_cc(sw1, &injected), -1);
    EXPECT_EQ(output.take_stderr(),
              busy + "ERROR: podlog_get_pod_status_cc: cannot open POD Status stroage NVRAM 0!\n" +
                  busy);
    podlog_close(rp1);
    EXPECT_EQ(podlog_get_pod_status_cc(sw1), 0x0FFFFFFFu);
    injected = 7;
    EXPECT_EQ(podlog_is_faultinject_cc(sw1, &injected), 1);
    EXPECT_EQ(injected, 0);
    EXPECT_EQ(output.take_stderr(), "");

    EXPECT_EQ(podlog_get_pod_status_cc(200), 0x80000000u);
    EXPECT_EQ(podlog_is_faultinject_cc(200, &injected), -1);
    EXPECT_EQ(podlog_is_faultinject_cc(sw1, nullptr), -1);
    EXPECT_EQ(output.take_stderr(), "ERROR: podlog_get_pod_status_cc: invalid slot id -1!\n");
    EXPECT_EQ(podlog_get_pod_status_cc(ft1), 0x80000000u);
    EXPECT_EQ(podlog_is_faultinject_cc(ft1, &injected), -1);
    const std::string unmapped = "ERROR: nvram_get_podstatus_inst_info: invalid inst id 6!\n ";
    EXPECT_EQ(output.take_stderr(),
              unmapped + "ERROR: podlog_get_pod_status_cc: slot 6 not matched for pod status!\n" +
                  unmapped + "ERROR: podlog_is_faultinject_cc: invalid instance id 6!\n");
    EXPECT_EQ(open_descriptors(), before + 4) << "the capture's own";
}

} // namespace

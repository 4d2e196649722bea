// The registry and the front end of the POD log, over the real storages in a simulated chassis; and
// the checksum that all logs share.
#include "support/log_text.h"
#include "support/pod_log.h"

#include <device_access/pod_log.h>
#include <device_access/pod_log_crc_tmp.h>
#include <device_access/slot_names.h>

#include <filesystem>

namespace
{

using namespace test;
namespace fs = std::filesystem;

uint32_t digest(const std::string &text)
{
    return crc32_cksum(text.data(), text.size());
}

//--- the checksum ---------------------------------------------------------------------------------

TEST(pod_crc, is_that_of_posix_cksum)
{
    EXPECT_EQ(crc32_cksum("123456789", 9), 0x377A6011u); // the standard's check value
    EXPECT_EQ(crc32_cksum(nullptr, 0), 0xFFFFFFFFu);
    std::string bytes;
    for (size_t length : {1u, 255u, 256u, 257u, 65535u, 65536u}) { // as many length bytes as needed
        while (bytes.size() < length)
            bytes += static_cast<char>(bytes.size() * 7 + 1);
        EXPECT_EQ(digest(bytes), chassis_sim::cksum(bytes)) << length;
    }
    EXPECT_EQ(crc32_posix(crc32_posix(0, "1234", 4), "56789", 5), crc32_posix(0, "123456789", 9));
    EXPECT_EQ(crc32_posix(0, "\x01", 1), 0x04C11DB7u) << "not inverted";
    EXPECT_EQ(crc32_posix(0x1234, nullptr, 0), 0x1234u);
}

//--- the registry ---------------------------------------------------------------------------------

// A row that is found by its id: "row name=id:type device/second device ".
std::string registry_row(int inst_id)
{
    char *name;
    pod_storage_type_t type;
    pod_secondary_storage_type_t second;
    int device, second_device, row;
    if (podlog_get_pod_instance_name(inst_id, &name) != 1 ||
        podlog_get_pod_storage_info(inst_id, &type, &device, &second, &second_device, &row) != 1)
        return podlog_get_pod_secondary_storage_info(inst_id, &second, &second_device, &row) == 0
                   ? ""
                   : "half a row";
    return printed("%d %s=%d:%c%d/%c%d ", row, name, inst_id, "NFE"[type], device, "-E"[second],
                   second_device);
}

// All that a registry has: the ids by names, the rows by ids, and which cards have status words.
std::string registry()
{
    std::string text;
    for (const char *kind : {"RPSW", "ALSW", "SW", "FT", "PM", "PEM"})
        for (int number = 1; number <= 9; ++number) {
            std::string name = kind + std::to_string(number);
            int id;
            if (podlog_find_pod_instance(name.data(), &id) == 1)
                text += printed("%s=%d ", name.c_str(), id);
        }
    for (int id = -1; id < 60; ++id)
        text += registry_row(id);
    return text + output_of([] { nvram_dump_podstatus_inst_mapping(0); }).out;
}

constexpr pod_secondary_storage_type_t none = POD2NDSTORAGE_NONE;
constexpr pod_secondary_storage_type_t eeprom = POD2NDSTORAGE_EEPROM;

void configure(const std::vector<storage_info_t> &rows)
{
    pod_storage_info_t info = {};
    info.num_storage = static_cast<int>(rows.size());
    std::copy(rows.begin(), rows.end(), info.dev);
    podlog_config_pod_storage_info(&info);
}

TEST(pod_registry, has_the_rows_of_each_chassis)
{
    EXPECT_EQ(digest(registry()), 2654831139u) << registry();
    char name[] = "pem8";
    int id = 37;
    for (char *unknown : {name, name + 4, static_cast<char *>(nullptr)})
        EXPECT_EQ(podlog_find_pod_instance(unknown, &id), 0);
    EXPECT_EQ(id, 37) << "outputs are left alone";
    EXPECT_EQ(lc2_pod_log_again, 0);
    for (const auto &[chassis, is_rp2, sum] : {std::tuple(ChassisType_N20, 0, 2330510119u),
                                               {ChassisType_N10, 0, 1045372785},
                                               {ChassisType_N10, 1, 3381743317},
                                               {ChassisType_N4, 0, 4234577142}}) {
        podlog_config_pod_storage_n20_n10(chassis, is_rp2);
        EXPECT_EQ(digest(registry()), sum) << registry();
    }
    EXPECT_EQ(GetChassisType(), ChassisType_2nd_Stack) << "N4 leaves it as N10 set it";
    DOES(podlog_open_dir("RPSW1"), -1, "ERROR: podlog_open_dir: invalid instance id -1!\n");
}

TEST(pod_registry, refuses_an_unknown_chassis_and_keeps_the_rest_of_the_name_fields)
{
    configure({{"0123456789kept", 1, PODSTORAGE_FILE, 3, none, -1}});
    SetChassisType(ChassisType_1st_Stack);
    for (int type : {3, -1})
        EXPECT_EQ(output_of([&] { podlog_config_pod_storage_n20_n10(type, 0); }).out,
                  printed("podlog_config_pod_storage_n20_n10: Incorrect chassis type %d\n", type));
    EXPECT_EQ(registry_row(1), "0 0123456789kept=1:F3/--1 ");
    EXPECT_EQ(GetChassisType(), ChassisType_1st_Stack);
    podlog_config_pod_storage_n20_n10(ChassisType_N10, 0);
    char *name;
    ASSERT_EQ(podlog_get_pod_instance_name(-1, &name), 1);
    EXPECT_EQ(std::string(name, 14), std::string("RPSW1\0\0\0\0\0kept", 14));
}

TEST(pod_registry, tells_the_storage_of_cards_that_share_an_id)
{
    podlog_config_pod_storage_n20_n10(ChassisType_N20, 0);
    storage_info_t sw3 = {};
    ASSERT_EQ(podlog_find_pod_storage("SW3", &sw3), 1);
    EXPECT_EQ(printed("%s=%d:%d/%d/%d", sw3.inst_name, sw3.inst_id, sw3.type, sw3.storage_inst_id,
                      sw3.secondary_storage_inst_id),
              "SW3=-1:1/4/4");
    for (const char *unknown : {"SW5", "sw3", "", static_cast<const char *>(nullptr)})
        EXPECT_EQ(podlog_find_pod_storage(unknown, &sw3), 0);
    EXPECT_EQ(podlog_find_pod_storage("SW3", nullptr), 0);
    EXPECT_STREQ(sw3.inst_name, "SW3") << "outputs are left alone";

    pod_storage_info_t table;
    podlog_get_pod_storage_table(nullptr);
    podlog_get_pod_storage_table(&table);
    EXPECT_EQ(table.num_storage, 18);
    EXPECT_STREQ(table.dev[17].inst_name, "PM8");
}

TEST(pod_registry, copes_with_any_table)
{
    pod_storage_info_t info = {};
    std::fill(std::begin(info.dev), std::end(info.dev),
              storage_info_t{"X", 5, PODSTORAGE_FILE, 0, none, -1});
    info.dev[0] = {"FIRST", 5, PODSTORAGE_EEPROM, 1, none, -1};
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
    pod_storage_info_t table;
    podlog_get_pod_storage_table(&table);
    EXPECT_EQ(table.num_storage, POD_MAX_STORAGE);
    std::memset(&info, 0, sizeof info);
    EXPECT_EQ(registry_row(5), "0 FIRST=5:E1/--1 ") << "copied; the first of equal ids counts";
    int id;
    for (size_t length : {40u, 60u}) // not a name
        EXPECT_EQ(podlog_find_pod_instance(std::string(length, 'x').data(), &id), 0);
}

TEST(pod_run, belongs_to_one_instance_at_a_time)
{
    EXPECT_EQ(podlog_get_active_inst_id(), -1);
    podlog_clr_curr_active_inst(3, 1);
    DOES(podlog_set_curr_active_inst(3, 1), 0);
    EXPECT_EQ(podlog_get_active_inst_id(), -1) << "asking does not claim";
    DOES(podlog_set_curr_active_inst(3, 0), 0);
    DOES(podlog_set_curr_active_inst(3, 0), 0);
    DOES(podlog_set_curr_active_inst(4, 1), 0);
    DOES(
        podlog_set_curr_active_inst(4, 0), 1,
        "ERROR: podlog_set_curr_active_inst: POD currently running for 3 and  cannot run card 4!\n");
    EXPECT_EQ(podlog_get_active_inst_id(), 3);
    podlog_clr_curr_active_inst(99, 0);
    EXPECT_EQ(podlog_get_active_inst_id(), -1);
    DOES(podlog_set_curr_active_inst(4, 0), 0);
}

//--- dispatch -------------------------------------------------------------------------------------

// Slot names that the large chassis knows, one for each kind of storage.
constexpr int rp1 = 2; // NVRAM 0
constexpr int sw1 = 4; // file 2, secondary EEPROM 2
constexpr int ft1 = 6; // EEPROM 0, secondary EEPROM 2
constexpr int pm1 = 8; // a type that does not exist, secondary EEPROM 3
constexpr int pm2 = 9; // NVRAM 0 too, secondary EEPROM 3
void configure_one_of_each()
{
    configure({{"PM1", pm1, static_cast<pod_storage_type_t>(7), 0, eeprom, 3},
               {"RP1", rp1, PODSTORAGE_NVRAM, 0, none, -1},
               {"SW1", sw1, PODSTORAGE_FILE, 2, eeprom, 2},
               {"FT1", ft1, PODSTORAGE_EEPROM, 0, eeprom, 2},
               {"PM2", pm2, PODSTORAGE_NVRAM, 0, eeprom, 3}});
}

const std::string sw1_path = "/var/pod/pod_sw1.hex";
const std::string blank(16384, '\0');

void start_chassis()
{
    chassis_sim::enter_private_root();
    chassis_sim::write_file("/dev/nvlog-pod", pod_storages[0].image());
    chassis_sim::write_file(eeprom_path(0), blank);
    chassis_sim::write_file(eeprom_path(2), blank);
    configure_one_of_each();
    bind_eeprom<0>(0);
    podlog_bind_secondary_log_access_func(sw1, eeprom_reader<2>, eeprom_writer<2>);
}

int add(int id, const char *text)
{
    return podlog_add(id, nullptr, nullptr, nullptr, "%s", text);
}

// A card's log, as the front end reads it.
struct front_end_log {
    const char *card;

    int open_dir() const { return podlog_open_dir(card); }
    int read_dir(int history, time_t *time) const { return podlog_read_dir(history, time); }
    void close_dir() const { podlog_close_dir(card); }
    int open_log(int history) const { return podlog_open_log(card, history); }
    int read_log(int position, time_t *time, char *text, uint32_t size) const
    {
        return podlog_read_log(position, time, text, size);
    }
    void close_log(int history) const { podlog_close_log(card, history); }
};

std::string read_card(const char *card)
{
    return log_text(front_end_log{card});
}

TEST(pod_front_end, reports_unknown_instances_by_the_name_of_the_call)
{
    configure_one_of_each();
    time_t ts;
    uint8_t byte = 0;
    char c;
    int injected;
    std::string before;
#define INVALID(function, arguments, id)                                                           \
    DOES(function arguments, -1, before + "ERROR: " #function ": invalid instance id " #id "!\n")
    INVALID(podlog_init, (77, 0), 77);
    INVALID(podlog_add, (77, nullptr, nullptr, nullptr, "x"), 77);
    INVALID(podlog_use_nxt_log, (77), 77);
    INVALID(podlog_cpy_curr_subblock_to_secondary, (77), 77);
    INVALID(podlog_bind_secondary_log_access_func, (77, nullptr, nullptr), 77);
    INVALID(podlog_unbind_secondary_log_access_func, (77), 77);
    INVALID(podlog_select_primary_secondary_storage, (77, 0), 77);
    INVALID(podlog_open_dir, ("PM4"), 11);
    INVALID(podlog_open_dir, ("no card"), -1);
    INVALID(podlog_read_dir, (0, &ts), -1);
    INVALID(podlog_close_dir, ("PM4"), 11);
    INVALID(podlog_open_log, ("PM4", 0), 11);
    INVALID(podlog_read_log, (1, &ts, &c, 1), -1);
    INVALID(podlog_read_raw_log, (1, &byte), -1);
    INVALID(podlog_close_log, ("PM4", 0), 11);
    INVALID(podlog_clr_all_faultinject, (77), 77);
    EXPECT_EQ(output_of([] { podlog_close(77); }).err,
              "ERROR: podlog_close: invalid instance id 77!\n");
    before = "ERROR: nvram_get_podstatus_inst_info: invalid inst id 77!\n ";
    INVALID(podlog_invalidate_pod_status, (77), 77);
    INVALID(podlog_set_pod_status, (77, 0), 77);
    INVALID(podlog_get_faultinject_pos, (77), 77);
    INVALID(podlog_is_faultinject, (77, &injected), 77);
    INVALID(podlog_faultinject_pod_status, (77, 0), 77);
    DOES(podlog_get_pod_status(77), 0xFFFFFFFFu,
         before + "ERROR: podlog_get_pod_status: invalid instance id 77!\n");
#undef INVALID
}

TEST(pod_front_end, a_storage_type_that_does_not_exist_fails_where_it_must_and_only_there)
{
    configure_one_of_each();
    time_t ts;
    uint8_t byte = 0;
    char c;
    DOES(podlog_init(pm1, 0), -1,
         "ERROR: podlog_init: failed to initialize primary storage for instance id 8!\n");
    DOES(add(pm1, "x"), 1);
    podlog_close(pm1);
    DOES(podlog_close_log("PM1", 0), 1);
    DOES(podlog_use_nxt_log(pm1) + podlog_open_dir("PM1") + podlog_read_dir(0, &ts) +
             podlog_close_dir("PM1") + podlog_open_log("PM1", 0) + podlog_read_log(1, &ts, &c, 1) +
             podlog_read_raw_log(1, &byte),
         -7);
    DOES(podlog_clr_all_faultinject(pm1), -1,
         "ERROR: podlog_clr_all_faultinject: not suppored for instance 8!\n");
}

TEST(pod_front_end, prepares_every_storage_and_brings_formatted_arguments_into_it)
{
    start_chassis();
    DOES(podlog_chk_storage_integrity(), -1,
         "ERROR: podlog_init: failed to initialize primary storage for instance id 8!\n"
         "ERROR: podlog_chk_storage_integrity: failed to open device for instance 8!\n");
    EXPECT_TRUE(fs::exists(sw1_path));
    EXPECT_EQ(read_file(eeprom_path(0)).substr(32, 4), words({0x1FE2C363})) << "formatted";
    const long before = open_descriptors();
    for (const auto &[id, card] : {std::pair{rp1, "RP1"}, {sw1, "SW1"}, {ft1, "FT1"}}) {
        ASSERT_EQ(podlog_init(id, 0), 1);
        DOES(podlog_add(id, std::string("INFO: ").data(), std::string("test").data(), "PASS",
                        "%d %s %llx %% %c", -7, "text", 0x123456789abcdefull, 'z'),
             1);
        DOES(podlog_use_nxt_log(id), 1);
        DOES(add(id, "next"), 1);
        podlog_close(id);
        EXPECT_EQ(read_card(card), "1: next, 0: INFO: test  PASS  -7 text 123456789abcdef % z, ");
        EXPECT_EQ(podlog_close_dir(card), 1);
    }
    EXPECT_EQ(open_descriptors(), before);
    for (int i = 0; i < 60; ++i)
        DOES(add(ft1, std::to_string(i).c_str()), 1); // into a full history too
    EXPECT_NE(read_card("FT1").find("|59, "), std::string::npos);
    bytes_left = 0;
    DOES(add(ft1, "x"), -1);
    configure({{"SW1", sw1, PODSTORAGE_FILE, 2, eeprom, 2},
               {"FT1", ft1, PODSTORAGE_EEPROM, 0, none, -1}});
    DOES(podlog_chk_storage_integrity(), 1);
}

//--- secondary storage ----------------------------------------------------------------------------

const std::string no_eeprom =
    "ERROR(pod_eeprom_mem_rd): No binded EEPROM 2 read function!\n"
    "ERROR: podlog_init: failed to initialize secondary storage (EEPROM) for instance 4!\n";

TEST(pod_secondary, is_told_apart_from_none_and_from_unknown_kinds)
{
    start_chassis();
    const auto without = [](const std::string &name) {
        return "ERROR: podlog_" + name + ": No secondary storage for instance 2!\n";
    };
    DOES(podlog_select_primary_secondary_storage(rp1, 0), -1,
         without("select_primary_secondary_storage"));
    DOES(podlog_unbind_secondary_log_access_func(rp1), -1,
         without("unbind_secondary_log_access_func"));
    DOES(podlog_bind_secondary_log_access_func(rp1, nullptr, nullptr), -1,
         without("bind_secondary_log_access_func"));
    DOES(podlog_cpy_curr_subblock_to_secondary(rp1), 1);

    // Switched to a secondary storage that a new registry no longer has.
    DOES(podlog_select_primary_secondary_storage(sw1, 0), 1);
    configure({{"FT1", ft1, PODSTORAGE_FILE, 2, static_cast<pod_secondary_storage_type_t>(7), -1},
               {"RP1", rp1, PODSTORAGE_NVRAM, 0, none, -1},
               {"SW1", sw1, PODSTORAGE_FILE, 2, none, -1}}); // the row that it had
    DOES(podlog_select_primary_secondary_storage(ft1, 0), -1);
    DOES(podlog_init(sw1, 0), 1);
    DOES(podlog_use_nxt_log(sw1), -1);
    podlog_close(sw1);
    DOES(add(sw1, "x"), 1, "ERROR(podlog_add): No secondary storage for instance id 4!\n");
}

TEST(pod_secondary, takes_the_calls_of_an_instance_switched_to_it)
{
    start_chassis();
    DOES(podlog_select_primary_secondary_storage(sw1, 0), 1);
    DOES(podlog_init(sw1, 0), 1);
    DOES(add(sw1, "to the EEPROM"), 1);
    DOES(podlog_use_nxt_log(sw1), 1);
    podlog_close(sw1);
    EXPECT_NE(read_file(eeprom_path(2)).find("to the EEPROM"), std::string::npos);
    EXPECT_FALSE(fs::exists(sw1_path));

    DOES(podlog_unbind_secondary_log_access_func(sw1), 1);
    DOES(podlog_init(sw1, 0), -1, no_eeprom);
    // The primary storage is closed then, though it was not opened: the NVRAM says so.
    DOES(podlog_select_primary_secondary_storage(pm2, 0), 1);
    const outcome seen = outcome_of([] { return podlog_init(pm2, 0); });
    EXPECT_EQ(seen.value, -1);
    EXPECT_NE(seen.out.find("already closed previously! \n"), std::string::npos) << seen;
}

// A run in SW1's file.
void run_sw1(std::initializer_list<const char *> entries)
{
    podlog_init(sw1, 0);
    podlog_use_nxt_log(sw1);
    for (const char *entry : entries)
        add(sw1, entry);
    podlog_close(sw1);
}

TEST(pod_secondary, gets_a_copy_of_the_newest_history)
{
    start_chassis();
    // What the copy has left: the EEPROM's log and current history, and where SW1's calls go.
    const auto left = [] {
        bytes_left = LONG_MAX;
        bind_eeprom<2>(2);
        const std::string image = read_file(eeprom_path(2));
        configure({{"FT2", 7, PODSTORAGE_EEPROM, 2, none, -1}});
        std::string text = read_card("FT2") + std::to_string(image[36]);
        configure_one_of_each();
        podlog_init(sw1, 0);
        add(sw1, "probe");
        podlog_close(sw1);
        text += read_file(eeprom_path(2)) == image ? "" : ", switched";
        podlog_select_primary_secondary_storage(sw1, 1);
        chassis_sim::write_file(eeprom_path(2), pod_storages[2].image());
        return text;
    };
    const std::string copy = "ERROR: podlog_cpy_curr_subblock_to_secondary: ";
    run_sw1({"old"});
    run_sw1({"one", "two", "three"});
    DOES(podlog_cpy_curr_subblock_to_secondary(sw1), 1);
    EXPECT_EQ(left(), "0: one|two|three, 1");

    chassis_sim::write_file(sw1_path, pod_storages[1].image());
    DOES(podlog_cpy_curr_subblock_to_secondary(sw1), 1,
         "ERROR: pod_file_mem_rd: cannot read or reach eof!! range=0xfffff366-0xfffff379\n",
         "No log!\n");
    EXPECT_EQ(left(), "1");

    podlog_unbind_eeprom_access_func(2);
    DOES(podlog_cpy_curr_subblock_to_secondary(sw1), -1,
         no_eeprom + copy + "failed to open device for instance 4!\n");
    EXPECT_EQ(left(), "0, switched");

    fs::remove(sw1_path);
    DOES(podlog_cpy_curr_subblock_to_secondary(sw1), -1,
         "ERROR: file " + sw1_path +
             " does not exist!\nERROR: failed when opening the storage device!\n");
    EXPECT_EQ(left(), "0");

    run_sw1({"one", "two"});
    bytes_left = 100; // one entry and its header
    DOES(podlog_cpy_curr_subblock_to_secondary(sw1), -1,
         copy + "faild to write 1th log to the secondary storage!\n" + copy +
             "faild to increment to next history for secondary storage!\n");
    EXPECT_EQ(left(), "0: one, 0");

    // The second entry says that its message is empty, so it cannot be read.
    std::string image = pod_storages[1].image(0, {{{5, "good"}, {5, "bad"}, {5, "never"}}});
    put(image, pod_storages[1].entry_at(0, 1), chassis_sim::pod_entry(5, 0));
    chassis_sim::write_file(sw1_path, image);
    DOES(podlog_cpy_curr_subblock_to_secondary(sw1), -1,
         "ERROR: pod_file_mem_rd: cannot read or reach eof!! range=0xa0-0x9f\n");
    EXPECT_EQ(left(), "0: good, 1");

    podlog_bind_secondary_log_access_func(pm2, eeprom_reader<2>, eeprom_writer<2>);
    chassis_sim::write_file("/dev/nvlog-pod", pod_storages[0].image(0, {{{5, "x"}}}));
    const std::string no_raw = "ERROR: podlog_read_raw_log: read raw log not support for NVRAM!\n";
    DOES(podlog_cpy_curr_subblock_to_secondary(pm2), -1, no_raw);
    DOES(podlog_read_raw_log(1, nullptr), -1, no_raw);
    EXPECT_EQ(left(), "1");

    // From an EEPROM whose messages are longer than the file's and the other EEPROM's.
    podlog_eeprom_set_pod_info(0, std::string("long").data(), 8192, 2, 2000, ~0u);
    chassis_sim::write_file(eeprom_path(0), pod_storages[2].image());
    std::string entry = chassis_sim::pod_entry(5, 2000) + std::string(2000, 'm');
    DOES(podlog_eeprom_add_raw_log(0, reinterpret_cast<uint8_t *>(entry.data())), 1);
    DOES(podlog_cpy_curr_subblock_to_secondary(ft1), 1);
    EXPECT_EQ(left(), "0: " + std::string(63, 'm') + ", 1");
}

//--- POD status and fault injection ---------------------------------------------------------------

TEST(pod_status, is_a_word_of_the_instance_and_an_injected_fault_a_bit)
{
    start_chassis();
    ASSERT_EQ(podlog_init(rp1, 0), 1);
    std::string image = read_file("/dev/nvlog-pod");
    const auto expect_word = [&](size_t position, uint32_t word) {
        put(image, position, words({word}));
        EXPECT_EQ(difference(read_file("/dev/nvlog-pod"), image), "") << word;
    };
    const std::tuple<uint32_t, uint32_t, const char *> cases[] = {
        {0, 0, "Passed"},
        {1, 0x0FFFFFFF, "Unrecognized!"},
        {0x0FFFFFFF, 0x0FFFFFFF, "Failed"},
        {0x7FFFFFFF, 0x0FFFFFFF, "Unrecognized!"},
        {0x80000000, 0x80000000, "Invalid"},
        {0xFFFFFFFF, 0x80000000, "Unrecognized!"}};
    for (const auto &[stored, read, text] : cases) {
        DOES(podlog_set_pod_status(20, static_cast<int>(stored)), 1);
        expect_word(16312 + 4 * 6, stored);
        DOES(podlog_get_pod_status(20), read);
        EXPECT_STREQ(podlog_nvram_convert_pod_status_str(stored), text);
    }
    DOES(podlog_invalidate_pod_status(20), 1);
    expect_word(16312 + 4 * 6, 0x80000000);
    DOES(podlog_nvram_set_pod_status(1, 20, 0), 1);
    expect_word(16312 + 4 * 6, 0); // of number 0, whatever is asked for

    // Injected faults are shown but never reported.
    constexpr int mask = 16344;
    DOES(podlog_get_faultinject_pos(20), mask);
    DOES(nvram_disp_faultinject_status(0), 1, "", " no fault was injected\n");
    DOES(podlog_faultinject_pod_status(22, 0), 1);
    DOES(podlog_faultinject_pod_status(21, 0), 1);
    DOES(podlog_faultinject_pod_status(23, 1), 1); // not set, still clear
    expect_word(mask, 0x81);
    DOES(nvram_disp_faultinject_status(0), 1, "",
         "   inst 22 ALSW1  mapped index 0: fault injected\n"
         "   inst 21 RPSW2  mapped index 7: fault injected\n");
    int injected = 7;
    DOES(podlog_is_faultinject(22, &injected), 1);
    EXPECT_EQ(injected, 0);
    DOES(podlog_is_faultinject(22, nullptr), -1);
    DOES(podlog_faultinject_pod_status(22, 1), 1);
    expect_word(mask, 0x80);
    DOES(podlog_clr_all_faultinject(rp1), 1);
    expect_word(mask, 0);
    podlog_close(rp1);
    EXPECT_EQ(podlog_clr_all_faultinject(rp1), -1);
    EXPECT_EQ(nvram_disp_faultinject_status(0), -1);
    EXPECT_EQ(podlog_faultinject_pod_status(22, 0), -1);
    EXPECT_EQ(podlog_get_pod_status(20), 0x80000000u);
}

TEST(pod_status, is_that_of_mapped_instances_and_slots_only)
{
    start_chassis();
    int id = 7;
    int index = 7;
    DOES(podlog_get_podstatus_inst_info(21, &id, &index), 1);
    EXPECT_EQ(std::pair(id, index), std::pair(0, 7));
    const std::string unmapped = "ERROR: nvram_get_podstatus_inst_info: invalid inst id 6!\n ";
    DOES(podlog_get_podstatus_inst_info(ft1, &id, &index), 0, unmapped);
    EXPECT_EQ(id, -1);
    const std::string unknown = "ERROR: nvram_get_podstatus_inst_mapped_index: invalid nvram id ";
    const std::string unknown_28 = unknown + "0 or inst id 28!\n ";
    const std::string mapping = output_of([] { nvram_dump_podstatus_inst_mapping(0); }).out;
    ASSERT_EQ(podlog_init(rp1, 0), 1);
    DOES(podlog_nvram_get_pod_status(0, 28), 0x80000000u, unknown_28, mapping);
    DOES(podlog_nvram_set_pod_status(0, 28, 0) + podlog_nvram_faultinject_pod_status(0, 28, 0), -2,
         unknown_28 + unknown_28, mapping + mapping);
    DOES(podlog_nvram_invalidate_pod_status(1, 22), -1, unknown + "1 or inst id 22!\n ",
         "nvram_dump_podstatus_inst_mapping: nvram 1 # of inst =0 \n");

    pod_nvram_inst_map_t map = {};
    map.num_inst = 2;
    map.index0[0] = sw1;
    map.index0[1] = 200; // no slot
    podlog_nvram_config_inst_mapping(0, &map);
    DOES(podlog_set_pod_status(sw1, 0x7FFFFFFF), 1);
    const std::string busy =
        "ERROR: podlog_nvram_init: nvram 0 current device is currently opened already!\n";
    DOES(podlog_get_pod_status_cc(sw1), 0x80000000u,
         busy + "ERROR: podlog_get_pod_status_cc: cannot open POD Status stroage NVRAM 0!\n");
    DOES(podlog_is_faultinject_cc(sw1, &index), -1, busy);
    podlog_close(rp1);
    DOES(podlog_get_pod_status_cc(sw1), 0x0FFFFFFFu);
    index = 7;
    DOES(podlog_is_faultinject_cc(sw1, &index), 1);
    EXPECT_EQ(index, 0);
    DOES(podlog_get_pod_status_cc(200), 0x80000000u,
         "ERROR: podlog_get_pod_status_cc: invalid slot id -1!\n");
    DOES(podlog_is_faultinject_cc(200, &index), -1);
    DOES(podlog_is_faultinject_cc(sw1, nullptr), -1);
    DOES(podlog_get_pod_status_cc(ft1), 0x80000000u,
         unmapped + "ERROR: podlog_get_pod_status_cc: slot 6 not matched for pod status!\n");
    DOES(podlog_is_faultinject_cc(ft1, &index), -1,
         unmapped + "ERROR: podlog_is_faultinject_cc: invalid instance id 6!\n");
}

} // namespace

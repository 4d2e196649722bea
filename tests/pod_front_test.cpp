// The front end of the POD log: the registry of the instances, and what each call does with an
// instance of each kind. What they do is in tests/expected/pod/.
#include "support/pod_log.h"
#include "support/test.h"

#include <device_access/pod_log.h>
#include <device_access/pod_log_crc_tmp.h>
#include <device_access/slot_names.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <filesystem>
#include <span>

namespace
{

using namespace test;
namespace fs = std::filesystem;

TEST(pod_crc, is_that_of_posix_cksum)
{
    EXPECT_EQ(crc32_cksum("123456789", 9), 0x377A6011u); // the standard's check value
    EXPECT_EQ(crc32_cksum(nullptr, 0), 0xFFFFFFFFu);
    std::string bytes;
    for (size_t length : {1u, 255u, 256u, 257u, 65535u, 65536u}) { // as many length bytes as needed
        while (bytes.size() < length)
            bytes += static_cast<char>(bytes.size() * 7 + 1);
        EXPECT_EQ(crc32_cksum(bytes.data(), bytes.size()), chassis_sim::cksum(bytes)) << length;
    }
    EXPECT_EQ(crc32_posix(crc32_posix(0, "1234", 4), "56789", 5), crc32_posix(0, "123456789", 9));
    EXPECT_EQ(crc32_posix(0, "\x01", 1), 0x04C11DB7u) << "not inverted";
    EXPECT_EQ(crc32_posix(0x1234, nullptr, 0), 0x1234u);
}

//--- the registry ---------------------------------------------------------------------------------

constexpr pod_secondary_storage_type_t none = POD2NDSTORAGE_NONE;
constexpr pod_secondary_storage_type_t eeprom = POD2NDSTORAGE_EEPROM;
constexpr int no_kind = 7;

// All of a name's field, with dots for what is NUL.
std::string field(const char (&name)[40])
{
    std::string text(name, sizeof name);
    std::replace(text.begin(), text.end(), '\0', '.');
    return text.substr(0, text.find_last_not_of('.') + 1);
}

void note_registry(transcript &seen)
{
    pod_storage_info_t table;
    pod_nvram_inst_map_t map;
    podlog_get_pod_storage_table(&table);
    podlog_nvram_get_inst_mapping(0, &map);
    for (const storage_info_t &row : std::span(table.dev, static_cast<size_t>(table.num_storage)))
        seen.note(printed("  %-6s id %d, kind %d number %d, secondary kind %d number %d",
                          field(row.inst_name).c_str(), row.inst_id, row.type, row.storage_inst_id,
                          row.secondary_storage_type, row.secondary_storage_inst_id));
    seen.note("  the last row has " + field(table.dev[POD_MAX_STORAGE - 1].inst_name));
    for (int i = 0; i < map.num_inst; ++i)
        seen.note(printed("  status word %d: %s id %d, %s id %d", i, field(map.name0[i]).c_str(),
                          map.index0[i], field(map.name1[i]).c_str(), map.index1[i]));
    seen.note(printed("  SW2 is in slot %d", GetSlotByName("SW2")->slotN));
}

void note_nvrams(transcript &seen)
{
    for (const podlog::nvram_dev_info_t &row : _nvram_dev_info)
        seen.note(printed("NVRAM '%s': attribute %d, %d bytes, %d histories, %d bytes each, mask "
                          "0x%x, descriptor %d, words at %d and %d of %d",
                          field(row.name).c_str(), row.attr, row.mem_size, row.num_subblock,
                          row.msg_size, row.log_align_msk, row.fd, row.pod_status_pos,
                          row.pod_faultinject_pos, row.inst_map.num_inst));
}

TEST(pod_registry, has_the_cards_of_each_chassis)
{
    transcript seen;
    note_nvrams(seen);
    podlog::nvram_dev_info_t &second = _nvram_dev_info[1];
    second.attr = 7;
    second.fd = 8;
    second.inst_map.num_inst = 5;
    std::string name(50, 'n');
    SHOW(seen, podlog_nvram_set_pod_info(1, name.data(), 5000, 3, 70, 0xF0));
    SHOW(seen, podlog_nvram_set_pod_info(2, name.data(), 5000, 3, 70, 0xF0));
    note_nvrams(seen);
    note_registry(seen);
    pod_storage_info_t named = {}; // the rest of a longer name stays
    std::memset(named.dev[0].inst_name, 'x', sizeof named.dev[0].inst_name);
    std::strcpy(named.dev[POD_MAX_STORAGE - 1].inst_name, "kept");
    podlog_config_pod_storage_info(&named);
    for (int chassis : {ChassisType_N20 + 0, ChassisType_N10 + 0, ChassisType_N4 + 0, 3, -1})
        for (int is_rp2 : {0, 1, 2}) {
            seen.note(printed("chassis %d, is_rp2 %d", chassis, is_rp2));
            SHOW(seen, podlog_config_pod_storage_n20_n10(chassis, is_rp2));
            note_registry(seen);
        }
    EXPECT_TEXT("pod/registry.txt", seen.text());
}

void look_up(transcript &seen, int id)
{
    auto type = static_cast<pod_storage_type_t>(77);
    auto other_type = static_cast<pod_secondary_storage_type_t>(77);
    int device = 77, other = 77, row = 77;
    char nobody[] = "nobody";
    char *name = nobody;
    const auto note = [&] {
        seen.note(printed("  kind %d number %d, secondary kind %d number %d, row %d", type, device,
                          other_type, other, row));
    };
    seen.note(printed("id %d", id));
    SHOW(seen, podlog_get_pod_primary_storage_info(id, &type, &device));
    note();
    SHOW(seen, podlog_get_pod_secondary_storage_info(id, &other_type, &other, &row));
    note();
    SHOW(seen, podlog_get_pod_storage_info(id, &type, &device, &other_type, &other, &row));
    note();
    SHOW(seen, podlog_get_pod_instance_name(id, &name));
    seen.note("  " + std::string(name, ::strnlen(name, sizeof storage_info_t::inst_name)));
}

TEST(pod_registry, finds_the_first_row_with_an_id_or_a_whole_name)
{
    transcript seen;
    pod_storage_info_t table = {};
    for (int i = 0; i < POD_MAX_STORAGE; ++i) // two of each name and id
        table.dev[i] = {"",
                        i / 2,
                        static_cast<pod_storage_type_t>(i % 4),
                        i,
                        static_cast<pod_secondary_storage_type_t>(i % 2),
                        10 * i};
    for (storage_info_t &row : table.dev)
        std::strcpy(row.inst_name, printed("CARD%d", row.inst_id).c_str());
    std::memset(table.dev[20].inst_name, 'x', sizeof table.dev[20].inst_name); // no NUL
    for (int count : {22, 21, 23, INT_MAX, 0, -1}) {
        seen.note(printed("%d rows", count));
        table.num_storage = count;
        podlog_config_pod_storage_info(&table);
        podlog_config_pod_storage_info(nullptr);
        for (int id : {3, 10, -1})
            look_up(seen, id);
        for (std::string name : {"CARD3", "CARD10", "card3", "CARD", "", "CARD33"}) {
            int id = 77;
            storage_info_t row = {"nobody", 0, PODSTORAGE_NVRAM, 0, none, 0};
            seen.note("name \"" + name + "\"");
            SHOW(seen, podlog_find_pod_instance(name.data(), &id));
            SHOW(seen, podlog_find_pod_storage(name.c_str(), &row));
            seen.note(printed("  id %d, %s number %d", id, row.inst_name, row.storage_inst_id));
        }
    }
    SHOW(seen, podlog_find_pod_storage("CARD3", nullptr));
    SHOW(seen, podlog_get_pod_storage_table(nullptr));
    SHOW(seen, podlog_find_pod_storage(nullptr, table.dev));
    EXPECT_TEXT("pod/look_ups.txt", seen.text());
}

TEST(pod_run, is_of_one_instance_at_a_time)
{
    transcript seen;
    for (int round = 0; round < 2; ++round) {
        for (const auto &run :
             {std::pair{3, 1}, {3, -1}, {3, 0}, {3, 0}, {4, 1}, {4, -1}, {4, 0}, {3, 1}}) {
            const int id = run.first, rdonly = run.second;
            seen.note(printed("instance %d, read only %d", id, rdonly));
            SHOW(seen, podlog_set_curr_active_inst(id, rdonly));
            SHOW(seen, podlog_get_active_inst_id());
        }
        SHOW(seen, podlog_clr_curr_active_inst(9, 1));
        SHOW(seen, podlog_get_active_inst_id());
    }
    SHOW(seen, lc2_pod_log_again); // which is for clients alone
    EXPECT_TEXT("pod/run.txt", seen.text());
}

//--- dispatch -------------------------------------------------------------------------------------

void configure(const std::vector<storage_info_t> &rows)
{
    pod_storage_info_t info = {};
    info.num_storage = static_cast<int>(rows.size());
    std::copy(rows.begin(), rows.end(), info.dev);
    podlog_config_pod_storage_info(&info);
}

// Instances of each kind of storage, and a device that there is none of. Names are those of slots.
const std::vector<storage_info_t> one_of_each = {
    {"PM1", 8, static_cast<pod_storage_type_t>(no_kind), 0, eeprom, 3},
    {"RP1", 2, PODSTORAGE_NVRAM, 0, none, -1},
    {"RP2", 3, PODSTORAGE_NVRAM, 0, eeprom, 1},
    {"SW1", 4, PODSTORAGE_FILE, 2, eeprom, 2},
    {"SW2", 5, PODSTORAGE_FILE, 17, eeprom, 1},
    {"FT1", 6, PODSTORAGE_EEPROM, 0, eeprom, 2},
    {"FT2", 7, PODSTORAGE_EEPROM, 5, static_cast<pod_secondary_storage_type_t>(no_kind), 1},
    {"RPSW1", -1, PODSTORAGE_EEPROM, 0, none, -1}, // which is no slot
};

const std::string blank(16384, '\0');

// Histories have room for three entries. EEPROM 3 is not bound.
void start_chassis()
{
    chassis_sim::enter_private_root();
    ::setenv("TZ", "EAST-1", 1);
    chassis_sim::write_file("/dev/nvlog-pod", blank);
    constexpr int size = 2 * 276;
    podlog_nvram_set_pod_info(0, std::string("/dev/nvlog-pod").data(), size + 100, 2, 64, ~0u);
    podlog_file_set_pod_info(2, std::string("/var/pod/sw1").data(), size + 32, 2, 64, ~0u);
    for (int id : {0, 1, 2, 3})
        podlog_eeprom_set_pod_info(id, std::string("eeprom").data(), size + 32, 2, 64, ~0u);
    bind_eeprom<0>(0);
    bind_eeprom<1>(1);
    bind_eeprom<2>(2);
    configure(one_of_each);
}

void note_logs(transcript &seen)
{
    seen.note("  NVRAM   " + pod_storages[0].text(0));
    seen.note("  file 2  " + pod_storages[1].text(2));
    for (int id : {0, 1, 2})
        seen.note(printed("  EEPROM %d ", id) + pod_storages[2].text(id));
}

// A call as it is written, on an instance, its card or an NVRAM.
struct operation {
    const char *text;
    result (*call)(int nvram, int id, const char *card);
};
#define OPERATION(...)                                                                             \
    {                                                                                              \
#__VA_ARGS__, []([[maybe_unused]] int nvram, [[maybe_unused]] int id,                      \
                         [[maybe_unused]] const char                                               \
                             *card) { return value_of([&] { return __VA_ARGS__; }); }              \
    }

int add(int id, const char *text)
{
    return podlog_add(id, std::string("INFO: ").data(), nullptr, "PASS", "%s %d %llx %% %c", text,
                      -7, 0x123456789abcdefull, 'z');
}

constexpr operation writing[] = {
    OPERATION(podlog_init(id, 0)),     OPERATION(add(id, "first")),
    OPERATION(podlog_use_nxt_log(id)), OPERATION(add(id, "one")),
    OPERATION(add(id, "two")),         OPERATION(add(id, "three")),
    OPERATION(add(id, "four")),        OPERATION(podlog_init(id, 0)),
    OPERATION(podlog_close(id)),       OPERATION(podlog_init(id, -1)),
    OPERATION(add(id, "five")),        OPERATION(podlog_close(id)),
};

int position; // of the entry that was opened
char text[80];
uint8_t *const raw = reinterpret_cast<uint8_t *>(text);
time_t when;
constexpr operation reading[] = {
    OPERATION(podlog_open_dir(card)),
    OPERATION(podlog_read_dir(1, &when)),
    OPERATION(podlog_close_dir(card)),
    OPERATION(position = podlog_open_log(card, 1)),
    OPERATION(podlog_read_log(position, &when, text, 64)),
    OPERATION(podlog_read_raw_log(position, raw)),
    OPERATION(podlog_close_log(card, 1)),
};

void follow(transcript &seen, std::span<const operation> operations, const storage_info_t &row)
{
    for (const operation &one : operations) {
        std::memset(text, '#', sizeof text);
        when = 77;
        seen.call(one.text, [&] { return one.call(0, row.inst_id, row.inst_name); });
        if (text[0] != '#' || when != 77)
            seen.note(printed("  %s of %jd", std::string(text, 80).c_str(), intmax_t{when}));
    }
}

TEST(pod_front_end, goes_to_the_storage_of_each_instance)
{
    start_chassis();
    transcript seen;
    seen.shows_errno = false;
    SHOW(seen, podlog_chk_storage_integrity());
    std::vector<storage_info_t> rows = one_of_each;
    rows.push_back({"PM4", 99, PODSTORAGE_FILE, 0, none, -1}); // no such instance
    for (const storage_info_t &row : rows)
        for (int use_primary : {2, 0}) {
            seen.note(printed("%s, to its primary storage: %d", row.inst_name, use_primary));
            SHOW(seen, podlog_select_primary_secondary_storage(row.inst_id, use_primary));
            follow(seen, writing, row);
            follow(seen, reading, row);
            note_logs(seen);
        }
    configure({one_of_each[1], one_of_each[3]});
    SHOW(seen, podlog_chk_storage_integrity());
    EXPECT_TEXT("pod/front_end.txt", seen.text());
}

TEST(pod_front_end, goes_on_with_the_walk_and_the_log_that_were_opened_last)
{
    start_chassis();
    transcript seen;
    for (int id : {2, 4}) {
        now += id;
        podlog_init(id, 0);
        add(id, "text");
        podlog_close(id);
    }
    SHOW(seen, podlog_open_dir("RP1"));
    SHOW(seen, podlog_open_log("SW1", 0));
    SHOW(seen, podlog_read_dir(0, &when));
    seen.note(printed("  of %jd", intmax_t{when}));
    SHOW(seen, podlog_read_raw_log(64, reinterpret_cast<uint8_t *>(text)));
    SHOW(seen, podlog_read_log(64, &when, text, 64));
    SHOW(seen, podlog_open_log("RP1", 0)); // which is open
    SHOW(seen, podlog_read_raw_log(-1, reinterpret_cast<uint8_t *>(text)));
    SHOW(seen, podlog_open_dir("PM1"));
    SHOW(seen, podlog_read_dir(0, &when));
    SHOW(seen, podlog_open_log("PM1", 0));
    SHOW(seen, podlog_read_log(64, &when, text, 64));
    seen.note("a secondary storage that does not open closes the primary one");
    podlog_select_primary_secondary_storage(4, 0);
    podlog_unbind_secondary_log_access_func(4);
    SHOW(seen, podlog_init(4, 0));
    seen.note("the choice is that of a row, which has none now");
    podlog_select_primary_secondary_storage(5, 0);
    std::vector<storage_info_t> rows = one_of_each;
    rows[3].secondary_storage_type = none;
    configure(rows);
    SHOW(seen, podlog_init(4, 0));
    SHOW(seen, add(4, "dropped"));
    SHOW(seen, podlog_use_nxt_log(4));
    podlog_config_pod_storage_n20_n10(ChassisType_N20, 0);
    bind_eeprom<2>(2);
    SHOW(seen, podlog_init(GetSlotByName("SW1")->slotN, 1)); // now in the row of SW2
    EXPECT_TEXT("pod/opened_last.txt", seen.text());
}

//--- secondary storage ----------------------------------------------------------------------------

int writes_left = -1; // of an EEPROM that then takes no more

int failing_writer(uint32_t at, uint8_t *bytes, uint32_t size)
{
    return writes_left-- == 0 ? -1 : eeprom_writer<2>(at, bytes, size);
}

TEST(pod_secondary, gets_a_copy_of_the_newest_history)
{
    start_chassis();
    transcript seen;
    seen.shows_errno = false;
    podlog_bind_secondary_log_access_func(4, eeprom_reader<2>, failing_writer);
    SHOW(seen, podlog_cpy_curr_subblock_to_secondary(4)); // there is none
    podlog_init(4, 0);
    for (const char *one : {"old", "one", "two"}) {
        add(4, one);
        if (*one == 'o' && one[1] == 'l')
            podlog_use_nxt_log(4);
    }
    SHOW(seen, podlog_cpy_curr_subblock_to_secondary(4)); // it is open
    podlog_close(4);
    for (int id : {2, 3, 4, 5, 6, 7, 8, 99}) {
        seen.note(printed("instance %d", id));
        SHOW(seen, podlog_cpy_curr_subblock_to_secondary(id));
        note_logs(seen);
        SHOW(seen, podlog_init(id, 0)); // which storage it uses now
        podlog_close(id);
        SHOW(seen, podlog_unbind_secondary_log_access_func(id));
        SHOW(seen, podlog_bind_secondary_log_access_func(id, eeprom_reader<2>, failing_writer));
    }
    for (int writes = 0; writes < 12; ++writes) {
        seen.note(printed("the EEPROM takes %d writes", writes));
        chassis_sim::write_file(eeprom_path(2), pod_storages[2].image());
        writes_left = writes;
        SHOW(seen, podlog_cpy_curr_subblock_to_secondary(4));
        writes_left = -1;
        seen.note(printed("  history %d is current", read_file(eeprom_path(2))[36]));
        note_logs(seen);
    }
    seen.note("the second entry's message cannot be read");
    fs::resize_file("/var/pod/sw1", 44 + 276 + 20 + 80 + 16);
    SHOW(seen, podlog_cpy_curr_subblock_to_secondary(4));
    note_logs(seen);
    EXPECT_TEXT("pod/copy.txt", seen.text());
}

TEST(pod_secondary, takes_what_it_has_room_for_of_a_longer_message)
{
    start_chassis();
    podlog_eeprom_set_pod_info(0, std::string("long").data(), 8192, 2, 2000, ~0u);
    chassis_sim::write_file(eeprom_path(0), pod_storages[2].image());
    std::string entry = chassis_sim::pod_entry(5, 2000) + std::string(2000, 'm');
    EXPECT_OUTCOME(podlog_eeprom_add_raw_log(0, reinterpret_cast<uint8_t *>(entry.data())),
                   {.value = 1, .error = any_error});
    const streams dumped = output_of([] { podlog_eeprom_dump_log_msgs(0, 0); });
    EXPECT_NE(dumped.out.find(" " + std::string(2000, 'm') + "\n"), std::string::npos);
    EXPECT_EQ(podlog_cpy_curr_subblock_to_secondary(6), 1);
    EXPECT_EQ(pod_storages[2].text(2), "0: " + std::string(63, 'm') + ", ");
}

//--- status words ---------------------------------------------------------------------------------

const std::string nodes[] = {"/dev/nvlog-pod", "/dev/nvram1"};
constexpr int sizes[] = {500, 504};

// The status words of both NVRAMs, and their fault masks.
std::string stored_words()
{
    std::string all;
    for (const int nvram : {0, 1}) {
        uint32_t words[9] = {};
        read_file(nodes[nvram])
            .copy(reinterpret_cast<char *>(words), sizeof words,
                  static_cast<size_t>(sizes[nvram] - 72));
        for (uint32_t word : words)
            all += printed(" %x", word);
        all += ";";
    }
    return all;
}

int injected;

constexpr operation of_nvram[] = {
    OPERATION(nvram_get_podstatus_inst_mapped_index(nvram, id)),
    OPERATION(nvram_dump_podstatus_inst_mapping(nvram)),
    OPERATION(podlog_nvram_set_pod_status(nvram, id, 0x12345678)),
    OPERATION(podlog_nvram_get_pod_status(nvram, id)),
    OPERATION(podlog_nvram_set_pod_status(nvram, id, -5)),
    OPERATION(podlog_nvram_get_pod_status(nvram, id)),
    OPERATION(podlog_nvram_set_pod_status(nvram, id, 0)),
    OPERATION(podlog_nvram_get_pod_status(nvram, id)),
    OPERATION(podlog_nvram_invalidate_pod_status(nvram, id)),
    OPERATION(nvram_disp_faultinject_status(nvram)),
    OPERATION(podlog_nvram_faultinject_pod_status(nvram, 1, 0)),
    OPERATION(podlog_nvram_faultinject_pod_status(nvram, id, 0)),
    OPERATION(podlog_nvram_faultinject_pod_status(nvram, id, 0)),
    OPERATION(podlog_nvram_get_pod_status(nvram, id)),
    OPERATION(nvram_disp_faultinject_status(nvram)),
    OPERATION(podlog_nvram_faultinject_pod_status(nvram, id, 2)),
    OPERATION(podlog_nvram_faultinject_pod_status(nvram, id, 2)),
    OPERATION(podlog_nvram_is_faultinject(nvram, id, &injected)),
    OPERATION(podlog_nvram_is_faultinject(nvram, id, nullptr)),
    OPERATION(podlog_nvram_get_faultinject_pos(nvram)),
    OPERATION(podlog_nvram_clr_all_faultinject(nvram)),
};

constexpr operation of_instance[] = {
    OPERATION(podlog_set_pod_status(id, -5)),      OPERATION(podlog_get_pod_status(id)),
    OPERATION(podlog_set_pod_status(id, 7)),       OPERATION(podlog_get_pod_status(id)),
    OPERATION(podlog_invalidate_pod_status(id)),   OPERATION(podlog_faultinject_pod_status(id, 0)),
    OPERATION(podlog_get_pod_status(id)),          OPERATION(podlog_is_faultinject(id, &injected)),
    OPERATION(podlog_is_faultinject(id, nullptr)), OPERATION(podlog_faultinject_pod_status(id, 2)),
    OPERATION(podlog_get_faultinject_pos(id)),     OPERATION(podlog_clr_all_faultinject(id)),
};

constexpr operation of_slot[] = {
    OPERATION(podlog_get_pod_status_cc(static_cast<uint8_t>(id))),
    OPERATION(podlog_is_faultinject_cc(static_cast<uint8_t>(id), &injected)),
    OPERATION(podlog_is_faultinject_cc(static_cast<uint8_t>(id), nullptr)),
};

struct status_test : testing::Test {
    status_test()
    {
        start_chassis();
        for (int nvram : {0, 1}) {
            const int size = sizes[nvram];
            chassis_sim::write_file(nodes[nvram], std::string(static_cast<size_t>(size), '\0'));
            podlog_nvram_set_pod_info(nvram, std::string(nodes[nvram]).data(), size, 2, 64, ~0u);
        }
        std::vector<storage_info_t> rows = one_of_each;
        rows[2].storage_inst_id = 1; // of instance 3
        configure(rows);
        pod_nvram_inst_map_t map = {3, {2, 4, 6}, {-1, 1, 2}, {"RP1", "SW1"}, {"", "two"}};
        std::memset(map.name0[2], 'x', 40); // no NUL
        std::memset(map.name1[2], 'y', 40);
        podlog_nvram_config_inst_mapping(0, &map);
        map = {10, {9, 1, 3, 3, 5, -1, 7, 8}, {4, -1, -1, -1, -1, 6, -1, 2}, {}, {"of NVRAM 1"}};
        podlog_nvram_config_inst_mapping(1, &map);
    }

    void follow(std::span<const operation> operations, int nvram, int id)
    {
        seen.note(printed("NVRAM %d, instance %d", nvram, id));
        for (const operation &one : operations) {
            const std::string before = stored_words();
            injected = 7;
            seen.call(one.text, [&] { return one.call(nvram, id, nullptr); });
            if (stored_words() != before)
                seen.note("  words" + stored_words());
            if (injected != 7)
                seen.note(printed("  injected %d", injected));
        }
    }

    void open(int rdonly)
    {
        for (int nvram : {0, 1}) {
            podlog_nvram_close(nvram);
            SHOW(seen, podlog_nvram_init(nvram, rdonly));
        }
    }
    transcript seen;
};

TEST_F(status_test, words_of_both_nvrams)
{
    follow(of_nvram, 0, 4); // closed
    follow(of_nvram, 0, 77);
    open(0);
    for (const auto &[nvram, id] :
         {std::pair{0, 4}, {0, 1}, {0, 2}, {0, 77}, {0, -1}, {1, 4}, {1, 3}, {1, 6}, {2, 4}})
        follow(of_nvram, nvram, id);
    uint8_t unmapped[] = {0, 0, 0, 0x80};
    pod_nvram_mem_wr(0, static_cast<uint32_t>(podlog_nvram_get_faultinject_pos(0)), unmapped, 4);
    SHOW(seen, nvram_disp_faultinject_status(0));
    podlog_nvram_clr_all_faultinject(0);
    open(1);
    follow(of_nvram, 0, 4);
    fs::resize_file(nodes[0], 500 - 41);
    follow(of_nvram, 0, 4);
    SHOW(seen, podlog_nvram_close_log(0, 7));
    for (const uint32_t value : {POD_STATUS_PASSED, POD_STATUS_FAILED, POD_STATUS_INVALID, 1u})
        seen.note(podlog_nvram_convert_pod_status_str(value));
    EXPECT_TEXT("pod/status_words.txt", seen.text());
}

TEST_F(status_test, words_of_instances_and_slots)
{
    for (int id : {4, 9, 77, 200})
        follow(of_slot, 0, id); // it is opened for them
    open(0);
    follow(of_slot, 0, 4); // which it is already
    podlog_nvram_faultinject_pod_status(1, 3, 0);
    for (int id : {2, 4, 77, 3})
        follow(of_instance, 0, id);
    podlog_nvram_faultinject_pod_status(0, 4, 0);
    int ids[] = {4, 5, 2, 3, 4, 5, 6, 7, 8};
    std::string first(60, 'f'), last = "last";
    char *names[] = {first.data(), last.data(),  first.data(), last.data(), first.data(),
                     last.data(),  first.data(), last.data(),  first.data()};
    int nvram = 0, index = 7;
    for (const auto &mapped : {std::pair{0, 2}, {1, 9}, {0, 9}, {0, -1}, {0, 1}}) {
        nvram = mapped.first;
        pod_nvram_inst_map_t map;
        podlog_nvram_set_podstatus_info(nvram, mapped.second, ids, names);
        podlog_nvram_get_inst_mapping(nvram, &map);
        SHOW(seen, nvram_dump_podstatus_inst_mapping(nvram));
        SHOW(seen, nvram_disp_faultinject_status(nvram));
        seen.note("  " + field(map.name0[0]) + ", " + field(map.name0[1]));
    }
    nvram = 7;
    for (int id : {4, 8, 77}) { // NVRAM 1 has instance 8
        SHOW(seen, podlog_get_podstatus_inst_info(id, &nvram, &index));
        seen.note(printed("  NVRAM %d, index %d", nvram, index));
    }
    EXPECT_TEXT("pod/status_of_instances.txt", seen.text());
}

} // namespace

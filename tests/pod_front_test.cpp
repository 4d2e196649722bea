// How the front end of the POD log is used, over the real storages in a simulated chassis; and the
// checksum that all logs share. Each call by itself is what the models try (tests/models/).
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

constexpr pod_secondary_storage_type_t none = POD2NDSTORAGE_NONE;
constexpr pod_secondary_storage_type_t eeprom = POD2NDSTORAGE_EEPROM;

void configure(const std::vector<storage_info_t> &rows)
{
    pod_storage_info_t info = {};
    info.num_storage = static_cast<int>(rows.size());
    std::copy(rows.begin(), rows.end(), info.dev);
    podlog_config_pod_storage_info(&info);
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

//--- dispatch -------------------------------------------------------------------------------------

// Slot names that the large chassis knows, one for each kind of storage.
constexpr int rp1 = 2; // NVRAM 0
constexpr int sw1 = 4; // file 2, secondary EEPROM 2
constexpr int ft1 = 6; // EEPROM 0, secondary EEPROM 2
constexpr int pm1 = 8; // a type that does not exist, secondary EEPROM 3
void configure_one_of_each()
{
    configure({{"PM1", pm1, static_cast<pod_storage_type_t>(7), 0, eeprom, 3},
               {"RP1", rp1, PODSTORAGE_NVRAM, 0, none, -1},
               {"SW1", sw1, PODSTORAGE_FILE, 2, eeprom, 2},
               {"FT1", ft1, PODSTORAGE_EEPROM, 0, eeprom, 2}});
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
    configure({{"SW1", sw1, PODSTORAGE_FILE, 2, eeprom, 2},
               {"FT1", ft1, PODSTORAGE_EEPROM, 0, none, -1}});
    DOES(podlog_chk_storage_integrity(), 1);
}

//--- secondary storage ----------------------------------------------------------------------------

TEST(pod_secondary, gets_a_copy_of_the_newest_history)
{
    start_chassis();
    for (const char *text : {"old", "new"}) {
        podlog_init(sw1, 0);
        podlog_use_nxt_log(sw1);
        add(sw1, text);
        podlog_close(sw1);
    }
    DOES(podlog_cpy_curr_subblock_to_secondary(sw1), 1);
    configure({{"FT2", 7, PODSTORAGE_EEPROM, 2, none, -1}});
    EXPECT_EQ(read_card("FT2"), "0: new, ");
}

TEST(pod_secondary, takes_what_it_has_room_for_of_a_longer_message)
{
    start_chassis();
    podlog_eeprom_set_pod_info(0, std::string("long").data(), 8192, 2, 2000, ~0u);
    chassis_sim::write_file(eeprom_path(0), pod_storages[2].image());
    std::string entry = chassis_sim::pod_entry(5, 2000) + std::string(2000, 'm');
    DOES(podlog_eeprom_add_raw_log(0, reinterpret_cast<uint8_t *>(entry.data())), 1);
    DOES(podlog_cpy_curr_subblock_to_secondary(ft1), 1);
    configure({{"FT2", 7, PODSTORAGE_EEPROM, 2, none, -1}});
    EXPECT_EQ(read_card("FT2"), "0: " + std::string(63, 'm') + ", ");
}

} // namespace

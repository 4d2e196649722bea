#include "sim/chassis.h"
#include "support/descriptors.h"
#include "support/expect_outcome.h"

#include <device_access/diag_inventory.h>
#include <device_access/slot_names.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>

#include <sys/stat.h>

namespace
{

namespace fs = std::filesystem;
using test_support::captured_output;
using test_support::expect_outcome;
using test_support::open_descriptors;

const std::string golden("DiIn\0"
                         "0001\0"
                         "ABCDEFGHIJKLMN"
                         "P1234",
                         29);
const std::string sw1_file = "/flash/diags/SW1.div";
const std::string rpsw_file = "/var/log/diags/RPSW.div";

std::string line(const std::string &text)
{
    return "DIAG's INVENTORY: " + text + "\n";
}

std::string contents(const std::string &path)
{
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

diag_inventory_t record()
{
    diag_inventory_t inventory = {};
    std::memcpy(inventory.serNo, "ABCDEFGHIJKLMN", 14);
    std::memcpy(inventory.prodCode, "P1234", 5);
    return inventory;
}

class diag_inventory : public testing::Test
{
protected:
    diag_inventory()
    {
        chassis_sim::enter_private_root();
        chassis_sim::make_directory("/flash/diags");
        chassis_sim::make_directory("/var/log/diags");
    }
    ~diag_inventory() override { EXPECT_EQ(open_descriptors(), descriptors_); }

    const std::ptrdiff_t descriptors_ = open_descriptors();
};

TEST_F(diag_inventory, a_store_writes_29_bytes_twice_and_they_read_back)
{
    captured_output output;
    diag_inventory_t inventory = record();
    chassis_sim::write_file(sw1_file, std::string(100, 'x'));
    EXPECT_EQ(diag_inventory_store("sw1", &inventory), 1);
    EXPECT_EQ(output.take_stderr(), line("openning aaa !") + line("aaa opened!"));
    EXPECT_EQ(contents(sw1_file), golden);
    EXPECT_EQ(contents("/flash/diags/aaa"), golden);
    EXPECT_EQ(std::memcmp(&inventory, golden.data(), 29), 0) << "the caller's record is completed";

    diag_inventory_t read = {};
    EXPECT_EQ(diag_inventory_get_all("SW1", &read), 1);
    EXPECT_EQ(std::memcmp(&read, golden.data(), 29), 0);

    uint8_t bytes[15] = "..............";
    EXPECT_EQ(diag_inventory_get_serno("SW1", bytes, 14), 1);
    EXPECT_STREQ(reinterpret_cast<char *>(bytes), "ABCDEFGHIJKLMN");
    uint8_t code[7] = "......";
    EXPECT_EQ(diag_inventory_get_prod_code("SW1", code, 5), 1);
    EXPECT_STREQ(reinterpret_cast<char *>(code), "ABCDE.") << "the serial number's first bytes";
    EXPECT_EQ(output.take_stderr() + output.take_stdout(), "");

    EXPECT_EQ(diag_inventory_get_serno("SW1", bytes, 13), 0);
    EXPECT_EQ(diag_inventory_get_prod_code("SW1", code, 4), 0);
    const std::string no_room = line("not enough memory for serial number");
    EXPECT_EQ(output.take_stderr(), no_room + no_room);
}

TEST_F(diag_inventory, slot_names_lead_to_their_files)
{
    const std::string aaa = line("openning aaa !") + line("aaa opened!");
    diag_inventory_t inventory = record();
    const std::pair<const char *, std::string> known[] = {{"rpsw", rpsw_file},
                                                          {"RPSW2", rpsw_file},
                                                          {"rpsw1", rpsw_file},
                                                          {"RPSWx", rpsw_file},
                                                          {"pm4", "/flash/diags/PM4.div"},
                                                          {"1", "/flash/diags/1.div"}};
    for (const auto &[slot, file] : known) {
        expect_outcome([&] { return diag_inventory_store(slot, &inventory); }, 1, "", aaa);
        EXPECT_EQ(contents(file), golden) << slot;
        EXPECT_EQ(diag_inventory_clear(slot), 1);
        EXPECT_FALSE(fs::exists(file));
        expect_outcome([&] { return diag_inventory_get_all(slot, &inventory); }, 0, "",
                       line("cannot open inventory " + file));
    }
    for (const char *slot : {"Rpsw1", "rps", "r", "", "alsw1", "../aaa"}) {
        const std::string invalid = line(std::string("Invalid slot name ") + slot);
        expect_outcome([&] { return diag_inventory_store(slot, &inventory); }, 0, "",
                       invalid + aaa + line("cannot open inventory !"));
        expect_outcome([&] { return diag_inventory_get_all(slot, &inventory); }, 0, "",
                       invalid + line("cannot open inventory "));
        expect_outcome([&] { return diag_inventory_clear(slot); }, 1, "", invalid);
    }
}

TEST_F(diag_inventory, what_is_no_whole_record_is_corrupted)
{
    const std::string bad_magic = "DiIx" + golden.substr(4);
    const std::string bad_revision = golden.substr(0, 9) + " " + golden.substr(10);
    const std::string corrupted = line("inventory /flash/diags/SW1.div is corrupted");
    diag_inventory_t read;
    for (const std::string &bytes :
         {golden.substr(0, 28), std::string(), bad_magic, bad_revision}) {
        chassis_sim::write_file(sw1_file, bytes);
        expect_outcome([&] { return diag_inventory_get_all("sw1", &read); }, 0, "", corrupted);
        EXPECT_EQ(std::string(reinterpret_cast<char *>(&read), bytes.size()), bytes);
        expect_outcome([] { return diag_inventory_get_serno("sw1", nullptr, 0); }, 0, "",
                       corrupted);
    }
    chassis_sim::write_file(sw1_file, golden + "more");
    EXPECT_EQ(diag_inventory_get_all("sw1", &read), 1);
}

TEST_F(diag_inventory, without_its_directory_a_store_reports_both_files)
{
    fs::remove("/flash/diags");
    diag_inventory_t inventory = record();
    expect_outcome([&] { return diag_inventory_store("sw1", &inventory); }, 0, "",
                   line("openning aaa !") + line("cannot open inventory aaa!") +
                       line("cannot open inventory /flash/diags/SW1.div!"));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(fs::exists("/flash/diags"));
    EXPECT_EQ(diag_inventory_store("rpsw", &inventory), 1) << "the second copy does not matter";
}

TEST_F(diag_inventory, clearing_all_makes_the_directories_and_deletes_what_the_slots_name)
{
    const auto invalid = [](std::initializer_list<const char *> slots) {
        std::string lines;
        for (const char *slot : slots)
            lines += line(std::string("Invalid slot name ") + slot);
        return lines;
    };
    const std::string sw2_file = "/flash/diags/SW2.div";
    for (const std::string &file : {rpsw_file, sw1_file, sw2_file})
        chassis_sim::write_file(file, golden);
    SetChassisType(ChassisType_1st_Stack);
    expect_outcome(diag_inventory_clear_all, 1, "",
                   invalid({"alsw1", "alsw2", "sw2", "sw3", "sw4"}));
    EXPECT_FALSE(fs::exists(rpsw_file) || fs::exists(sw1_file));
    EXPECT_TRUE(fs::exists(sw2_file));
    SetChassisType(ChassisType_2nd_Stack);
    expect_outcome(diag_inventory_clear_all, 1, "", invalid({"alsw1", "alsw2", "sw3", "sw4"}));
    EXPECT_FALSE(fs::exists(sw2_file));

    fs::remove_all("/flash/diags");
    fs::remove_all("/var/log/diags");
    EXPECT_EQ(diag_inventory_clear_all(), 1);
    for (const char *directory : {"/flash/diags", "/var/log/diags"}) {
        struct stat status;
        ASSERT_EQ(::stat(directory, &status), 0);
        EXPECT_EQ(status.st_mode, S_IFDIR | mode_t{0700});
    }
}

} // namespace

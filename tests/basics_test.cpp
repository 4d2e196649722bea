// Slot tables, register accesses, physical memory and the inventory. This program does not define
// libuio_log, so libuio must print nothing in it.
#include "sim/register_trap.h"
#include "support/sweep.h"
#include "support/test.h"

#include <device_access/diag_inventory.h>
#include <device_access/libuio.h>
#include <device_access/mmap_device.h>
#include <device_access/regiomap_x86.h>
#include <device_access/slot_names.h>

#include <filesystem>
#include <sstream>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

namespace fs = std::filesystem;
using namespace test;
using chassis_sim::write_file;

//--- slots ----------------------------------------------------------------------------------------

std::string text(const SLOT_INFO *slot)
{
    return std::to_string(slot->slotN) + "/" + std::to_string(slot->slotType) + "/" +
           slot->slot_name + " ";
}

// Every number from below the lowest to above the highest.
std::string all_slots()
{
    std::string rows;
    for (int id = -1; id < 14; ++id)
        if (GetSlotById(id)->slotN != -1)
            rows += text(GetSlotById(id));
    return rows;
}

TEST(slot_names, the_large_chassis_is_the_default_and_other_values_select_nothing)
{
    const std::string large = "0/1/1 1/1/2 2/2/RP1 3/2/RP2 4/3/SW1 5/3/SW2 6/4/FT1 7/4/FT2 "
                              "8/4/PM1 9/4/PM2 10/4/PM3 11/4/PM4 ";
    const std::string small = "0/1/1 2/2/RP1 4/3/SW1 5/4/FT1 6/4/PM1 7/4/PM2 ";
    EXPECT_EQ(GetChassisType(), ChassisType_2nd_Stack);
    EXPECT_EQ(all_slots(), large);
    for (int value : {0, 2, 5, -1}) {
        SetChassisType(static_cast<chassis_t>(value));
        EXPECT_EQ(GetChassisType(), ChassisType_1st_Stack);
        EXPECT_EQ(all_slots(), small);
    }
    SetChassisType(ChassisType_2nd_Stack);
    EXPECT_EQ(GetChassisType(), ChassisType_2nd_Stack);
    EXPECT_EQ(all_slots(), large);
}

TEST(slot_names, names_match_whole_and_in_any_case)
{
    EXPECT_EQ(text(GetSlotByName("pm4")), "11/4/PM4 ");
    EXPECT_EQ(text(GetSlotByName("1")), "0/1/1 ");
    for (const char *unknown : {"RP", "RP11", "", "RPSW1", "ALSW1", "PEM1", "Err"})
        EXPECT_EQ(text(GetSlotByName(unknown)), "-1/0/Err ") << unknown;
    EXPECT_EQ(text(GetSlotByName(nullptr)), "-1/0/Err ");
    SetChassisType(ChassisType_1st_Stack);
    EXPECT_EQ(text(GetSlotByName("Sw1")) + text(GetSlotByName("PM4")), "4/3/SW1 -1/0/Err ");
}

//--- registers ------------------------------------------------------------------------------------

TEST(regiomap_x86, each_access_is_one_of_its_width_and_64_bits_are_two_in_their_order)
{
    using chassis_sim::register_access;
    // Every read of a register gives another value, so a repeated or merged one would show.
    uint64_t next = 0xf1f2f3f4f5f6f7f0;
    chassis_sim::register_trap window(4096, [&next](size_t, unsigned) { return ++next; });
    char *p = window.base() + 64;
    const auto accesses_of = [&window](const auto &access) {
        access();
        std::ostringstream log;
        for (const register_access &one : window.take_log())
            log << (one.kind == register_access::read ? "read " : "write ") << one.width << "@"
                << one.offset << "=" << std::hex << one.value << std::dec << " ";
        return log.str();
    };
    uint64_t value = 0;
    EXPECT_EQ(accesses_of([p] { iowrite8(0xa1, p + 1); }), "write 1@65=a1 ");
    EXPECT_EQ(accesses_of([p] { iowrite16(0xa1b2, p + 2); }), "write 2@66=a1b2 ");
    EXPECT_EQ(accesses_of([p] { iowrite32(0xa1b2c3d4, p + 4); }), "write 4@68=a1b2c3d4 ");
    EXPECT_EQ(accesses_of([p] { iowrite64(0x1122334455667788, p + 8); }),
              "write 4@72=55667788 write 4@76=11223344 ");
    EXPECT_EQ(accesses_of([&] { value = ioread8(p + 1); }), "read 1@65=f1 ");
    EXPECT_EQ(value, 0xf1u);
    EXPECT_EQ(accesses_of([&] { value = ioread16(p + 2); }), "read 2@66=f7f2 ");
    EXPECT_EQ(value, 0xf7f2u);
    EXPECT_EQ(accesses_of([&] { value = ioread32(p + 4); }), "read 4@68=f5f6f7f3 ");
    EXPECT_EQ(value, 0xf5f6f7f3u);
    EXPECT_EQ(accesses_of([&] { value = ioread64(p + 8); }),
              "read 4@76=f5f6f7f4 read 4@72=f5f6f7f5 ");
    EXPECT_EQ(value, 0xf5f6f7f4f5f6f7f5u);
}

TEST(regiomap_x86, writes_to_a_null_address_do_nothing)
{
    iowrite8(0x12, nullptr);
    iowrite16(0x1234, nullptr);
    iowrite32(0x12345678, nullptr);
    iowrite64(0x1122334455667788, nullptr);
}

//--- physical memory ------------------------------------------------------------------------------

TEST(mmap_device, maps_shared_memory_at_physical_addresses_above_4_gib)
{
    constexpr uint64_t address = 0x1'2345'6000; // beyond what 32 bits hold
    chassis_sim::enter_private_root();
    const std::string no_memory = "Cannot open Mmap device file /dev/mem ...\n";
    DOES(mmap_device_open(0, 4096), nullptr, no_memory, "", ENOENT);
    const int memory = open("/dev/mem", O_RDWR | O_CREAT, 0600);
    ASSERT_EQ(ftruncate(memory, static_cast<off_t>(address + 8192)), 0);
    void *window = nullptr;
    DOES(window = mmap_device_open(address, 8192), a_pointer, "", "", 0);
    ASSERT_NE(window, MAP_FAILED);
    std::memcpy(static_cast<char *>(window) + 4096, "written", 8);
    char text[8] = "";
    EXPECT_EQ(pread(memory, text, 8, static_cast<off_t>(address + 4096)), 8);
    EXPECT_STREQ(text, "written");
    mmap_device_close(nullptr, 4096);
    mmap_device_close(window, 8192);
    EXPECT_EQ(msync(window, 4096, MS_ASYNC), -1) << "still mapped";
    DOES(mmap_device_open(address + 1, 4096) == MAP_FAILED, 1, "", "", EINVAL);

    const auto open_it = [] {
        void *const result = mmap_device_open(address, 4096);
        return !result ? errno : result == MAP_FAILED ? -errno : 0;
    };
    EXPECT_EQ(failures_of(EIO, open_it), "open: 5 " + no_memory + "mmap: -5\nclose: 0\n");
}

//--- the inventory --------------------------------------------------------------------------------

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
const std::string aaa = line("openning aaa !") + line("aaa opened!");

class inventory : public testing::Test
{
protected:
    inventory()
    {
        chassis_sim::enter_private_root();
        for (const char *directory : {"/flash/diags", "/var/log/diags"})
            chassis_sim::make_directory(directory);
        std::memcpy(record_.serNo, "ABCDEFGHIJKLMN", 14);
        std::memcpy(record_.prodCode, "P1234", 5);
    }

    diag_inventory_t record_ = {};
};

TEST_F(inventory, a_store_writes_29_bytes_twice_and_they_read_back)
{
    write_file(sw1_file, std::string(100, 'x'));
    DOES(diag_inventory_store("sw1", &record_), 1, aaa);
    EXPECT_EQ(read_file(sw1_file), golden);
    EXPECT_EQ(read_file("/flash/diags/aaa"), golden);
    EXPECT_EQ(std::memcmp(&record_, golden.data(), 29), 0) << "the caller's record is completed";
    diag_inventory_t read = {};
    DOES(diag_inventory_get_all("SW1", &read), 1);
    EXPECT_EQ(std::memcmp(&read, golden.data(), 29), 0);

    uint8_t bytes[16] = "...............";
    DOES(diag_inventory_get_serno("SW1", bytes, 14), 1);
    EXPECT_STREQ(reinterpret_cast<char *>(bytes), "ABCDEFGHIJKLMN.");
    uint8_t code[7] = "......";
    DOES(diag_inventory_get_prod_code("SW1", code, 5), 1);
    EXPECT_STREQ(reinterpret_cast<char *>(code), "ABCDE.") << "the serial number's first bytes";
    const std::string no_room = line("not enough memory for serial number");
    DOES(diag_inventory_get_serno("SW1", bytes, 13), 0, no_room);
    DOES(diag_inventory_get_prod_code("SW1", code, 4), 0, no_room);
}

TEST_F(inventory, slot_names_lead_to_their_files)
{
    for (const auto &[slot, file] : {std::pair("rpsw", rpsw_file),
                                     {"RPSW2", rpsw_file},
                                     {"rpsw1", rpsw_file},
                                     {"RPSWx", rpsw_file},
                                     {"pm4", "/flash/diags/PM4.div"},
                                     {"1", "/flash/diags/1.div"}}) {
        DOES(diag_inventory_store(slot, &record_), 1, aaa);
        EXPECT_EQ(read_file(file), golden) << slot;
        DOES(diag_inventory_clear(slot), 1);
        DOES(diag_inventory_get_all(slot, &record_), 0, line("cannot open inventory " + file));
    }
    for (const std::string slot : {"Rpsw1", "rps", "r", "", "alsw1", "../aaa"}) {
        const std::string invalid = line("Invalid slot name " + slot);
        DOES(diag_inventory_store(slot.c_str(), &record_), 0,
             invalid + aaa + line("cannot open inventory !"));
        DOES(diag_inventory_get_all(slot.c_str(), &record_), 0,
             invalid + line("cannot open inventory "));
        DOES(diag_inventory_clear(slot.c_str()), 1, invalid);
    }
}

TEST_F(inventory, what_is_no_whole_record_is_corrupted)
{
    const std::string corrupted = line("inventory " + sw1_file + " is corrupted");
    for (const std::string &bytes : {golden.substr(0, 28), std::string(), "DiIx" + golden.substr(4),
                                     golden.substr(0, 9) + " " + golden.substr(10)}) {
        write_file(sw1_file, bytes);
        DOES(diag_inventory_get_all("sw1", &record_), 0, corrupted);
        EXPECT_EQ(std::string(reinterpret_cast<char *>(&record_), bytes.size()), bytes);
        DOES(diag_inventory_get_serno("sw1", nullptr, 0), 0, corrupted);
    }
    write_file(sw1_file, golden + "more");
    DOES(diag_inventory_get_all("sw1", &record_), 1);
}

TEST_F(inventory, each_failing_call_is_reported_by_its_line)
{
    // Whether all was written is not looked at.
    EXPECT_EQ(failures_of(EIO, [this] { return diag_inventory_store("sw1", &record_); }),
              "open: 1 " + line("openning aaa !") + line("cannot open inventory aaa!") +
                  "write: 1 " + aaa + "close: 1 " + aaa + "open: 0 " + aaa +
                  line("cannot open inventory " + sw1_file + "!"));
    EXPECT_EQ(failures_of(EIO, [this] { return diag_inventory_get_all("sw1", &record_); }),
              "open: 0 " + line("cannot open inventory " + sw1_file) + "read: 0 " +
                  line("inventory " + sw1_file + " is corrupted") + "close: 1\n");
    fs::remove_all("/flash/diags"); // which a store does not make
    DOES(diag_inventory_store("sw1", &record_), 0,
         line("openning aaa !") + line("cannot open inventory aaa!") +
             line("cannot open inventory " + sw1_file + "!"),
         "", ENOENT);
    EXPECT_FALSE(fs::exists("/flash/diags"));
}

TEST_F(inventory, clearing_all_makes_the_directories_and_deletes_what_the_slots_name)
{
    const auto invalid = [](std::initializer_list<const char *> slots) {
        std::string lines;
        for (const std::string slot : slots)
            lines += line("Invalid slot name " + slot);
        return lines;
    };
    const std::string sw2_file = "/flash/diags/SW2.div";
    for (const std::string &file : {rpsw_file, sw1_file, sw2_file})
        write_file(file, golden);
    SetChassisType(ChassisType_1st_Stack);
    DOES(diag_inventory_clear_all(), 1, invalid({"alsw1", "alsw2", "sw2", "sw3", "sw4"}));
    EXPECT_FALSE(fs::exists(rpsw_file) || fs::exists(sw1_file));
    EXPECT_TRUE(fs::exists(sw2_file));
    SetChassisType(ChassisType_2nd_Stack);
    for (const char *directory : {"/flash/diags", "/var/log/diags"})
        fs::remove_all(directory);
    DOES(diag_inventory_clear_all(), 1, invalid({"alsw1", "alsw2", "sw3", "sw4"}));
    for (const char *directory : {"/flash/diags", "/var/log/diags"}) {
        struct stat status = {};
        ::stat(directory, &status);
        EXPECT_EQ(status.st_mode, S_IFDIR | mode_t{0700});
    }
    write_file(sw2_file, golden);
    DOES(diag_inventory_clear_all(), 1, invalid({"alsw1", "alsw2", "sw3", "sw4"}));
    EXPECT_FALSE(fs::exists(sw2_file));
}

//--- libuio without libuio_log --------------------------------------------------------------------

TEST(uio_without_log_symbol, prints_nothing)
{
    const timespec no_wait = {0, 0};
    DOES(libuio_open_timed("/etc/passwd", &no_wait), nullptr, "", "", EINVAL);
    DOES(libuio_adjust_size(nullptr), nullptr);
    DOES((libuio_pr(3, "LOG_ERR", 1, "f", "text"), libuio_pr(7, "LOG_DEBUG", 1, "f", "text"), 0),
         0);
}

} // namespace

// Register accesses, physical memory and the inventory. This program does not define
// libuio_log, so libuio must print nothing in it.
#include "support/register_trap.h"
#include "support/sweep.h"
#include "support/test.h"

#include <device_access/diag_inventory.h>
#include <device_access/libuio.h>
#include <device_access/mmap_device.h>
#include <device_access/regiomap_x86.h>
#include <device_access/slot_names.h>

#include <filesystem>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

namespace fs = std::filesystem;
using namespace chassis_sim;
using namespace test;

//--- registers ------------------------------------------------------------------------------------

// What the bus sees of an access, and what the caller gets.
std::string seen_of(const std::function<uint64_t(char *window)> &access)
{
    // Every read of a register gives another value, so a repeated or merged one would show.
    uint64_t next = 0xf1f2f3f4f5f6f7f0;
    register_trap window(4096, [&next](size_t, unsigned) { return ++next; });
    const uint64_t value = access(window.base() + 64);
    std::string log;
    for (const register_access &one : window.take_log())
        log += printed("%s %u@%zu=%jx ", one.kind == register_access::read ? "read" : "write",
                       one.width, one.offset, uintmax_t{one.value});
    return log + printed("-> %jx", uintmax_t{value});
}

TEST(regiomap_x86, each_access_is_one_of_its_width)
{
    EXPECT_EQ(seen_of([](char *p) { return iowrite8(0xa1, p + 1), 0; }), "write 1@65=a1 -> 0");
    EXPECT_EQ(seen_of([](char *p) { return iowrite16(0xa1b2, p + 2), 0; }), "write 2@66=a1b2 -> 0");
    EXPECT_EQ(seen_of([](char *p) { return iowrite32(0xa1b2c3d4, p + 4), 0; }),
              "write 4@68=a1b2c3d4 -> 0");
    EXPECT_EQ(seen_of([](char *p) { return ioread8(p + 1); }), "read 1@65=f1 -> f1");
    EXPECT_EQ(seen_of([](char *p) { return ioread16(p + 2); }), "read 2@66=f7f1 -> f7f1");
    EXPECT_EQ(seen_of([](char *p) { return ioread32(p + 4); }), "read 4@68=f5f6f7f1 -> f5f6f7f1");
}

TEST(regiomap_x86, an_access_of_64_bits_is_two_in_an_order_of_its_own)
{
    EXPECT_EQ(seen_of([](char *p) { return iowrite64(0x1122334455667788, p + 8), 0; }),
              "write 4@72=55667788 write 4@76=11223344 -> 0");
    EXPECT_EQ(seen_of([](char *p) { return ioread64(p + 8); }),
              "read 4@76=f5f6f7f1 read 4@72=f5f6f7f2 -> f5f6f7f1f5f6f7f2");
}

TEST(regiomap_x86, nothing_is_written_at_a_null_address)
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
    enter_private_root();
    const std::string no_memory = "Cannot open Mmap device file /dev/mem ...\n";
    EXPECT_OUTCOME(mmap_device_open(0, 4096),
                   {.value = nullptr, .error = ENOENT, .err = no_memory});
    write_file("/dev/mem", "");
    ASSERT_EQ(truncate("/dev/mem", static_cast<off_t>(address + 8192)), 0);
    char *window = nullptr;
    EXPECT_OUTCOME(window = static_cast<char *>(mmap_device_open(address, 8192)),
                   {.value = a_pointer});
    std::strcpy(window + 4096, "written");
    char text[8] = "";
    EXPECT_EQ(pread(open("/dev/mem", O_RDONLY), text, 8, static_cast<off_t>(address + 4096)), 8);
    EXPECT_STREQ(text, "written");
    mmap_device_close(nullptr, 4096);
    mmap_device_close(window, 8192);
    EXPECT_EQ(msync(window, 4096, MS_ASYNC), -1) << "still mapped";
    EXPECT_OUTCOME(mmap_device_open(address + 1, 4096) == MAP_FAILED,
                   {.value = 1, .error = EINVAL});
    const auto open_it = [] {
        const void *const result = mmap_device_open(address, 4096);
        return !result ? errno : result == MAP_FAILED ? -errno : 0;
    };
    expect_failures("mmap_device", EIO, open_it);
}

//--- the inventory --------------------------------------------------------------------------------

const std::string golden =
    std::string("DiIn\0", 5) + std::string("0001\0", 5) + "ABCDEFGHIJKLMNP1234";
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
        enter_private_root();
        write_file("/flash/diags/SW1.div", "longer than what is stored will be");
        make_directory("/var/log/diags");
        std::memcpy(&record_, golden.data(), 29);
        std::memset(&record_, 0, 10);
    }

    diag_inventory_t record_;
};

TEST_F(inventory, a_store_writes_29_bytes_twice_and_they_read_back)
{
    EXPECT_OUTCOME(diag_inventory_store("sw1", &record_), {.value = 1, .err = aaa});
    EXPECT_EQ(read_file(sw1_file), golden);
    EXPECT_EQ(read_file("/flash/diags/aaa"), golden);
    EXPECT_EQ(std::memcmp(&record_, golden.data(), 29), 0) << "the caller's record is completed";
    diag_inventory_t read = {};
    EXPECT_OUTCOME(diag_inventory_get_all("SW1", &read), {.value = 1});
    EXPECT_EQ(std::memcmp(&read, golden.data(), 29), 0);

    uint8_t bytes[16] = "...............";
    EXPECT_OUTCOME(diag_inventory_get_serno("SW1", bytes, 14), {.value = 1});
    EXPECT_STREQ(reinterpret_cast<char *>(bytes), "ABCDEFGHIJKLMN.");
    uint8_t code[7] = "......";
    EXPECT_OUTCOME(diag_inventory_get_prod_code("SW1", code, 5), {.value = 1});
    EXPECT_STREQ(reinterpret_cast<char *>(code), "ABCDE.") << "the serial number's first bytes";
    const std::string no_room = line("not enough memory for serial number");
    EXPECT_OUTCOME(diag_inventory_get_serno("SW1", bytes, 13), {.err = no_room});
    EXPECT_OUTCOME(diag_inventory_get_prod_code("SW1", code, 4), {.err = no_room});
}

TEST_F(inventory, slot_names_lead_to_their_files)
{
    for (const std::string slot : {"rpsw", "RPSW2", "rpsw1", "RPSWx", "pm4", "1"}) {
        const std::string file = slot == "pm4" ? "/flash/diags/PM4.div"
                                 : slot == "1" ? "/flash/diags/1.div"
                                               : rpsw_file;
        EXPECT_OUTCOME(diag_inventory_store(slot.c_str(), &record_), {.value = 1, .err = aaa});
        EXPECT_EQ(read_file(file), golden) << slot;
        EXPECT_OUTCOME(diag_inventory_clear(slot.c_str()), {.value = 1});
        EXPECT_OUTCOME(diag_inventory_get_all(slot.c_str(), &record_),
                       {.error = any_error, .err = line("cannot open inventory " + file)});
    }
    for (const std::string slot : {"Rpsw1", "rps", "r", "", "alsw1", "../aaa"}) {
        const std::string invalid = line("Invalid slot name " + slot);
        const std::string unopened = line("cannot open inventory ");
        EXPECT_OUTCOME(
            diag_inventory_store(slot.c_str(), &record_),
            {.error = any_error, .err = invalid + aaa + line("cannot open inventory !")});
        EXPECT_OUTCOME(diag_inventory_get_all(slot.c_str(), &record_),
                       {.error = any_error, .err = invalid + unopened});
        EXPECT_OUTCOME(diag_inventory_clear(slot.c_str()),
                       {.value = 1, .error = any_error, .err = invalid});
    }
}

TEST_F(inventory, what_is_no_whole_record_is_corrupted)
{
    const std::string corrupted = line("inventory " + sw1_file + " is corrupted");
    for (const std::string &bytes : {golden.substr(0, 28), std::string(), "DiIx" + golden.substr(4),
                                     golden.substr(0, 9) + " " + golden.substr(10)}) {
        write_file(sw1_file, bytes);
        EXPECT_OUTCOME(diag_inventory_get_all("sw1", &record_), {.err = corrupted});
        EXPECT_EQ(std::string(reinterpret_cast<char *>(&record_), bytes.size()), bytes);
        EXPECT_OUTCOME(diag_inventory_get_serno("sw1", nullptr, 0), {.err = corrupted});
    }
    write_file(sw1_file, golden + "more");
    EXPECT_OUTCOME(diag_inventory_get_all("sw1", &record_), {.value = 1});
}

TEST_F(inventory, each_failing_call_is_reported_by_its_line)
{
    // Whether all was written is not looked at.
    expect_failures("inventory/store", EIO,
                    [this] { return diag_inventory_store("sw1", &record_); });
    expect_failures("inventory/get", EIO,
                    [this] { return diag_inventory_get_all("sw1", &record_); });
    fs::remove_all("/flash/diags"); // which a store does not make
    EXPECT_OUTCOME(diag_inventory_store("sw1", &record_),
                   {.error = ENOENT,
                    .err = line("openning aaa !") + line("cannot open inventory aaa!") +
                           line("cannot open inventory " + sw1_file + "!")});
    EXPECT_FALSE(fs::exists("/flash/diags"));
}

TEST_F(inventory, clearing_all_makes_the_directories_and_deletes_what_the_slots_name)
{
    const auto clears_all_but = [](const std::string &unknown) {
        std::string lines;
        for (const std::string &slot : words(unknown))
            lines += line("Invalid slot name " + slot);
        EXPECT_OUTCOME(diag_inventory_clear_all(), {.value = 1, .error = any_error, .err = lines});
    };
    const std::string sw2_file = "/flash/diags/SW2.div";
    for (const std::string &file : {rpsw_file, sw1_file, sw2_file})
        write_file(file, golden);
    SetChassisType(ChassisType_1st_Stack);
    clears_all_but("alsw1 alsw2 sw2 sw3 sw4");
    EXPECT_FALSE(fs::exists(rpsw_file) || fs::exists(sw1_file));
    EXPECT_TRUE(fs::exists(sw2_file));
    SetChassisType(ChassisType_2nd_Stack);
    clears_all_but("alsw1 alsw2 sw3 sw4");
    EXPECT_FALSE(fs::exists(sw2_file));
    for (const char *directory : {"/flash/diags", "/var/log/diags"}) {
        fs::remove_all(directory);
        clears_all_but("alsw1 alsw2 sw3 sw4");
        struct stat status = {};
        ::stat(directory, &status);
        EXPECT_EQ(status.st_mode, S_IFDIR | mode_t{0700});
    }
}

//--- libuio without libuio_log --------------------------------------------------------------------

TEST(uio_without_log_symbol, prints_nothing)
{
    const timespec no_wait = {0, 0};
    EXPECT_OUTCOME(libuio_open_timed("/etc/passwd", &no_wait), {.value = nullptr, .error = EINVAL});
    EXPECT_OUTCOME(libuio_adjust_size(nullptr), {.value = nullptr});
    EXPECT_OUTCOME(
        (libuio_pr(3, "LOG_ERR", 1, "f", "text"), libuio_pr(7, "LOG_DEBUG", 1, "f", "text"), 0),
        {});
}

} // namespace

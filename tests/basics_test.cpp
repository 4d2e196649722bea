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
    EXPECT_OUTCOME((close(STDERR_FILENO), mmap_device_open(0, 4096)),
                   {.value = nullptr, .error = ENOENT});
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
    EXPECT_EQ(msync(window + 4096, 4096, MS_ASYNC), -1) << "still mapped";
    for (const auto &range : {std::pair<uint64_t, uint32_t>{address + 1, 4096}, {0, 0}})
        EXPECT_OUTCOME(mmap_device_open(range.first, range.second) == MAP_FAILED,
                       {.value = 1, .error = EINVAL});
    const auto open_it = [] {
        const void *const result = mmap_device_open(address, 4096);
        return !result ? errno : result == MAP_FAILED ? -errno : 0;
    };
    expect_failures("mmap_device", EIO, open_it);
    EXPECT_EQ(opens_of(open_it), "O_RDWR|O_SYNC /dev/mem\n");
}

//--- slots ----------------------------------------------------------------------------------------

TEST(slot_names, are_those_of_each_chassis)
{
    transcript seen;
    for (const int chassis : {2, 1, 0, 3, -1}) { // 2, 3 and -1 are none and change nothing
        SHOW(seen, SetChassisType(static_cast<chassis_t>(chassis)));
        seen.note(printed("chassis %d: type %d", chassis, GetChassisType()));
        for (int id = -1; id < 13; ++id) {
            const SLOT_INFO *const slot = GetSlotById(id);
            EXPECT_EQ(GetSlotByName(slot->slot_name), slot);
            seen.note(printed("  %d is slot %d '%s' of kind %d", id, slot->slotN, slot->slot_name,
                              slot->slotType));
        }
        for (const char *name :
             {"sw1", "Rp1", "SW", "SW11", "Err", static_cast<const char *>(nullptr)})
            seen.note(printed("  %s is slot %d", name ? name : "NULL", GetSlotByName(name)->slotN));
    }
    EXPECT_TEXT("slot_names.txt", seen.text());
}

//--- the inventory --------------------------------------------------------------------------------

const std::string golden =
    std::string("DiIn\0", 5) + std::string("0001\0", 5) + "ABCDEFGHIJKLMNP1234";
const std::string sw1_file = "/flash/diags/SW1.div";
const std::string rpsw_file = "/var/log/diags/RPSW.div";

struct inventory : testing::Test {
    inventory()
    {
        enter_private_root();
        write_file("/flash/diags/SW1.div", "longer than what is stored will be");
        make_directory("/var/log/diags");
        std::memcpy(&record_, golden.data(), 29);
        std::memset(&record_, 0, 10);
    }

    diag_inventory_t record_;
    transcript seen;
};

TEST_F(inventory, a_store_writes_29_bytes_twice_and_they_read_back)
{
    umask(0);
    SHOW(seen, diag_inventory_store("sw1", &record_));
    EXPECT_EQ(read_file(sw1_file), golden);
    EXPECT_EQ(read_file("/flash/diags/aaa"), golden);
    EXPECT_EQ(fs::status("/flash/diags/aaa").permissions(), fs::perms{0666});
    EXPECT_EQ(std::memcmp(&record_, golden.data(), 29), 0) << "the caller's record is completed";
    diag_inventory_t read = {};
    SHOW(seen, diag_inventory_get_all("SW1", &read));
    EXPECT_EQ(std::memcmp(&read, golden.data(), 29), 0);
    for (const uint32_t size : {14, 13, 5, 4}) {
        char bytes[16] = "...............";
        uint8_t *const to = reinterpret_cast<uint8_t *>(bytes);
        seen.note(printed("room for %u", size));
        SHOW(seen, diag_inventory_get_serno("SW1", to, size));
        seen.note(std::string("  ") + bytes);
        SHOW(seen,
             diag_inventory_get_prod_code("SW1", to, size)); // the serial number's first bytes
        seen.note(std::string("  ") + bytes);
    }
    EXPECT_TEXT("inventory/store.txt", seen.text());
}

TEST_F(inventory, slot_names_lead_to_their_files)
{
    for (const char *slot : {"rpsw", "RPSW2", "rpsw1", "RPSWx", "pm4", "1", "Rpsw1", "rps", "r", "",
                             "alsw1", "../aaa"}) {
        seen.note(slot);
        SHOW(seen, diag_inventory_store(slot, &record_));
        for (const std::string &file :
             {rpsw_file, std::string("/flash/diags/PM4.div"), std::string("/flash/diags/1.div")})
            if (read_file(file) == golden)
                seen.note("  in " + file);
        SHOW(seen, diag_inventory_clear(slot));
        SHOW(seen, diag_inventory_get_all(slot, &record_));
    }
    EXPECT_TEXT("inventory/slots.txt", seen.text());
}

TEST_F(inventory, what_is_no_whole_record_is_corrupted)
{
    for (const std::string &bytes :
         {golden.substr(0, 28), std::string(), "DiIx" + golden.substr(4),
          "DiInx" + golden.substr(5), golden.substr(0, 9) + " " + golden.substr(10),
          golden + "more"}) {
        write_file(sw1_file, bytes);
        SHOW(seen, diag_inventory_get_all("sw1", &record_));
        const size_t length = std::min<size_t>(bytes.size(), 29);
        EXPECT_EQ(std::string(reinterpret_cast<char *>(&record_), length), bytes.substr(0, length));
        uint8_t number[14];
        SHOW(seen, diag_inventory_get_serno("sw1", number, 13)); // for which there is no room
    }
    EXPECT_TEXT("inventory/corrupted.txt", seen.text());
}

TEST_F(inventory, each_failing_call_is_reported_by_its_line)
{
    // Whether all was written is not looked at.
    expect_failures("inventory/store", EIO,
                    [this] { return diag_inventory_store("sw1", &record_); });
    expect_failures("inventory/get", EIO,
                    [this] { return diag_inventory_get_all("sw1", &record_); });
    fs::remove_all("/flash/diags"); // which a store does not make
    SHOW(seen, diag_inventory_store("sw1", &record_));
    EXPECT_TEXT("inventory/no_directory.txt", seen.text());
    EXPECT_FALSE(fs::exists("/flash/diags"));
}

TEST_F(inventory, clearing_all_makes_the_directories_and_deletes_what_the_slots_name)
{
    const std::string files[] = {rpsw_file, sw1_file, "/flash/diags/SW2.div",
                                 "/flash/diags/PM4.div"};
    for (const chassis_t chassis : {ChassisType_1st_Stack, ChassisType_2nd_Stack}) {
        for (const std::string &file : files)
            write_file(file, golden);
        SetChassisType(chassis);
        SHOW(seen, diag_inventory_clear_all());
        for (const std::string &file : files)
            if (fs::exists(file))
                seen.note("  " + file + " stays");
    }
    for (const char *directory : {"/flash/diags", "/var/log/diags"}) {
        fs::remove_all(directory);
        diag_inventory_clear_all();
        struct stat status = {};
        ::stat(directory, &status);
        EXPECT_EQ(status.st_mode, S_IFDIR | mode_t{0700});
    }
    EXPECT_TEXT("inventory/clear_all.txt", seen.text());
}

//--- the version --------------------------------------------------------------------------------

TEST(version, is_that_of_the_headers)
{
    EXPECT_STREQ(device_access_version(), DEVICE_ACCESS_VERSION);
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

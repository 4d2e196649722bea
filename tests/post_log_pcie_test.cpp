#include "sim/nvram_controller.h"
#include "sim/post_log.h"
#include "support/expect_outcome.h"

#include <device_access/post_log_nvram_pcie_access.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <iomanip>
#include <sstream>
#include <string>

namespace
{

using chassis_sim::byte_order;
using chassis_sim::nvram_controller;
using chassis_sim::post_block;
using test_support::expect_outcome;

constexpr auto big = byte_order::big;
constexpr uint32_t event_base = 0x8000;
constexpr uint32_t test_base = 0x18000; // the low 20 bits of 0xFD118000
constexpr uint32_t error_base = 0x20000;

// Accesses in order: "s" and "b" for a look at the status register that finds the controller ready
// or busy, "cX" for the control word X, "d" for a word of data.
std::string text(const std::vector<chassis_sim::register_access> &log)
{
    std::ostringstream out;
    out << std::hex;
    for (const auto &access : log) {
        const bool is_read = access.kind == chassis_sim::register_access::read;
        if (access.width != 4)
            out << "width" << access.width;
        if (access.offset == nvram_controller::status && is_read)
            out << (access.value & 1 ? "b" : "s");
        else if (access.offset == nvram_controller::control && !is_read)
            out << "c" << access.value << " ";
        else if (access.offset == nvram_controller::data && is_read)
            out << "d";
        else
            out << "?" << access.offset;
    }
    return out.str();
}

class post_log_pcie : public testing::Test
{
protected:
    post_log_pcie() { postlog_map_pcie_nvram_access(controller.base()); }

    // The sample logs, with the geometry of this access method.
    void load_sample_logs()
    {
        logs = chassis_sim::sample_post_logs();
        logs[1].size = 32768;
        controller.store(event_base, logs[0].image(big));
        controller.store(test_base, logs[1].image(big));
        controller.store(error_base, logs[2].image(big));
    }

    nvram_controller controller;
    std::vector<post_block> logs;
};

TEST_F(post_log_pcie, control_words)
{
    EXPECT_EQ(set_nvc_ctl_reg(0xFD118024, 0, 0, 0xAB), 0x00018024u);
    EXPECT_EQ(set_nvc_ctl_reg(0x24, 0, 1, 0xAB), 0x00200024u);
    EXPECT_EQ(set_nvc_ctl_reg(0xFFFFFFFF, 1, 0, 0xAB), 0xAB1FFFFFu);
    EXPECT_EQ(set_nvc_ctl_reg(0, 1, 2, 0x01), 0x01300000u);
}

TEST_F(post_log_pcie, a_read_makes_exactly_these_accesses)
{
    controller.store(0x1234, "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ!?");
    struct {
        uint32_t size;
        std::string accesses;
        std::string bytes;
    } const cases[] = {
        {1, "sc1234 sd", "0"},
        {2, "sc1234 sd", "1."}, // of a tail only one byte, and that not the one at its place
        {3, "sc1234 sd", "2.."},
        {4, "sc1234 sd", "0123"},
        {7, "sc1234 sdd", "01236.."},
        {32, "sc1234 sdddddddd", "0123456789abcdefghijklmnopqrstuv"},
        {33, "sc201234 sddddddddsd", "0123456789abcdefghijklmnopqrstuvw"},
        {36, "sc201234 sddddddddsd", "0123456789abcdefghijklmnopqrstuvwxyz"},
        {40, "sc201234 sddddddddsdd", "0123456789abcdefghijklmnopqrstuvwxyzABCD"},
        {64, "sc201234 sddddddddsdddddddd",
         "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ!?"},
    };
    for (const auto &[size, accesses, bytes] : cases) {
        std::string buffer(size + 1, '.');
        EXPECT_EQ(pcie_nvram_read(0x1234, size, reinterpret_cast<uint8_t *>(buffer.data()), 0), 0);
        EXPECT_EQ(buffer, bytes + ".");
        EXPECT_EQ(text(controller.take_log()), accesses) << size;
    }
    std::string swapped(12, '.');
    EXPECT_EQ(pcie_nvram_read(0x1234, 11, reinterpret_cast<uint8_t *>(swapped.data()), 1), 0);
    EXPECT_EQ(swapped, "321076549...") << "the tail comes out of the reversed word, too";
    controller.take_log();

    controller.set_busy_looks(9); // one less than is waited for
    std::string buffer(36, '.');
    EXPECT_EQ(pcie_nvram_read(0x1234, 36, reinterpret_cast<uint8_t *>(buffer.data()), 0), 0);
    EXPECT_EQ(buffer, "0123456789abcdefghijklmnopqrstuvwxyz");
    EXPECT_EQ(text(controller.take_log()), "sc201234 bbbbbbbbbsddddddddbbbbbbbbbsd");
}

TEST_F(post_log_pcie, refused_and_timed_out_reads)
{
    uint8_t bytes[64];
    const std::string refused = "pcie_nvram_read(): argument error \n";
    expect_outcome([&] { return pcie_nvram_read(0, 4, bytes, 0); }, 1, "", refused);
    expect_outcome([&] { return pcie_nvram_read(4, 0, bytes, 0); }, 1, "", refused);
    expect_outcome([&] { return pcie_nvram_read(4, 4, nullptr, 0); }, 1, "", refused);
    EXPECT_EQ(text(controller.take_log()), "");

    const std::string timeout = "check_nvc_ready(): PCIE NVRAM Busy check Timed out.\n"
                                "pcie_nvram_read(): PCIE NVRAM Busy check Timed out.\n";
    const auto read = [&] { return pcie_nvram_read(4, 4, bytes, 0); };
    controller.set_busy_looks(25); // behind the control word: two times 10 looks, and 5 more
    const auto start = std::chrono::steady_clock::now();
    expect_outcome(read, 1, "", timeout);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(10));
    EXPECT_EQ(text(controller.take_log()), "sc4 bbbbbbbbbb");
    expect_outcome([&] { return postlog_pcie_nvram_rd(OFWEVENT_LOG, 4, bytes, 4); }, 0, "",
                   timeout + "ERROR: postlog_pcie_nvram_rd(): POST NVRAM Read error!\n");
    EXPECT_EQ(text(controller.take_log()), "bbbbbbbbbb") << "busy before the control word";
    expect_outcome(check_nvc_ready, 1, "", "");
    EXPECT_EQ(text(controller.take_log()), "bbbbbs");
}

TEST_F(post_log_pcie, records_are_converted_field_by_field_and_checked_as_stored)
{
    const std::string index = "\x10\x6F\x11\xE5" + std::string("\0\0\0\x02\0\0\x0C\xC0", 8);
    controller.store(test_base, index);
    nvram_log_index_t read;
    ASSERT_EQ(postlog_rd_log_index(OFWDIAG_TEST_LOG, 0, &read), 1);
    EXPECT_EQ(read.magic, 0x106F11E5u);
    EXPECT_EQ(read.header_index, 2u);
    EXPECT_EQ(read.log_size, 0xCC0u);
    EXPECT_EQ(text(controller.take_log()), "sc18000 sddd");

    controller.store(error_base + 12,
                     chassis_sim::post_header(big, 0x01020304, 0x05060708, 0x1122334455667788, 9));
    nvram_log_header_t header;
    ASSERT_EQ(postlog_rd_log_header(OFWDIAG_ERROR_LOG, 12, &header), 1);
    EXPECT_EQ(header.log_size, 0x01020304u);
    EXPECT_EQ(header.index, 0x05060708u);
    EXPECT_EQ(header.version, 9u);
    EXPECT_EQ(header.start, 0x1122334455667788u);
    EXPECT_EQ(postlog_validate_log_header(&header), 1);
    header.start ^= uint64_t{1} << 63;
    EXPECT_EQ(postlog_validate_log_header(&header), 0);

    controller.store(event_base + 24,
                     chassis_sim::post_entry_head(big, 0x0102030405060708, 0x1112131415161718, 99));
    nvram_log_t entry;
    ASSERT_EQ(postlog_rd_log(OFWEVENT_LOG, 24, &entry), 1);
    EXPECT_EQ(entry.time.tv_sec, 0x0102030405060708u);
    EXPECT_EQ(entry.time.tv_usec, 0u);
    EXPECT_EQ(entry.epoch_time.tv_sec, 0x1112131415161718u);
    EXPECT_EQ(entry.entry_size, 99u);
    EXPECT_EQ(postlog_validate_log_entry(&entry), 1);
    EXPECT_NE(entry.log_checksum, 0u) << "left alone by the check";
    entry.epoch_time.tv_usec = 1;
    EXPECT_EQ(postlog_validate_log_entry(&entry), 0);
}

TEST_F(post_log_pcie, the_logs_are_walked_and_read_until_they_are_closed_for_good)
{
    load_sample_logs();
    time_t time = 0;
    char message[16];
    EXPECT_EQ(postlog_nvram_open_dir(OFWDIAG_TEST_LOG), 2);
    EXPECT_EQ(postlog_nvram_read_dir(OFWDIAG_TEST_LOG, 2, &time), 1);
    EXPECT_EQ(time, 1700172805);
    EXPECT_EQ(postlog_nvram_read_dir(OFWDIAG_TEST_LOG, 1, &time), 0);
    const int first = postlog_nvram_open_log(OFWDIAG_TEST_LOG, 1);
    EXPECT_EQ(first, static_cast<int>(logs[1].entry_position(1, 0)));
    const int second = postlog_nvram_read_log(OFWDIAG_TEST_LOG, first, &time, message, 16);
    EXPECT_EQ(second, first + 72);
    EXPECT_EQ(postlog_nvram_read_log(OFWDIAG_TEST_LOG, second, &time, message, 16), -2);
    EXPECT_EQ(std::string(message, 15), "PCIe link: FAIL");
    EXPECT_EQ(postlog_nvram_close_log(OFWDIAG_TEST_LOG, 1), 1);

    EXPECT_EQ(postlog_nvram_dump_all_log_msgs(OFWEVENT_LOG), 1); // closes
    postlog_map_pcie_nvram_access(controller.base());
    expect_outcome([] { return postlog_nvram_init(OFWEVENT_LOG); }, -1, "",
                   "pcie_nvram_read(): argument error \n"
                   "ERROR: postlog_pcie_rd_log_header(): POST NVRAM Read error!\n"
                   "ERROR postlog_pcie_nvram_init: cannot read from the device file!\n");
}

TEST_F(post_log_pcie, blocks_that_the_firmware_has_not_set_up_are_closed_for_good)
{
    controller.store(error_base, "\x01\x02\x03\x04");
    expect_outcome([] { return postlog_nvram_init(OFWEVENT_LOG); }, -1, "",
                   "ERROR: postlog_pcie_nvram_init : header structure not initialized! cannot open "
                   "for reading!!\n");
    expect_outcome([] { return postlog_nvram_init(OFWDIAG_ERROR_LOG); }, -1, "",
                   "ERROR: postlog_dev_file_nvram_init: magic number not initialized! cannot open "
                   "for reading!!\nmagic number: read = 0x1020304 expect = 0x106f11e5\n");
    uint8_t byte;
    for (const log_type_t blk : {OFWEVENT_LOG, OFWDIAG_ERROR_LOG, log_type_t(3), log_type_t(-1)})
        expect_outcome([&] { return postlog_pcie_nvram_rd(blk, 24, &byte, 1); }, 0, "",
                       "ERROR: postlog_pcie_nvram_rd(): cannot access device!\n");
    EXPECT_EQ(postlog_pcie_nvram_init(log_type_t(3)), -1);
}

TEST_F(post_log_pcie, the_table_says_how_large_blocks_are_and_how_many_histories_they_have)
{
    const std::pair<log_type_t, uint32_t> blocks[] = {{OFWDIAG_TEST_LOG, test_base},
                                                      {OFWDIAG_ERROR_LOG, error_base}};
    for (const auto &[block, base] : blocks) {
        const log_type_t blk = block;
        const auto position = [blk] { return post_get_curr_log_hdr_pos(blk); };
        controller.store(base, chassis_sim::post_index(big, 1, 0x7FF3));
        expect_outcome(position, 0x7FFF, "", "");
        controller.store(base, chassis_sim::post_index(big, 1, 0x7FF4));
        expect_outcome(position, -1, "",
                       "post_get_log_hdr_pos: calcuated hdr position 0x8000 exceeds to storage "
                       "size! index log_size = 0x7ff4\n");
        controller.store(base, chassis_sim::post_index(big, 10, 0x100));
        expect_outcome([blk] { return postlog_nvram_open_dir(blk); }, -1,
                       "postlog_nvram_open_dir: invalid subblock # 10!! must be smaller than 10\n",
                       "");
    }
}

TEST_F(post_log_pcie, a_block_that_cannot_be_opened_is_closed_in_the_mapped_way)
{
    static int closings = 0;
    postlog_map_nvram_access(
        nullptr, postlog_pcie_nvram_init, postlog_pcie_nvram_rd, [](log_type_t) { ++closings; },
        postlog_pcie_rd_log_index, postlog_pcie_rd_log_header, postlog_pcie_rd_log,
        postlog_pcie_validate_log_header, postlog_pcie_validate_log_entry);
    test_support::captured_output output;
    for (const log_type_t blk : {OFWEVENT_LOG, OFWDIAG_TEST_LOG, OFWDIAG_ERROR_LOG})
        EXPECT_EQ(postlog_nvram_init(blk), -1);
    EXPECT_EQ(closings, 3);
}

TEST_F(post_log_pcie, nothing_is_read_beyond_the_controllers_addresses)
{
    constexpr uint32_t last = 0x100000 - event_base - sizeof(nvram_log_t);
    nvram_log_t entry;
    uint8_t bytes[64];
    expect_outcome([&] { return postlog_rd_log(OFWEVENT_LOG, last, &entry); }, 1, "", "");
    for (const uint32_t offset : {last + 1, 0x100000u, 0xFFFFFFFFu}) {
        expect_outcome([&] { return postlog_rd_log(OFWEVENT_LOG, offset, &entry); }, -1, "",
                       "ERROR: postlog_pcie_rd_log(): POST NVRAM Read error!\n");
        expect_outcome([&] { return post_nvram_mem_rd(OFWEVENT_LOG, offset, bytes, 40); }, 0, "",
                       "ERROR: postlog_pcie_nvram_rd(): POST NVRAM Read error!\n");
    }
}

TEST_F(post_log_pcie, absurd_entries_neither_overrun_nor_go_on_for_ever)
{
    load_sample_logs();
    const std::string failure = "ERROR: postlog_pcie_rd_log(): POST NVRAM Read error!\n";
    time_t time;
    for (const uint32_t size : {0xFFFFFFFFu, 0x80000000u, 0x100000u - 40}) { // to itself
        controller.store(event_base + 24, chassis_sim::post_entry_head(big, 1, 2, size));
        controller.store(event_base + 64, std::string(0xF000, 'x'));
        std::string message(64, '.');
        expect_outcome(
            [&] { return postlog_nvram_read_log(OFWEVENT_LOG, 24, &time, message.data(), 63); }, -1,
            "", failure);
        EXPECT_EQ(message, std::string(61, 'x') + "...");
        test_support::captured_output output;
        EXPECT_EQ(postlog_nvram_dump_log_msgs(OFWEVENT_LOG, 0), -1);
        const std::string dump = output.take_stdout();
        EXPECT_EQ(dump.find_last_of('x') - dump.find_first_of('x') + 1, 8192u);
    }
}

} // namespace

#include "sim/chassis.h"
#include "support/descriptors.h"
#include "support/post_outcome.h"
#include "support/system_calls.h"

#include <device_access/post_log_nvram.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace
{

namespace fs = std::filesystem;
using chassis_sim::byte_order;
using chassis_sim::post_block;
using test_support::open_descriptors;
using test_support::outcome;
using test_support::outcome_of;

constexpr auto little = byte_order::little;
const std::string class_dir = "/sys/class/zmt_nvram/nvram";

//--- device files ---------------------------------------------------------------------------------

void start_chassis(const std::vector<post_block> &blocks = chassis_sim::sample_post_logs())
{
    chassis_sim::enter_private_root();
    chassis_sim::device_server server;
    chassis_sim::add_post_logs(server, blocks, 0);
    server.start();
    postlog_map_def_nvram_access();
}

// A table of the caller's own, read with the library's device file functions.
void map_own_table(nvram_dev_info_t *table)
{
    postlog_map_nvram_access(table, postlog_dev_file_nvram_init, post_dev_file_nvram_mem_rd,
                             postlog_dev_file_nvram_close, postlog_dev_rd_log_index,
                             postlog_dev_rd_log_header, postlog_dev_rd_log,
                             postlog_dev_validate_log_header, postlog_dev_validate_log_entry);
}

nvram_dev_info_t row(const char *path, const char *name, int histories)
{
    nvram_dev_info_t info = {"", "", 7, 4096, histories, 32, 0xFFFFFFE0, 0, -1, 0x1234};
    std::strcpy(info.path, path);
    std::strcpy(info.name, name);
    return info;
}

// A log as a client reads it: "history@time ..." and how the walk ended, then for each history
// "position 'message' ...".
std::string walk(log_type_t blk)
{
    std::ostringstream text;
    std::vector<int> histories;
    int h = postlog_nvram_open_dir(blk);
    while (h >= 0) {
        histories.push_back(h);
        time_t time = -1;
        h = postlog_nvram_read_dir(blk, h, &time);
        text << histories.back() << "@" << time << " ";
    }
    text << h << "\n";
    postlog_nvram_close_dir(blk);
    for (const int history : histories) {
        for (int p = postlog_nvram_open_log(blk, history); p > 0;) {
            time_t time;
            char message[17] = "";
            const int next = postlog_nvram_read_log(blk, p, &time, message, 16);
            text << p << " '" << message << "' ";
            p = next;
        }
        postlog_nvram_close_log(blk, history);
        text << "\n";
    }
    return text.str();
}

TEST(post_log_device, the_three_logs_of_a_chassis_are_walked_and_read)
{
    start_chassis();
    const std::ptrdiff_t before = open_descriptors();
    const outcome quiet = outcome_of([] {
        EXPECT_EQ(walk(OFWEVENT_LOG), "0@1700000000 -2\n24 'power-on reset' "
                                      "192 'memory sized: 20' 360 'handing over to ' \n");
        EXPECT_EQ(walk(OFWDIAG_TEST_LOG), "2@1700172805 1@1700086405 0@1700000005 -2\n"
                                          "3300 'DRAM march: pass' 3372 'PCIe link: pass' \n"
                                          "1668 'DRAM march: pass' 1740 'PCIe link: FAIL' \n"
                                          "36 'DRAM march: pass' 108 'PCIe link: pass' \n");
        EXPECT_EQ(walk(OFWDIAG_ERROR_LOG), "1@1700086406 -2\n3300 'PCIe link: slot ' \n");
        return 0;
    });
    EXPECT_EQ(quiet, (outcome{0, "", ""}));
    EXPECT_EQ(open_descriptors(), before);
}

TEST(post_log_device, opening_takes_over_what_sysfs_says_of_the_block)
{
    post_block block = chassis_sim::sample_post_logs()[2];
    start_chassis({block});
    struct {
        const char *mode;
        int attr;
    } const modes[] = {{"rw\n", 2}, {"ro\n", 0}, {"r\n", 0}, {"wr\n", 0}, {"", 0}};
    for (const auto &[mode, attr] : modes) {
        chassis_sim::write_file(class_dir + "0/mode", mode);
        nvram_dev_info_t table[3] = {{}, row("/dev/nvlog-diag-error", "nvlog-diag-error", 10), {}};
        map_own_table(table);
        EXPECT_EQ(postlog_nvram_init(OFWDIAG_TEST_LOG), 1);
        EXPECT_EQ(table[1].attr, attr) << mode;
        EXPECT_EQ(table[1].ofw_base, 0xF0004000);
        EXPECT_EQ(table[1].mem_size, 32768);
        EXPECT_EQ(table[1].subblock_size, 3264);
        postlog_nvram_close(OFWDIAG_TEST_LOG);
        EXPECT_EQ(table[1].fd, -1);
    }
}

TEST(post_log_device, missing_properties_leave_the_tables_values)
{
    start_chassis();
    const std::string warning = "WARNING: failed to read NVRAM info. use default value.\n";
    struct {
        std::string file;
        std::string what;
    } const cases[] = {
        {"mode", "access attribute"}, {"size", "size"}, {"baseaddr", "base address"}};
    for (const auto &[file, what] : cases) {
        const std::string path = class_dir + "0/" + file;
        fs::remove(path);
        nvram_dev_info_t table[3] = {row("/dev/nvlog-ofw-event", "nvlog-ofw-event", 1), {}, {}};
        map_own_table(table);
        EXPECT_EQ(outcome_of([] { return postlog_nvram_init(OFWEVENT_LOG); }),
                  (outcome{1, warning,
                           "ERROR: " + path + ": failed to read " + what +
                               " from postlog_nvram_find_blk_properties!\n"}));
        EXPECT_EQ(table[0].attr, 7);
        EXPECT_EQ(table[0].mem_size, 4096);
        EXPECT_EQ(table[0].ofw_base, 0x1234u);
        postlog_nvram_close(OFWEVENT_LOG);
    }
    nvram_dev_info_t renamed[3] = {row("/dev/nvlog-ofw-event", "nvlog-ofw", 1), {}, {}};
    map_own_table(renamed);
    EXPECT_EQ(outcome_of([] { return postlog_nvram_init(OFWEVENT_LOG); }),
              (outcome{1, warning,
                       "ERROR: nvlog-ofw: cannot find nvram block named "
                       "postlog_nvram_find_blk_properties!\n"}));
    postlog_nvram_close(OFWEVENT_LOG);
}

TEST(post_log_device, a_block_that_cannot_be_opened_is_reported_and_leaks_nothing)
{
    start_chassis();
    chassis_sim::make_symlink("/dev/dangling", "/dev/nowhere/at-all");
    fs::remove(class_dir + "2/dev");
    const std::string cannot = "ERROR postlog_dev_file_nvram_init: cannot open the device file!\n";
    struct {
        nvram_dev_info_t info;
        std::string first_line;
    } const cases[] = {
        {row("/dev/x", "unknown", 1), ""},
        {row("/dev/x", "nvlog-diag-error", 10), ""}, // its device number is missing
        {row("/dev/none/x", "nvlog-ofw-event", 1),
         "mknod(/dev/none/x) failed: No such file or directory\n"},
        {row("/dev/dangling", "nvlog-ofw-event", 1),
         "ERROR: cannot open newly created dev file /dev/dangling!\n"},
    };
    const std::ptrdiff_t before = open_descriptors();
    for (const auto &[info, first_line] : cases) {
        nvram_dev_info_t table[3] = {info, {}, {}};
        map_own_table(table);
        EXPECT_EQ(outcome_of([] { return postlog_nvram_init(OFWEVENT_LOG); }),
                  (outcome{-1, "", first_line + cannot}));
        EXPECT_EQ(
            outcome_of([] { return postlog_nvram_open_dir(OFWEVENT_LOG); }),
            (outcome{-1, "postlog_nvram_open_dir: cannot open device!!\n", first_line + cannot}));
        EXPECT_EQ(open_descriptors(), before);
    }
}

TEST(post_log_device, the_device_file_is_tried_ten_times_before_the_search)
{
    chassis_sim::enter_private_root();
    postlog_map_def_nvram_access();
    const auto calls = test_support::count_system_calls([] { postlog_nvram_init(OFWEVENT_LOG); });
    EXPECT_EQ(calls.at("open"), 10 + 1) << test_support::text(calls);
}

TEST(post_log_device, a_second_opening_is_refused_and_the_first_stays)
{
    start_chassis();
    EXPECT_EQ(postlog_nvram_init(OFWDIAG_TEST_LOG), 1);
    EXPECT_EQ(outcome_of([] { return postlog_nvram_init(OFWDIAG_TEST_LOG); }),
              (outcome{-1, "",
                       "ERROR: postlog_dev_file_nvram_init: current device is currently opened "
                       "already!\n"}));
    nvram_log_index_t index;
    EXPECT_EQ(postlog_rd_log_index(OFWDIAG_TEST_LOG, 0, &index), 1);
    EXPECT_EQ(index.header_index, 2u);
    postlog_nvram_close(OFWDIAG_TEST_LOG);
    postlog_nvram_close(OFWDIAG_TEST_LOG);
    EXPECT_EQ(outcome_of([&] { return postlog_rd_log_index(OFWDIAG_TEST_LOG, 0, &index); }),
              (outcome{-1, "",
                       "ERROR: post_nvram_mem_rd: cannot access device!\n"
                       "ERROR postlog_dev_rd_log_index: cannot read from the device file!\n"}));
}

TEST(post_log_device, blocks_that_the_firmware_has_not_set_up_do_not_open)
{
    auto blocks = chassis_sim::sample_post_logs();
    start_chassis(blocks);
    for (int blk : {0, 1, 2}) // fill the devices with something else
        ASSERT_EQ(postlog_nvram_init(static_cast<log_type_t>(blk)), 1);
    for (int blk : {0, 1, 2})
        postlog_nvram_close(static_cast<log_type_t>(blk));
    const std::ptrdiff_t before = open_descriptors();
    for (const auto &[name, junk] : {std::pair<std::string, std::string>{"nvlog-ofw-event", "XXXX"},
                                     {"nvlog-diag-test", "\x01\x02\x03\x04\x05"}}) {
        const int fd = ::open(("/dev/" + name).c_str(), O_RDWR);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(::pwrite(fd, junk.data(), junk.size(), 0), static_cast<ssize_t>(junk.size()));
        ::close(fd);
    }
    EXPECT_EQ(outcome_of([] { return postlog_nvram_init(OFWEVENT_LOG); }),
              (outcome{-1, "",
                       "ERROR: postlog_dev_file_nvram_init : header structure not initialized! "
                       "cannot open for reading!!\n"}));
    EXPECT_EQ(
        outcome_of([] { return postlog_nvram_init(OFWDIAG_TEST_LOG); }),
        (outcome{-1,
                 "post_nvram_dump_block_index: \t  magic number = 0x4030201 \n\t header index "
                 "= 0x5\t size = 0x660 \n\t\n",
                 "ERROR: postlog_dev_file_nvram_init: magic number not initialized! cannot "
                 "open for reading!!\nmagic number: read = 0x4030201 expect = 0x106f11e5\n"}));
    EXPECT_EQ(open_descriptors(), before);
}

TEST(post_log_device, blocks_without_a_row_behave_as_closed_ones)
{
    chassis_sim::enter_private_root();
    postlog_map_def_nvram_access();
    for (const int number : {-1, 3, INT_MIN, INT_MAX}) {
        const log_type_t blk = static_cast<log_type_t>(number);
        time_t time;
        char text[8];
        const outcome all = outcome_of([&] {
            EXPECT_EQ(postlog_nvram_open_dir(blk), -1);
            EXPECT_EQ(postlog_nvram_read_dir(blk, 0, &time), -1);
            EXPECT_EQ(postlog_nvram_open_log(blk, 0), -1);
            EXPECT_EQ(postlog_nvram_read_log(blk, 0, &time, text, sizeof text), -1);
            EXPECT_EQ(postlog_nvram_dump_log_msgs(blk, 0), -1);
            EXPECT_EQ(postlog_nvram_dump_all_log_msgs(blk), -1);
            return postlog_nvram_close_log(blk, 0) + postlog_nvram_close_dir(blk);
        });
        EXPECT_EQ(all.result, 2);
    }
}

//--- a block in memory, behind the library's record readers ---------------------------------------

std::string memory;
int closings;

int init_memory(log_type_t)
{
    return 1;
}

int read_memory(log_type_t, uint32_t offset, uint8_t *buffer, uint32_t size)
{
    if (offset >= memory.size())
        return 0;
    const size_t length = std::min<size_t>(size, memory.size() - offset);
    std::memcpy(buffer, memory.data() + offset, length);
    return static_cast<int>(length);
}

void close_memory(log_type_t)
{
    ++closings;
}

nvram_dev_info_t memory_table[3];

void map_memory(nvram_init_fp init = init_memory, nvram_mem_rd_fp rd = read_memory,
                nvram_close_fp close = close_memory,
                nvram_validate_log_header validate_header = postlog_dev_validate_log_header,
                nvram_validate_log_entry validate_entry = postlog_dev_validate_log_entry)
{
    postlog_map_nvram_access(memory_table, init, rd, close, postlog_dev_rd_log_index,
                             postlog_dev_rd_log_header, postlog_dev_rd_log, validate_header,
                             validate_entry);
}

void put(size_t position, const std::string &bytes)
{
    memory.replace(position, bytes.size(), bytes);
}

class post_log : public testing::Test
{
protected:
    // Block 1 (and 2, 0: the event log is in memory at the same place, without an index).
    post_log()
    {
        ::setenv("TZ", "UTC", 1);
        block.name = "in-memory";
        block.size = 4096;
        block.message_size = 32;
        block.current = 1;
        block.histories = {{{1000, 5, "oldest"}, {1001, 6, "last of it"}},
                           {{0xFFFFFFFFF0000000, 7, "newest"}},
                           {},
                           {{3000, 8, "older"}}};
        memory = block.image(little);
        closings = 0;
        for (nvram_dev_info_t &info : memory_table)
            info = {"", "", 0, 4096, 4, 32, 0xFFFFFFE0, 0, -1, 0xF0006000};
        memory_table[0].num_subblock = 1;
        map_memory();
    }

    void expect(const std::function<int()> &call, const outcome &expected, int closes)
    {
        closings = 0;
        EXPECT_EQ(outcome_of(call), expected);
        EXPECT_EQ(closings, closes);
    }

    static constexpr log_type_t blk = OFWDIAG_TEST_LOG;
    post_block block;
};

TEST(post_log_access, nothing_is_mapped_at_first)
{
    const auto line = [](const char *routine, const char *what) {
        return std::string("ERROR: ") + routine + ": no actual nvram " + what +
               " function mapped!\n";
    };
    const log_type_t blk = OFWEVENT_LOG;
    nvram_log_index_t index;
    nvram_log_header_t header;
    nvram_log_t entry;
    time_t time;
    uint8_t byte;
    struct {
        std::function<int()> call;
        outcome expected;
    } const cases[] = {
        {[=] { return postlog_nvram_init(blk); }, {-1, "", line("postlog_nvram_init", "'init'")}},
        {[&] { return post_nvram_mem_rd(blk, 0, &byte, 1); },
         {0, "", line("post_nvram_mem_rd", "'read'")}},
        {[=] { return postlog_nvram_close(blk), 5; },
         {5, "", line("postlog_nvram_close", "'close'")}},
        {[&] { return postlog_rd_log_index(blk, 0, &index); },
         {-1, "", line("postlog_rd_log_index", "access")}},
        {[&] { return postlog_rd_log_header(blk, 0, &header); },
         {-1, "", line("postlog_rd_log_header", "access")}},
        {[&] { return postlog_rd_log(blk, 0, &entry); },
         {-1, "", line("postlog_rd_log", "access")}},
        {[&] { return postlog_validate_log_header(&header); },
         {-1, "", line("postlog_validate_log_header", "access")}},
        {[&] { return postlog_validate_log_entry(&entry); },
         {-1, "", line("postlog_validate_log_entry", "access")}},
        {[=] { return postlog_nvram_open_dir(blk); },
         {-1, "postlog_nvram_open_dir: cannot open device!!\n",
          line("postlog_nvram_init", "'init'")}},
        {[=] { return postlog_nvram_open_log(blk, 0); },
         {-1, "", line("postlog_nvram_init", "'init'")}},
        {[=] { return postlog_nvram_dump_all_log_msgs(blk); },
         {-1, "", line("postlog_nvram_init", "'init'")}},
        {[&] { return postlog_nvram_read_log(blk, 24, &time, nullptr, 0); },
         {-1, "", line("postlog_rd_log", "access")}},
        {[=] { return postlog_nvram_close_log(blk, 0); },
         {1, "", line("postlog_nvram_close", "'close'")}},
    };
    for (const auto &[call, expected] : cases)
        EXPECT_EQ(outcome_of(call), expected);
}

TEST_F(post_log, without_validation_functions_records_count_as_valid)
{
    map_memory(init_memory, read_memory, close_memory, nullptr, nullptr);
    memory[block.header_position(1)] ^= 1;
    memory[block.entry_position(1, 0)] ^= 1;
    const std::string header =
        "ERROR: postlog_validate_log_header: no actual nvram access function "
        "mapped!\n";
    const std::string entry = "ERROR: postlog_validate_log_entry: no actual nvram access function "
                              "mapped!\n";
    expect([] { return postlog_nvram_open_dir(blk); }, {1, "", header + header + entry}, 0);
    expect([] { return postlog_nvram_open_log(blk, 1); },
           {static_cast<int>(block.entry_position(1, 0)), "", header + entry + entry}, 0);
}

TEST_F(post_log, records_that_cannot_be_read_close_their_block_once)
{
    memory.clear();
    nvram_log_index_t index;
    nvram_log_header_t header;
    nvram_log_t entry;
    expect([&] { return postlog_rd_log_index(blk, 0, &index); },
           {-1, "", "ERROR postlog_dev_rd_log_index: cannot read from the device file!\n"}, 1);
    expect([&] { return postlog_rd_log_header(blk, 0, &header); },
           {-1, "", "ERROR postlog_dev_rd_log_header: cannot read from the device file!\n"}, 1);
    expect([&] { return postlog_rd_log(blk, 0x64, &entry); },
           {-1, "", "ERROR postlog_dev_rd_log: cannot read from the device file! offset = 0x64\n"},
           1);
    time_t time;
    expect([&] { return postlog_nvram_read_log(blk, 0x64, &time, nullptr, 0); },
           {-1, "", "ERROR postlog_dev_rd_log: cannot read from the device file! offset = 0x64\n"},
           1);
    expect([] { return postlog_dev_file_nvram_close(blk), closings; }, {0, "", ""}, 0);
}

// What opening a history says of a damaged block, and how often it closes it.
TEST_F(post_log, damage_is_reported_where_it_is_met)
{
    const std::string no_position = "post_get_log_pos: failed to get hdr postition. subblock=";
    const std::string cut = "ERROR postlog_dev_rd_log";
    const size_t h = block.header_position(3);
    const size_t e = block.entry_position(3, 0);
    struct {
        std::function<void()> damage;
        log_type_t blk;
        int history;
        outcome expected;
        int closes;
    } const cases[] = {
        {[] {},
         OFWEVENT_LOG,
         1,
         {-1, "",
          "ERROR: post_get_log_hdr_pos: invalid index 1; must less than 1!\n" + no_position +
              "1 log=0\n"},
         1},
        {[] {},
         blk,
         4,
         {-1, "",
          "ERROR: post_get_log_hdr_pos: invalid index 4; must less than 4!\n" + no_position +
              "4 log=0\n"},
         1},
        {[] {},
         blk,
         -1,
         {-1, "",
          "post_get_log_hdr_pos: calcuated hdr position 0xfffffc0c exceeds to storage size! index "
          "log_size = 0x400\n" +
              no_position + "-1 log=0\n"},
         1},
        {[] { put(0, chassis_sim::post_index(little, 1, 1024, 0xABCD)); },
         blk,
         3,
         {-1, "ERROR: post_get_log_hdr_pos: invalid magic number 0xabcd!\n",
          no_position + "3 log=0\n"},
         1},
        {[] { put(0, chassis_sim::post_index(little, 1, 0xFFFFFFF0)); },
         blk,
         3,
         {-1, "",
          "post_get_log_hdr_pos: calcuated hdr position 0xffffffdc exceeds to storage size! index "
          "log_size = 0xfffffff0\n" +
              no_position + "3 log=0\n"},
         1},
        {[=] { memory.resize(h); },
         blk,
         3,
         {-1, "",
          cut + "_header: cannot read from the device file!\n"
                "post_get_log_pos: subblock=3 log=0 hdr position = 0xc0c\n"},
         2},
        {[=] { memory.resize(e); },
         blk,
         3,
         {-1, "",
          cut + ": cannot read from the device file! offset = 0xc24\n"
                "post_get_log_pos: faild to read log structure at position 0xc24"
                "post_get_log_pos: hdr struct: OFW base = f0006000  start addr/offset=c24/0xc24 "
                "index =0x48 log pos = 0xc24\n"},
         2},
        {[=] { memory[h] ^= 1; }, blk, 3, {-1, "", ""}, 1},
        {[=] { memory[e] ^= 1; }, blk, 3, {-1, "", ""}, 1},
        {[] {}, blk, 2, {-1, "", ""}, 1}, // empty
        {[] { memory.clear(); },
         blk,
         3,
         {-1, "", cut + "_index: cannot read from the device file!\n" + no_position + "3 log=0\n"},
         2},
    };
    for (const auto &[damage, which, history, expected, closes] : cases) {
        memory = block.image(little);
        damage();
        expect([&] { return postlog_nvram_open_log(which, history); }, expected, closes);
    }
}

TEST_F(post_log, opening_a_directory_says_why_there_is_nothing_to_list)
{
    const size_t newest = block.header_position(1);
    struct {
        std::function<void()> damage;
        log_type_t blk;
        outcome expected;
        int closes;
    } const cases[] = {
        {[] { put(0, chassis_sim::post_index(little, 1, 1024, 0)); },
         blk,
         {-1, "postlog_nvram_open_dir: cannot get curr log index!!\n", ""},
         1},
        {[] { put(0, chassis_sim::post_index(little, 4, 1024)); },
         blk,
         {-1, "postlog_nvram_open_dir: invalid subblock # 4!! must be smaller than 4\n", ""},
         1},
        {[] { put(0, chassis_sim::post_index(little, 0x80000000, 1024)); },
         blk,
         {-1, "postlog_nvram_open_dir: invalid subblock # -2147483648!! must be smaller than 4\n",
          ""},
         1},
        {[=] { memory[newest] ^= 1; },
         blk,
         {-2, "", "ERROR postlog_nvram_open_dir: check header failed!\n"},
         1},
        {[=] { memory.resize(newest + 24); },
         blk,
         {-1, "",
          "ERROR postlog_dev_rd_log: cannot read from the device file! offset = 0x424\n"
          "post_get_log_pos: faild to read log structure at position 0x424post_get_log_pos: hdr "
          "struct: OFW base = f0006000  start addr/offset=424/0x424 index =0x48 log pos = 0x424\n"
          "ERROR postlog_nvram_open_dir: failed to get log position!\n"},
         2},
        {[] {
             post_block empty = {"", 4096, 32, 2, {{}, {}, {}, {}}};
             memory = empty.image(little);
         },
         blk,
         {-2, "", ""},
         1},
        {[] { memory_table[0].num_subblock = 0; },
         OFWEVENT_LOG,
         {-1, "postlog_nvram_open_dir: invalid subblock # 0!! must be smaller than 0\n", ""},
         1},
        {[] { memory_table[1].num_subblock = -3; },
         blk,
         {-1, "postlog_nvram_open_dir: invalid subblock # 1!! must be smaller than -3\n", ""},
         1},
    };
    for (const auto &[damage, which, expected, closes] : cases) {
        memory = block.image(little);
        damage();
        expect([&] { return postlog_nvram_open_dir(which); }, expected, closes);
    }
}

TEST_F(post_log, a_walk_goes_backwards_around_the_ring_over_empty_histories)
{
    time_t time = 1;
    EXPECT_EQ(postlog_nvram_open_dir(blk), 1);
    EXPECT_EQ(postlog_nvram_read_dir(blk, 1, &time), 0);
    EXPECT_EQ(time, -0x10000000) << "32 bits with a sign";
    EXPECT_EQ(postlog_nvram_read_dir(blk, 0, &time), 3);
    EXPECT_EQ(time, 1000);
    EXPECT_EQ(postlog_nvram_read_dir(blk, 3, &time), -2) << "history 2 is empty, 1 was the first";
    EXPECT_EQ(time, 3000);
    EXPECT_EQ(postlog_nvram_read_dir(blk, 2, &time), -2);
    EXPECT_EQ(time, 0) << "an empty history";

    EXPECT_EQ(postlog_nvram_open_dir(blk), 1);
    put(block.header_position(0), chassis_sim::post_header(little, 1024, 72));
    memory.resize(block.header_position(3) + 24);
    expect([&] { return postlog_nvram_read_dir(blk, 0, &time); },
           {-1, "",
            "ERROR postlog_dev_rd_log: cannot read from the device file! offset = 0xc24\n"
            "post_get_log_pos: faild to read log structure at position 0xc24post_get_log_pos: hdr "
            "struct: OFW base = f0006000  start addr/offset=c24/0xc24 index =0x48 log pos = "
            "0xc24\n"},
           1);
    expect([&] { return postlog_nvram_read_dir(blk, 3, &time); },
           {-1, "",
            "ERROR postlog_dev_rd_log: cannot read from the device file! offset = 0xc24\n"
            "post_get_log_pos: faild to read log structure at position 0xc24post_get_log_pos: hdr "
            "struct: OFW base = f0006000  start addr/offset=c24/0xc24 index =0x48 log pos = "
            "0xc24\nERROR: postlog_nvram_read_dir: failed to get lg position!\n"},
           1);
}

int readings_left;

int read_memory_so_often(log_type_t which, uint32_t offset, uint8_t *buffer, uint32_t size)
{
    return --readings_left < 0 ? 0 : read_memory(which, offset, buffer, size);
}

TEST_F(post_log, an_entry_that_fails_when_it_is_read_again_ends_the_listing)
{
    map_memory(init_memory, read_memory_so_often);
    readings_left = 3; // index, header, entry
    time_t time = 9;
    expect([&] { return postlog_nvram_read_dir(blk, 1, &time); },
           {-1, "postlog_nvram_read_dir: failed to read log from position 0x424\n",
            "ERROR postlog_dev_rd_log: cannot read from the device file! offset = 0x424\n"},
           1);
    EXPECT_EQ(time, 9);
}

TEST_F(post_log, reading_entries_steps_over_whole_messages_and_stops_at_the_first_invalid_one)
{
    const int first = static_cast<int>(block.entry_position(0, 0));
    const int second = static_cast<int>(block.entry_position(0, 1));
    time_t time = 0;
    char text[40];
    std::memset(text, '?', sizeof text);
    EXPECT_EQ(postlog_nvram_read_log(blk, first, &time, text, 4), second);
    EXPECT_EQ(std::string(text, 5), "olde?") << "no terminator, and no more than there is room for";
    EXPECT_EQ(time, 1000);
    EXPECT_EQ(postlog_nvram_read_log(blk, second, &time, text, sizeof text), -2);
    EXPECT_EQ(std::string(text, 40), "last of it" + std::string(22, '\0') + "????????");
    EXPECT_EQ(time, 1001);

    expect([&] { return postlog_nvram_read_log(blk, first + 1, &time, text, 4); }, {-1, "", ""}, 0);
    put(static_cast<size_t>(first), chassis_sim::post_entry_head(little, 1, 2, 0));
    expect([&] { return postlog_nvram_read_log(blk, first, &time, text, 4); }, {-1, "", ""}, 0);
}

TEST_F(post_log, chains_that_leave_the_block_end_as_failed_reads)
{
    const int first = static_cast<int>(block.entry_position(0, 0));
    char text[64];
    time_t time;
    struct {
        uint32_t entry_size;
        std::string offset;
    } const cases[] = {{8192, "0x204c"},
                       {0x7FFFFFD0, "0xffffffff"},
                       {0xFFFFFFFF, "0xffffffff"},
                       {0xFFFFFFB4, "0xffffffff"}};
    for (const auto &[entry_size, offset] : cases) {
        put(static_cast<size_t>(first), chassis_sim::post_entry_head(little, 1, 2, entry_size));
        const std::string failure = "ERROR postlog_dev_rd_log: cannot read from the device file! "
                                    "offset = " +
                                    offset + "\n";
        expect([&] { return postlog_nvram_read_log(blk, first, &time, text, sizeof text); },
               {-1, "", failure}, 1);
        expect([] { return postlog_nvram_dump_log_msgs(blk, 0); },
               {-1,
                "   epoch time (since boot): 2 seconds.  timestamp: Thu Jan  1 00:00:01 1970\n"
                "     msg = oldest\n\n",
                failure},
               1);
    }
    // Even a block without a single NUL behind the entry head is read to its end and no further.
    put(static_cast<size_t>(first) + 40, std::string(memory.size() - 36 - 40, 'x'));
    memory.resize(100000, 'y');
    const outcome dump = outcome_of([] { return postlog_nvram_dump_log_msgs(blk, 0); });
    EXPECT_EQ(dump.result, -1);
    EXPECT_EQ(std::count(dump.out.begin(), dump.out.end(), 'x'), 4096 - 36 - 40);
    EXPECT_EQ(std::count(dump.out.begin(), dump.out.end(), 'y'), 4096 - (4096 - 36 - 40));
}

TEST_F(post_log, dumps_print_the_entries_of_histories)
{
    const std::string oldest =
        "   epoch time (since boot): 5 seconds.  timestamp: Thu Jan  1 00:16:40 1970\n"
        "     msg = oldest\n\n"
        "   epoch time (since boot): 6 seconds.  timestamp: Thu Jan  1 00:16:41 1970\n"
        "     msg = last of it\n\n";
    const std::string newest =
        "   epoch time (since boot): 7 seconds.  timestamp: Fri Jun 30 02:35:44 1961\n"
        "     msg = newest\n\n";
    const std::string older =
        "   epoch time (since boot): 8 seconds.  timestamp: Thu Jan  1 00:50:00 1970\n"
        "     msg = older\n\n";
    const auto title = [](int history) {
        return "-------- history/subblock = " + std::to_string(history) + " --------\n";
    };
    expect([] { return postlog_nvram_dump_log_msgs(blk, 0); }, {1, oldest, ""}, 0);
    expect([] { return postlog_nvram_dump_log_msgs(blk, 2); }, {1, "", ""}, 0);
    expect([] { return postlog_nvram_dump_curr_log_msgs(blk); },
           {1, "postlog_nvram_dump_curr_log_msgs: curr log =1 \n" + newest, ""}, 0);
    expect([] { return postlog_nvram_dump_all_log_msgs(blk); },
           {1, title(1) + newest + title(0) + oldest + title(3) + older + title(2), ""}, 1);

    put(0, chassis_sim::post_index(little, 1, 1024, 5));
    expect([] { return postlog_nvram_dump_curr_log_msgs(blk); },
           {-1,
            "postlog_nvram_dump_curr_log_msgs: curr log =-1 \n"
            "ERROR: post_get_log_hdr_pos: invalid magic number 0x5!\n",
            "post_get_log_pos: failed to get hdr postition. subblock=-1 log=0\n"},
           0);

    memory = block.image(little);
    memory.resize(block.entry_position(0, 0) + 40); // a message that is not there
    expect([] { return postlog_nvram_dump_all_log_msgs(blk); },
           {-1, "",
            "ERROR postlog_dev_rd_log_header: cannot read from the device file!\n"
            "post_get_log_pos: subblock=1 log=0 hdr position = 0x40c\n"},
           2);
    expect([] { return postlog_nvram_dump_log_msgs(blk, 0); }, {-1, "", ""}, 0);

    memory = chassis_sim::sample_post_logs()[0].image(little);
    memory_table[0].num_subblock = 0;
    expect([] { return postlog_nvram_dump_all_log_msgs(OFWEVENT_LOG); }, {1, "", ""}, 1);
    nvram_log_header_t header = {0x11, 0x22, 0x33, 0x44, 0x5566778899AABBCC};
    expect(
        [&] { return post_dump_log_block_header(&header), 0; },
        {0,
         "post_dump_log_block_header: \n\theader checksum = 0x11 \n\t log size = 0x22 \n\t index "
         "= 0x33\n\t version = 0x44 \n\t start addr = 0x99aabbcc\n",
         ""},
        0);
}

TEST_F(post_log, the_current_historys_positions)
{
    const std::string magic_line = "ERROR: post_get_curr_log_hdr_pos: invalid magic number 0x7!\n";
    put(block.header_position(1), chassis_sim::post_header(little, 3, 72));
    EXPECT_EQ(post_get_curr_log_hdr_pos(OFWEVENT_LOG), 0);
    EXPECT_EQ(post_get_curr_log_hdr_pos(blk), 1036);
    EXPECT_EQ(post_get_nxt_log_pos(blk), 1036 + 3 * 72 + 24);
    put(block.header_position(1), chassis_sim::post_header(little, 0xFFFFFFFF, 0xFFFFFFFF));
    EXPECT_EQ(post_get_nxt_log_pos(blk), -1);
    put(0, chassis_sim::post_index(little, 4, 0x400));
    expect([] { return post_get_nxt_log_pos(blk); },
           {-1, "post_get_log_hdr_pos: index 0x4 exceeds the maximum 0x400! ", ""}, 0);
    put(0, chassis_sim::post_index(little, 3, 0x400, 7));
    expect([] { return post_get_curr_log_hdr_pos(blk); }, {-1, "", magic_line}, 0);
    put(0, chassis_sim::post_index(little, 3, 0x800));
    expect([] { return post_get_curr_log_hdr_pos(blk); },
           {-1, "",
            "post_get_log_hdr_pos: calcuated hdr position 0x180c exceeds to storage size! index "
            "log_size = 0x800\n"},
           0);
}

} // namespace

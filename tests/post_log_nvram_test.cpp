#include "sim/chassis.h"
#include "support/descriptors.h"
#include "support/expect_outcome.h"
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
#include <sys/stat.h>
#include <unistd.h>

namespace
{

namespace fs = std::filesystem;
using chassis_sim::post_block;
using chassis_sim::post_entry_head;
using chassis_sim::post_header;
using chassis_sim::post_index;
using test_support::expect_outcome;
using test_support::open_descriptors;

constexpr auto little = chassis_sim::byte_order::little;
const std::string class_dir = "/sys/class/zmt_nvram/nvram";
const std::string cannot_read = ": cannot read from the device file!";

nvram_dev_info_t table[3];
int closings;

void close_device(log_type_t blk)
{
    ++closings;
    postlog_dev_file_nvram_close(blk);
}

// Puts a row of the test's own into use, read with the library's device file functions.
nvram_dev_info_t &use_row(log_type_t blk, const char *path, const char *name, int histories,
                          nvram_rd_log_index_fp rd_log_index = postlog_dev_rd_log_index,
                          nvram_rd_log_header_fp rd_log_header = postlog_dev_rd_log_header)
{
    table[blk] = {"", "", 7, 4096, histories, 32, 0xFFFFFFE0, 0, -1, 0x1234};
    std::strcpy(table[blk].path, path);
    std::strcpy(table[blk].name, name);
    postlog_map_nvram_access(table, postlog_dev_file_nvram_init, post_dev_file_nvram_mem_rd,
                             close_device, rd_log_index, rd_log_header, postlog_dev_rd_log,
                             postlog_dev_validate_log_header, postlog_dev_validate_log_entry);
    return table[blk];
}

//--- device files ---------------------------------------------------------------------------------

class post_log_device : public testing::Test
{
protected:
    post_log_device()
    {
        chassis_sim::enter_private_root();
        chassis_sim::device_server server;
        chassis_sim::add_post_logs(server, chassis_sim::sample_post_logs(), 0);
        chassis_sim::nvram_description empty;
        empty.number = 3;
        empty.name = "nvlog-empty";
        empty.contents.clear();
        chassis_sim::add_nvram(server, empty);
        server.start();
        postlog_map_def_nvram_access();
    }
    ~post_log_device() override { EXPECT_EQ(open_descriptors(), descriptors_); }

    // Writes to a block behind the library's back; size is what it then has.
    void store(log_type_t blk, const std::string &bytes, size_t size)
    {
        ASSERT_EQ(postlog_nvram_init(blk), 1); // makes the node
        postlog_nvram_close(blk);
        const int fd = ::open(nodes[blk], O_RDWR);
        ASSERT_EQ(::pwrite(fd, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
        ASSERT_EQ(::ftruncate(fd, static_cast<off_t>(size)), 0);
        ::close(fd);
    }

    static constexpr const char *nodes[] = {"/dev/nvlog-ofw-event", "/dev/nvlog-diag-test",
                                            "/dev/nvlog-diag-error"};

    // Expects the outcome of opening a block.
    void expect_init(log_type_t blk, int result, const std::string &out, const std::string &err)
    {
        expect_outcome([blk] { return postlog_nvram_init(blk); }, result, out, err);
    }

private:
    const std::ptrdiff_t descriptors_ = open_descriptors();
};

// A log as a client reads it: "history@time ..." and how the walk ended, then for each history
// "position 'message' ...".
std::string walk(log_type_t blk)
{
    std::ostringstream text;
    std::vector<int> histories;
    time_t time = -1;
    for (int h = postlog_nvram_open_dir(blk); h >= 0 || (text << h, false);) {
        histories.push_back(h);
        h = postlog_nvram_read_dir(blk, h, &time);
        text << histories.back() << "@" << time << " ";
    }
    postlog_nvram_close_dir(blk);
    for (const int history : histories) {
        text << "\n";
        for (int p = postlog_nvram_open_log(blk, history); p > 0;) {
            char message[17] = "";
            const int next = postlog_nvram_read_log(blk, p, &time, message, 16);
            text << p << " '" << message << "' ";
            p = next;
        }
        postlog_nvram_close_log(blk, history);
    }
    return text.str();
}

TEST_F(post_log_device, the_three_logs_of_a_chassis_are_walked_and_read)
{
    const auto walk_all = [] {
        EXPECT_EQ(walk(OFWEVENT_LOG), "0@1700000000 -2\n24 'power-on reset' "
                                      "192 'memory sized: 20' 360 'handing over to ' ");
        EXPECT_EQ(walk(OFWDIAG_TEST_LOG), "2@1700172805 1@1700086405 0@1700000005 -2\n"
                                          "3300 'DRAM march: pass' 3372 'PCIe link: pass' \n"
                                          "1668 'DRAM march: pass' 1740 'PCIe link: FAIL' \n"
                                          "36 'DRAM march: pass' 108 'PCIe link: pass' ");
        EXPECT_EQ(walk(OFWDIAG_ERROR_LOG), "1@1700086406 -2\n3300 'PCIe link: slot ' ");
        return 0;
    };
    expect_outcome(walk_all, 0, "", "");
}

TEST_F(post_log_device, opening_takes_over_what_sysfs_says_of_the_block)
{
    struct {
        const char *mode;
        int attr;
    } const modes[] = {{"rw\n", 2}, {"ro\n", 0}, {"r\n", 0}, {"wr\n", 0}, {"rwx\n", 2}, {"", 0}};
    for (const auto &[mode, attr] : modes) {
        chassis_sim::write_file(class_dir + "2/mode", mode);
        const auto &row =
            use_row(OFWDIAG_TEST_LOG, "/dev/nvlog-diag-error", "nvlog-diag-error", 10);
        EXPECT_EQ(postlog_nvram_init(OFWDIAG_TEST_LOG), 1);
        EXPECT_EQ(row.attr, attr) << mode;
        EXPECT_EQ(row.ofw_base, 0xF000A000);
        EXPECT_EQ(row.mem_size, 32768);
        EXPECT_EQ(row.subblock_size, 3264);
        postlog_nvram_close(OFWDIAG_TEST_LOG);
        EXPECT_EQ(row.fd, -1);
    }
}

TEST_F(post_log_device, missing_properties_leave_the_tables_values)
{
    const std::string warning = "WARNING: failed to read NVRAM info. use default value.\n";
    const char *const properties[][2] = {
        {"mode", "access attribute"}, {"size", "size"}, {"baseaddr", "base address"}};
    for (const auto &[file, what] : properties) {
        const std::string path = class_dir + "0/" + file;
        fs::remove(path);
        const auto &row = use_row(OFWDIAG_ERROR_LOG, "/dev/nvlog-ofw-event", "nvlog-ofw-event", 1);
        expect_init(OFWDIAG_ERROR_LOG, 1, warning,
                    "ERROR: " + path + ": failed to read " + what +
                        " from postlog_nvram_find_blk_properties!\n");
        EXPECT_EQ(row.attr, 7);
        EXPECT_EQ(row.mem_size, 4096);
        EXPECT_EQ(row.ofw_base, 0x1234u);
        postlog_nvram_close(OFWDIAG_ERROR_LOG);
    }
    use_row(OFWEVENT_LOG, "/dev/nvlog-ofw-event", "nvlog-ofw", 1);
    expect_init(OFWEVENT_LOG, 1, warning,
                "ERROR: nvlog-ofw: cannot find nvram block named "
                "postlog_nvram_find_blk_properties!\n");
    postlog_nvram_close(OFWEVENT_LOG);
}

TEST_F(post_log_device, a_block_that_cannot_be_opened_is_reported_and_leaks_nothing)
{
    chassis_sim::make_symlink("/dev/dangling", "/dev/nowhere/at-all");
    fs::remove(class_dir + "2/dev");
    const char *const cases[][3] = {
        {"/dev/x", "unknown", ""},
        {"/dev/x", "nvlog-diag-error", ""}, // its device number is missing
        {"/dev/none/x", "nvlog-ofw-event",
         "mknod(/dev/none/x) failed: No such file or directory\n"},
        {"/dev/dangling", "nvlog-ofw-event",
         "ERROR: cannot open newly created dev file /dev/dangling!\n"},
    };
    for (const auto &[path, name, first_line] : cases) {
        use_row(OFWEVENT_LOG, path, name, 1);
        expect_outcome([] { return postlog_nvram_open_dir(OFWEVENT_LOG); }, -1,
                       "postlog_nvram_open_dir: cannot open device!!\n",
                       std::string(first_line) +
                           "ERROR postlog_dev_file_nvram_init: cannot open the device file!\n");
    }
    use_row(OFWEVENT_LOG, "/dev/x", "unknown", 1);
    fs::remove(class_dir + "0/name");
    const auto calls = test_support::count_system_calls([] { postlog_nvram_init(OFWEVENT_LOG); });
    EXPECT_EQ(calls.at("open"), 10 + 1) << "ten attempts, and one missing name file";
}

TEST_F(post_log_device, a_second_opening_is_refused_and_the_first_stays)
{
    EXPECT_EQ(postlog_nvram_init(OFWDIAG_TEST_LOG), 1);
    expect_init(
        OFWDIAG_TEST_LOG, -1, "",
        "ERROR: postlog_dev_file_nvram_init: current device is currently opened already!\n");
    nvram_log_index_t index;
    EXPECT_EQ(postlog_rd_log_index(OFWDIAG_TEST_LOG, 0, &index), 1);
    EXPECT_EQ(index.header_index, 2u);
    postlog_nvram_close(OFWDIAG_TEST_LOG);
    postlog_nvram_close(OFWDIAG_TEST_LOG);
    expect_outcome([&] { return postlog_rd_log_index(OFWDIAG_TEST_LOG, 0, &index); }, -1, "",
                   "ERROR: post_nvram_mem_rd: cannot access device!\n"
                   "ERROR postlog_dev_rd_log_index" +
                       cannot_read + "\n");
}

TEST_F(post_log_device, blocks_that_the_firmware_has_not_set_up_do_not_open)
{
    store(OFWEVENT_LOG, "\1\2\3\4\5", 8192);
    store(OFWDIAG_TEST_LOG, "\1\2\3\4\5", 16384);
    expect_init(OFWEVENT_LOG, -1, "",
                "ERROR: postlog_dev_file_nvram_init : header structure not initialized! cannot "
                "open for reading!!\n");
    expect_init(OFWDIAG_TEST_LOG, -1,
                "post_nvram_dump_block_index: \t  magic number = 0x4030201 \n\t header index = "
                "0x5\t size = 0x660 \n\t\n",
                "ERROR: postlog_dev_file_nvram_init: magic number not initialized! cannot open for "
                "reading!!\nmagic number: read = 0x4030201 expect = 0x106f11e5\n");
}

TEST_F(post_log_device, a_block_whose_first_record_cannot_be_read_is_closed_once)
{
    const std::string unread = "ERROR: post_nvram_mem_rd: cannot read or reach eof!! range=0x0-0x";
    const std::string not_mapped = ": no actual nvram access function mapped!\n";
    struct {
        const char *path;
        int histories;
        bool has_readers;
        std::string err;
    } const cases[] = {
        {"/dev/nvlog-empty", 1, true,
         unread + "17\nERROR postlog_dev_rd_log_header" + cannot_read + "\n"},
        {"/dev/nvlog-empty", 2, true,
         unread + "b\nERROR postlog_dev_rd_log_index" + cannot_read + "\n"},
        {"/dev", 1, true, unread + "17\nERROR postlog_dev_rd_log_header" + cannot_read + "\n"},
        {"/dev", 2, true, unread + "b\nERROR postlog_dev_rd_log_index" + cannot_read + "\n"},
        {"/dev/nvlog-empty", 1, false, "ERROR: postlog_rd_log_header" + not_mapped},
        {"/dev/nvlog-empty", 2, false, "ERROR: postlog_rd_log_index" + not_mapped},
    };
    for (const auto &[path, histories, has_readers, err] : cases) {
        const auto &row = use_row(OFWDIAG_TEST_LOG, path, "nvlog-empty", histories,
                                  has_readers ? postlog_dev_rd_log_index : nullptr,
                                  has_readers ? postlog_dev_rd_log_header : nullptr);
        closings = 0;
        expect_init(OFWDIAG_TEST_LOG, -1, "", err);
        EXPECT_EQ(closings, 1) << err;
        EXPECT_EQ(row.fd, -1);
    }
}

TEST_F(post_log_device, the_tables_values_hold_where_sysfs_says_nothing)
{
    const struct {
        uint32_t size;
        const char *base;
    } blocks[] = {{0x2000, "f0004000"}, {0x4000, "f0006000"}, {0x8000, "f000a000"}};
    std::string err;
    const auto open_log = [&](log_type_t blk, int history) {
        test_support::captured_output output;
        EXPECT_EQ(postlog_nvram_open_log(blk, history), -1);
        err = output.take_stderr();
    };
    const auto says = [&](const std::string &text) {
        EXPECT_NE(err.find(text), std::string::npos) << err;
    };
    const std::string header = post_header(little, 1, 40, 0x1122334455667788);
    test_support::captured_output output;
    for (const log_type_t blk : {OFWEVENT_LOG, OFWDIAG_TEST_LOG, OFWDIAG_ERROR_LOG}) {
        const auto &[size, base] = blocks[blk];
        fs::remove(class_dir + std::to_string(blk) + "/baseaddr");
        // The header is behind the index, if there is one, and ends the device.
        const std::string records = (blk ? post_index(little, 0, size - 13) : "") + header;
        store(blk, records, records.size());
        open_log(blk, 0);
        says(std::string("hdr struct: OFW base = ") + base +
             "  start addr/offset=1122334455667788/0x" + (blk ? "24" : "18") + " index =0x28");
        if (blk == OFWEVENT_LOG)
            continue;
        const auto hex = [](uint32_t number) {
            char text[12];
            std::snprintf(text, sizeof text, "0x%x", number);
            return std::string(text);
        };
        open_log(blk, 1);
        says("range=" + hex(size - 1) + "-" + hex(size + 22) + "\n");
        open_log(blk, 10);
        says("invalid index 10; must less than 10!");
        store(blk, post_index(little, 0, size - 12), records.size());
        open_log(blk, 1);
        says("hdr position " + hex(size) + " exceeds");
    }
    // The event log's size limits how much of a message is taken for one.
    store(OFWEVENT_LOG,
          post_header(little, 1, 40) + post_entry_head(little, 1, 2, 0x10000) +
              std::string(0x4000, 'x'),
          0x4000);
    ASSERT_EQ(postlog_nvram_init(OFWEVENT_LOG), 1);
    output.take_stdout();
    EXPECT_EQ(postlog_nvram_dump_log_msgs(OFWEVENT_LOG, 0), -1);
    const std::string dump = output.take_stdout();
    EXPECT_EQ(std::count(dump.begin(), dump.end(), 'x'), 0x2000);
}

TEST_F(post_log_device, devices_are_opened_exclusively_while_that_is_possible)
{
    const char *const node = nodes[OFWEVENT_LOG];
    ASSERT_EQ(postlog_nvram_init(OFWEVENT_LOG), 1); // with a node just made: not exclusively
    const int shared = ::open(node, O_RDONLY);
    EXPECT_NE(shared, -1);
    postlog_nvram_close(OFWEVENT_LOG);
    struct stat status;
    ASSERT_EQ(::stat(node, &status), 0);
    EXPECT_TRUE(!S_ISCHR(status.st_mode) || (status.st_mode & 07777) == 0600);
    const auto opens = [] {
        return test_support::count_system_calls([] { postlog_nvram_init(OFWEVENT_LOG); })["open"];
    };
    constexpr int properties = 4;
    EXPECT_EQ(opens(), 10 + 2 + 1 + properties) << "attempts, name and number, and the node again";
    ::close(shared);
    EXPECT_EQ(opens(), 1 + properties);
    ASSERT_EQ(postlog_nvram_init(OFWEVENT_LOG), 1);
    EXPECT_EQ(::open(node, O_RDONLY), -1);
    postlog_nvram_close(OFWEVENT_LOG);
}

TEST_F(post_log_device, of_sysfs_so_much_is_read)
{
    const std::string name(29, 'n');
    for (int n = 4; n <= 20; ++n)
        chassis_sim::write_file(class_dir + std::to_string(n) + "/name", "other\n");
    chassis_sim::write_file(class_dir + "19/name", name + "?\n"); // 30 bytes, the last replaced
    chassis_sim::write_file(class_dir + "19/baseaddr", "0x123456789\n");
    chassis_sim::write_file(class_dir + "19/size", "0x1234567\n");
    chassis_sim::write_file(class_dir + "19/mode", "rwx\n");
    chassis_sim::write_file(class_dir + "20/name", "twentieth\n");
    use_row(OFWEVENT_LOG, nodes[OFWEVENT_LOG], "nvlog-ofw-event", 1);
    ASSERT_EQ(postlog_nvram_init(OFWEVENT_LOG), 1); // makes the node
    postlog_nvram_close(OFWEVENT_LOG);
    const auto &row = use_row(OFWEVENT_LOG, nodes[OFWEVENT_LOG], name.c_str(), 1);
    expect_init(OFWEVENT_LOG, 1, "", "");
    EXPECT_EQ(row.ofw_base, 0x12345678u);
    EXPECT_EQ(row.mem_size, 0x12345);
    EXPECT_EQ(row.attr, 2);
    postlog_nvram_close(OFWEVENT_LOG);
    use_row(OFWEVENT_LOG, nodes[OFWEVENT_LOG], "twentieth", 1);
    expect_init(OFWEVENT_LOG, 1, "WARNING: failed to read NVRAM info. use default value.\n",
                "ERROR: twentieth: cannot find nvram block named "
                "postlog_nvram_find_blk_properties!\n");
    postlog_nvram_close(OFWEVENT_LOG);
}

TEST_F(post_log_device, blocks_without_a_row_behave_as_closed_ones)
{
    test_support::captured_output output;
    for (const int number : {-1, 3, INT_MIN, INT_MAX}) {
        const log_type_t blk = static_cast<log_type_t>(number);
        time_t time;
        char text[8];
        EXPECT_EQ(postlog_nvram_open_dir(blk), -1);
        EXPECT_EQ(postlog_nvram_read_dir(blk, 0, &time), -1);
        EXPECT_EQ(postlog_nvram_open_log(blk, 0), -1);
        EXPECT_EQ(postlog_nvram_read_log(blk, 0, &time, text, sizeof text), -1);
        EXPECT_EQ(postlog_nvram_dump_log_msgs(blk, 0), -1);
        EXPECT_EQ(postlog_nvram_dump_all_log_msgs(blk), -1);
        EXPECT_EQ(postlog_nvram_close_dir(blk), 1);
    }
}

//--- a block in memory, behind the library's record readers ---------------------------------------

std::string memory;
int readings_left;

int init_memory(log_type_t)
{
    return 1;
}

int read_memory(log_type_t, uint32_t offset, uint8_t *buffer, uint32_t size)
{
    if (offset >= memory.size() || --readings_left < 0)
        return 0;
    const size_t length = std::min<size_t>(size, memory.size() - offset);
    std::memcpy(buffer, memory.data() + offset, length);
    return static_cast<int>(length);
}

// Every place shows the same.
int read_anywhere(log_type_t blk, uint32_t, uint8_t *buffer, uint32_t size)
{
    return read_memory(blk, 0, buffer, size);
}

void close_memory(log_type_t)
{
    ++closings;
    errno = EPIPE;
}

void map_memory(nvram_mem_rd_fp rd = read_memory,
                nvram_validate_log_header validate_header = postlog_dev_validate_log_header,
                nvram_validate_log_entry validate_entry = postlog_dev_validate_log_entry)
{
    postlog_map_nvram_access(table, init_memory, rd, close_memory, postlog_dev_rd_log_index,
                             postlog_dev_rd_log_header, postlog_dev_rd_log, validate_header,
                             validate_entry);
}

void put(size_t position, const std::string &bytes)
{
    memory.replace(position, bytes.size(), bytes);
}

// The same memory is each of the three blocks; the event log has no index there.
class post_log : public testing::Test
{
protected:
    post_log()
    {
        ::setenv("TZ", "UTC", 1);
        restore();
        map_memory();
    }

    void restore()
    {
        memory = block.image(little);
        readings_left = INT_MAX;
        for (nvram_dev_info_t &row : table)
            row = {"", "", 0, 4096, &row == table ? 1 : 4, 32, 0xFFFFFFE0, 0, -1, 0xF0006000};
    }

    void expect(const std::function<int()> &call, int result, const std::string &out,
                const std::string &err, int closes)
    {
        closings = 0;
        errno = EIO;
        expect_outcome(call, result, out, err);
        EXPECT_EQ(closings, closes);
        EXPECT_NE(errno, EPIPE) << "closing hides why the call failed";
    }

    static constexpr log_type_t blk = OFWDIAG_TEST_LOG;
    static constexpr uint64_t seconds_up = 0x100000008; // shown as far as a long holds it
    const post_block block = {"",
                              4096,
                              32,
                              1,
                              {{{1000, 5, "oldest"}, {1001, 6, "last of it"}},
                               {{0x5F0000000, 7, "newest"}},
                               {},
                               {{3000, seconds_up, "older"}}}};
    const size_t first = block.entry_position(0, 0);
};

TEST(post_log_access, nothing_is_mapped_at_first)
{
    const log_type_t blk = OFWEVENT_LOG;
    nvram_log_index_t index;
    nvram_log_header_t header;
    nvram_log_t entry;
    uint8_t byte;
    struct {
        const char *routine;
        const char *what;
        int result;
        std::function<int()> call;
    } const cases[] = {
        {"postlog_nvram_init", "'init'", -1, [=] { return postlog_nvram_init(blk); }},
        {"postlog_nvram_init", "'init'", -1, [=] { return postlog_nvram_open_log(blk, 0); }},
        {"postlog_nvram_init", "'init'", -1, [=] { return postlog_nvram_dump_all_log_msgs(blk); }},
        {"post_nvram_mem_rd", "'read'", 0, [&] { return post_nvram_mem_rd(blk, 0, &byte, 1); }},
        {"postlog_nvram_close", "'close'", 1, [=] { return postlog_nvram_close_log(blk, 0); }},
        {"postlog_rd_log_index", "access", -1,
         [&] { return postlog_rd_log_index(blk, 0, &index); }},
        {"postlog_rd_log_header", "access", -1,
         [&] { return postlog_rd_log_header(blk, 0, &header); }},
        {"postlog_rd_log", "access", -1, [&] { return postlog_rd_log(blk, 0, &entry); }},
        {"postlog_validate_log_header", "access", -1,
         [&] { return postlog_validate_log_header(&header); }},
        {"postlog_validate_log_entry", "access", -1,
         [&] { return postlog_validate_log_entry(&entry); }},
    };
    for (const auto &[routine, what, result, call] : cases)
        expect_outcome(call, result, "",
                       std::string("ERROR: ") + routine + ": no actual nvram " + what +
                           " function mapped!\n");
}

TEST_F(post_log, without_validation_functions_records_count_as_valid)
{
    map_memory(read_memory, nullptr, nullptr);
    memory[block.header_position(1)] ^= 1;
    memory[block.entry_position(1, 0)] ^= 1;
    const std::string not_mapped = ": no actual nvram access function mapped!\n";
    const std::string header = "ERROR: postlog_validate_log_header" + not_mapped;
    const std::string entry = "ERROR: postlog_validate_log_entry" + not_mapped;
    expect([] { return postlog_nvram_open_dir(blk); }, 1, "", header + header + entry, 0);
    expect([] { return postlog_nvram_open_log(blk, 1); }, 0x424, "", header + entry + entry, 0);
}

TEST_F(post_log, damage_is_reported_where_it_is_met)
{
    const auto open = [&](log_type_t which, int history, const std::string &out,
                          const std::string &err, int closes) {
        expect([=] { return postlog_nvram_open_log(which, history); }, -1, out, err, closes);
        restore();
    };
    const auto no_position = [](int history) {
        return "post_get_log_pos: failed to get hdr postition. subblock=" +
               std::to_string(history) + " log=0\n";
    };
    const std::string hdr_pos = "ERROR: post_get_log_hdr_pos: invalid ";
    const std::string calculated = "post_get_log_hdr_pos: calcuated hdr position ";
    const std::string cut = "ERROR postlog_dev_rd_log";
    open(OFWEVENT_LOG, 1, "", hdr_pos + "index 1; must less than 1!\n" + no_position(1), 1);
    open(blk, 4, "", hdr_pos + "index 4; must less than 4!\n" + no_position(4), 1);
    open(blk, -1, "",
         calculated + "0xfffffc0c exceeds to storage size! index log_size = 0x400\n" +
             no_position(-1),
         1);
    put(0, post_index(little, 1, 0xFFFFFFF0));
    open(blk, 3, "",
         calculated + "0xffffffdc exceeds to storage size! index log_size = 0xfffffff0\n" +
             no_position(3),
         1);
    put(0, post_index(little, 1, 1024, 0xABCD));
    open(blk, 3, hdr_pos + "magic number 0xabcd!\n", no_position(3), 1);
    memory.clear();
    open(blk, 3, "", cut + "_index" + cannot_read + "\n" + no_position(3), 2);
    memory.resize(0xc0c);
    open(blk, 3, "",
         cut + "_header" + cannot_read +
             "\npost_get_log_pos: subblock=3 log=0 hdr position = 0xc0c\n",
         2);
    memory.resize(0xc24);
    open(blk, 3, "",
         cut + cannot_read +
             " offset = 0xc24\n"
             "post_get_log_pos: faild to read log structure at position 0xc24"
             "post_get_log_pos: hdr struct: OFW base = f0006000  start addr/offset=c24/0xc24 "
             "index =0x48 log pos = 0xc24\n",
         2);
    readings_left = 3; // index, header, entry; not the entry again
    open(blk, 3, "", cut + cannot_read + " offset = 0xc24\n", 2);
    memory[0xc0c] ^= 1;
    open(blk, 3, "", "", 1);
    memory[0xc24] ^= 1;
    open(blk, 3, "", "", 1);
    open(blk, 2, "", "", 1); // empty
}

TEST_F(post_log, opening_a_directory_says_why_there_is_nothing_to_list)
{
    const auto open = [&](log_type_t which, int result, const std::string &out,
                          const std::string &err, int closes) {
        expect([=] { return postlog_nvram_open_dir(which); }, result, out, err, closes);
        restore();
    };
    const std::string routine = "postlog_nvram_open_dir: ";
    const std::string invalid = routine + "invalid subblock # ";
    put(0, post_index(little, 1, 1024, 0));
    open(blk, -1, routine + "cannot get curr log index!!\n", "", 1);
    put(0, post_index(little, 4, 1024));
    open(blk, -1, invalid + "4!! must be smaller than 4\n", "", 1);
    put(0, post_index(little, 0x80000000, 1024));
    open(blk, -1, invalid + "-2147483648!! must be smaller than 4\n", "", 1);
    table[0].num_subblock = 0;
    open(OFWEVENT_LOG, -1, invalid + "0!! must be smaller than 0\n", "", 1);
    table[1].num_subblock = -3;
    open(blk, -1, invalid + "1!! must be smaller than -3\n", "", 1);
    memory[0x40c] ^= 1;
    open(blk, -2, "", "ERROR " + routine + "check header failed!\n", 1);
    memory.resize(0x40c); // only a header that can be read is checked
    const std::string no_header = "ERROR postlog_dev_rd_log_header" + cannot_read + "\n";
    open(blk, -1, "",
         no_header + no_header + "post_get_log_pos: subblock=1 log=0 hdr position = 0x40c\nERROR " +
             routine + "failed to get log position!\n",
         3);
    for (size_t history = 0; history < 4; ++history)
        put(block.header_position(history), post_header(little, 1024, 0));
    open(blk, -2, "", "", 1);
}

TEST_F(post_log, a_walk_goes_backwards_around_the_ring_over_empty_histories)
{
    time_t time = 1;
    EXPECT_EQ(postlog_nvram_open_dir(blk), 1);
    EXPECT_EQ(postlog_nvram_read_dir(blk, 1, &time), 0);
    EXPECT_EQ(time, static_cast<time_t>(0xF0000000)) << "the low 32 bits";
    EXPECT_EQ(postlog_nvram_read_dir(blk, 0, &time), 3);
    EXPECT_EQ(time, 1000);
    EXPECT_EQ(postlog_nvram_read_dir(blk, 3, &time), -2) << "history 2 is empty, 1 was the first";
    EXPECT_EQ(time, 3000);
    EXPECT_EQ(postlog_nvram_read_dir(blk, 2, &time), -2);
    EXPECT_EQ(time, 0) << "an empty history";

    time = 9;
    readings_left = 3; // index, header, entry; not the entry again
    expect([&] { return postlog_nvram_read_dir(blk, 1, &time); }, -1,
           "postlog_nvram_read_dir: failed to read log from position 0x424\n",
           "ERROR postlog_dev_rd_log" + cannot_read + " offset = 0x424\n", 1);
    EXPECT_EQ(time, 9);
    readings_left = 0;
    expect([&] { return postlog_nvram_read_dir(blk, 1, &time); }, -1, "",
           "ERROR postlog_dev_rd_log_index" + cannot_read +
               "\npost_get_log_pos: failed to get hdr postition. subblock=1 log=0\n"
               "ERROR: postlog_nvram_read_dir: failed to get lg position!\n",
           1);
}

TEST_F(post_log, reading_entries_steps_over_whole_messages_and_stops_at_the_first_invalid_one)
{
    const int position = static_cast<int>(first);
    time_t time = 0;
    char text[40];
    std::memset(text, '?', sizeof text);
    EXPECT_EQ(postlog_nvram_read_log(blk, position, &time, text, 4), position + 72);
    EXPECT_EQ(std::string(text, 5), "olde?") << "no terminator, and no more than there is room for";
    EXPECT_EQ(time, 1000);
    EXPECT_EQ(postlog_nvram_read_log(blk, position + 72, &time, text, sizeof text), -2);
    EXPECT_EQ(std::string(text, 40), "last of it" + std::string(22, '\0') + "????????");
    EXPECT_EQ(time, 1001);

    const auto read = [&] { return postlog_nvram_read_log(blk, position, &time, text, 4); };
    put(first, post_entry_head(little, 1, 2, 0)); // an empty message
    expect(read, -1, "", "", 0);
    memory[first] ^= 1;
    expect(read, -1, "", "", 0);
    memory.clear();
    expect(read, -1, "", "ERROR postlog_dev_rd_log" + cannot_read + " offset = 0x24\n", 1);
}

TEST_F(post_log, chains_that_leave_the_block_end_as_failed_reads)
{
    const int position = static_cast<int>(first);
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
        put(first, post_entry_head(little, 1, 2, entry_size));
        const std::string failure =
            "ERROR postlog_dev_rd_log" + cannot_read + " offset = " + offset + "\n";
        expect([&] { return postlog_nvram_read_log(blk, position, &time, text, sizeof text); }, -1,
               "", failure, 1);
        expect([] { return postlog_nvram_dump_log_msgs(blk, 0); }, -1,
               "   epoch time (since boot): 2 seconds.  timestamp: Thu Jan  1 00:00:01 1970\n"
               "     msg = oldest\n\n",
               failure, 1);
    }
    // A message without an end is read as far as the block is long, and no further.
    put(first + 40, std::string(memory.size() - first - 40, 'x'));
    memory.resize(100000, 'x');
    test_support::captured_output output;
    EXPECT_EQ(postlog_nvram_dump_log_msgs(blk, 0), -1);
    const std::string dump = output.take_stdout();
    EXPECT_EQ(dump.find_last_of('x') - dump.find_first_of('x') + 1, 4096u);
    // A second piece that cannot be read ends the dump.
    table[1].mem_size = 8192;
    put(first, post_entry_head(little, 1, 2, 8192));
    map_memory([](log_type_t which, uint32_t offset, uint8_t *buffer, uint32_t size) {
        return offset == 0x24 + 40 + 4096 ? 0 : read_memory(which, offset, buffer, size);
    });
    EXPECT_EQ(postlog_nvram_dump_log_msgs(blk, 0), -1);
    EXPECT_EQ(output.take_stdout(), dump.substr(0, dump.size() - 2)) << "no line ends";
    // Not even a medium that answers everywhere is followed there.
    memory = post_entry_head(little, 1, 2, 0xFFFFFFFF);
    map_memory(read_anywhere);
    EXPECT_EQ(postlog_nvram_read_log(blk, position, &time, text, sizeof text), -1);
}

TEST_F(post_log, dumps_print_the_entries_of_histories)
{
    const auto entry = [](long since_boot, const std::string &time, const std::string &message) {
        return "   epoch time (since boot): " + std::to_string(since_boot) +
               " seconds.  timestamp: " + time + "\n     msg = " + message + "\n\n";
    };
    const auto title = [](int history) {
        return "-------- history/subblock = " + std::to_string(history) + " --------\n";
    };
    const std::string oldest = entry(5, "Thu Jan  1 00:16:40 1970", "oldest") +
                               entry(6, "Thu Jan  1 00:16:41 1970", "last of it");
    const time_t late = static_cast<time_t>(0xF0000000); // before 1970 where time_t has 32 bits
    const std::string newest = entry(7, std::string(ctime(&late), 24), "newest");
    const std::string older =
        entry(static_cast<long>(seconds_up), "Thu Jan  1 00:50:00 1970", "older");
    const auto dump_current = [] { return postlog_nvram_dump_curr_log_msgs(blk); };
    const auto dump_all = [] { return postlog_nvram_dump_all_log_msgs(blk); };
    const std::string current = "postlog_nvram_dump_curr_log_msgs: curr log =";
    expect([] { return postlog_nvram_dump_log_msgs(blk, 2); }, 1, "", "", 0);
    expect(dump_current, 1, current + "1 \n" + newest, "", 0);
    expect(dump_all, 1, title(1) + newest + title(0) + oldest + title(3) + older + title(2), "", 1);

    table[1].num_subblock = 1;
    expect(dump_current, 1, current + "0 \n" + oldest, "", 0);
    restore();
    put(0, post_index(little, 1, 1024, 5));
    expect(dump_current, -1,
           current + "-1 \nERROR: post_get_log_hdr_pos: invalid magic number 0x5!\n",
           "post_get_log_pos: failed to get hdr postition. subblock=-1 log=0\n", 0);
    put(0, post_index(little, 0, 1024));
    memory.resize(first + 40); // a message that is not there
    expect(dump_all, -1, title(0), "", 1);
    memory.resize(12); // a history without a header
    expect(dump_all, -1, "",
           "ERROR postlog_dev_rd_log_header" + cannot_read +
               "\npost_get_log_pos: subblock=0 log=0 hdr position = 0xc\n",
           2);
    table[1].num_subblock = 0;
    expect(dump_all, 1, "", "", 1);

    nvram_log_header_t header = {0x11, 0x22, 0x33, 0x44, 0x5566778899AABBCC};
    expect([&] { return post_dump_log_block_header(&header), 0; }, 0,
           "post_dump_log_block_header: \n\theader checksum = 0x11 \n\t log size = 0x22 \n\t index "
           "= 0x33\n\t version = 0x44 \n\t start addr = 0x99aabbcc\n",
           "", 0);
}

TEST_F(post_log, the_current_historys_positions)
{
    const auto next = [] { return post_get_nxt_log_pos(blk); };
    EXPECT_EQ(post_get_curr_log_hdr_pos(OFWEVENT_LOG), 0);
    put(0x40c, post_header(little, 3, 72));
    expect(next, 0x40c + 3 * 72 + 24, "", "", 0);
    put(0x40c, post_header(little, 0xFFFFFFFF, 0xFFFFFFFF));
    expect(next, -1, "", "", 0);
    put(0, post_index(little, 4, 0x400));
    expect(next, -1, "post_get_log_hdr_pos: index 0x4 exceeds the maximum 0x400! ", "", 0);
    put(0, post_index(little, 3, 0x400, 7));
    expect(next, -1, "", "ERROR: post_get_curr_log_hdr_pos: invalid magic number 0x7!\n", 0);
    put(0, post_index(little, 3, 0x800));
    expect(next, -1, "",
           "post_get_log_hdr_pos: calcuated hdr position 0x180c exceeds to storage size! index "
           "log_size = 0x800\n",
           0);
}

} // namespace

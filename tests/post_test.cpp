// The POST logs, through device files and through a PCIe NVRAM controller.
#include "support/log_text.h"
#include "support/nvram_controller.h"
#include "support/sweep.h"

#include <device_access/post_log.hpp>
#include <device_access/post_log_nvram_pcie_access.h>

#include <chrono>
#include <climits>
#include <filesystem>
#include <set>
#include <sstream>

#include <fcntl.h>
#include <unistd.h>

namespace
{

using namespace chassis_sim;
namespace fs = std::filesystem;
using std::string;
using std::to_string;

constexpr log_type_t event = OFWEVENT_LOG;
constexpr log_type_t results = OFWDIAG_TEST_LOG;
constexpr log_type_t errors = OFWDIAG_ERROR_LOG;

nvram_dev_info_t table[3];
int kept_open = -1; // a client's own descriptor
int closings;

// A client's closing leaves an error behind.
void close_block(log_type_t blk)
{
    if (table[blk].fd != kept_open)
        postlog_dev_file_nvram_close(blk);
    ++closings;
    errno = EPIPE;
}

// A call's result, after "closed" for each closing, which must not hide why the call failed.
int kept(int value)
{
    std::fputs(errno == EPIPE ? "the error is that of closing\n" : "", stderr);
    for (; closings > 0; --closings)
        std::fputs("closed\n", stderr);
    return value;
}
#define POST(call, ...) DOES((closings = 0, kept(call)), __VA_ARGS__)

// A log as a client reads it.
string log_of(log_type_t blk)
{
    return test::log_text(device_access::post_log(device_access::post_block(blk)));
}

// A chassis with the sample logs, which the library opens and a client's function closes.
struct post_log : testing::Test {
    explicit post_log(bool by_pcie) : pcie(by_pcie)
    {
        ::setenv("TZ", "UTC0", 1);
        enter_private_root();
        add_post_logs(server, logs, 0);
        for (const log_type_t blk : {event, results, errors})
            set(blk, logs[blk]);
        postlog_map_pcie_nvram_access(controller.base());
        map(pcie ? postlog_pcie_nvram_init : postlog_dev_file_nvram_init);
    }
    ~post_log() override
    {
        ::close(kept_open);
        EXPECT_EQ(test::open_descriptors(), descriptors);
    }

    void map(nvram_init_fp init)
    {
        if (pcie)
            postlog_map_nvram_access(table, init, postlog_pcie_nvram_rd, close_block,
                                     postlog_pcie_rd_log_index, postlog_pcie_rd_log_header,
                                     postlog_pcie_rd_log, postlog_pcie_validate_log_header,
                                     postlog_pcie_validate_log_entry);
        else
            postlog_map_nvram_access(table, init, post_dev_file_nvram_mem_rd, close_block,
                                     postlog_dev_rd_log_index, postlog_dev_rd_log_header,
                                     postlog_dev_rd_log, postlog_dev_validate_log_header,
                                     postlog_dev_validate_log_entry);
    }

    // Puts a log into its place, and its geometry into a client's table.
    void set(log_type_t blk, const post_block &log)
    {
        table[blk] = {"", "", 7, static_cast<int>(log.size), 1, 32, ~31u, 0, -1, 0x1234};
        table[blk].num_subblock = static_cast<int>(log.histories.size());
        std::strcpy(table[blk].path, ("/dev/" + logs[blk].name).c_str());
        std::strcpy(table[blk].name, logs[blk].name.c_str());
        load(blk, image = log.image(order));
    }
    void load(log_type_t blk, const string &bytes)
    {
        static constexpr uint32_t addresses[] = {0x8000, 0x18000, 0x20000};
        pcie ? controller.store(addresses[blk], bytes) : write_file(table[blk].path, bytes);
    }

    // The log of test results becomes this one, which a client keeps open.
    void use(const post_block &log)
    {
        set(results, log);
        table[results].fd = kept_open = ::open(table[results].path, O_RDONLY);
        map([](log_type_t) { return 1; });
    }
    void put(size_t position, const string &bytes)
    {
        std::copy(bytes.begin(), bytes.end(), image.begin() + static_cast<ptrdiff_t>(position));
        load(results, image);
    }
    void flip(size_t at, size_t bit = 0) { put(at, {static_cast<char>(image[at] ^ 1 << bit)}); }

    const bool pcie;
    const byte_order order = pcie ? byte_order::big : byte_order::little;
    device_server server; // not started
    nvram_controller controller;
    const std::vector<post_block> logs = sample_post_logs();
    const long descriptors = test::open_descriptors();
    string image;
};

struct post_device : post_log {
    post_device() : post_log(false) {}
};
struct post_controller : post_log {
    post_controller() : post_log(true) {}
};
struct post_either_way : post_log, testing::WithParamInterface<bool> {
    post_either_way() : post_log(GetParam()) {}
};
INSTANTIATE_TEST_SUITE_P(, post_either_way, testing::Bool(), [](const auto &way) {
    return string(way.param ? "controller" : "device_files");
});

// Histories of entries {time, seconds since boot, message}, the second one being the newest. The
// times are more than the library shows.
const post_block ring = {"",
                         4096,
                         32,
                         1,
                         {{{1000, 5, "oldest"}, {1001, 6, "last of it"}},
                          {{0x540000000, 7, "newest"}},
                          {},
                          {{3000, 8, "older"}}}};
const string calculated = "post_get_log_hdr_pos: calcuated hdr position ";
const string exceeds = " exceeds to storage size! index log_size = ";
const string closed = "closed\n";

string not_mapped(const string &routine, const string &what = "access")
{
    return "ERROR: " + routine + ": no actual nvram " + what + " function mapped!\n";
}

//--- either way -----------------------------------------------------------------------------------

TEST_P(post_either_way, the_logs_of_a_chassis_are_walked_and_read)
{
    EXPECT_EQ(log_of(event),
              "0: power-on reset|memory sized: 2048 MB|handing over to the kernel, ");
    EXPECT_EQ(log_of(results), "2: DRAM march: pass|PCIe link: pass, 1: DRAM march: pass|PCIe "
                               "link: FAIL, 0: DRAM march: pass|PCIe link: pass, ");
    EXPECT_EQ(log_of(errors), "1: PCIe link: slot SW2 trained to x1, expected x4, ");
    use(ring);
    EXPECT_EQ(log_of(results), "1: newest, 0: oldest|last of it, 3: older, ");
    time_t time = 1;
    char message[7];
    DOES(postlog_nvram_read_dir(results, 2, &time), -2);
    EXPECT_EQ(time, 0) << "an empty history";
    POST(postlog_nvram_open_dir(results), 1);
    DOES(postlog_nvram_read_dir(results, 1, &time), 0);
    EXPECT_EQ(time, 0x40000000) << "without the upper bits";
    POST(postlog_nvram_open_log(results, 0), 36);
    DOES(postlog_nvram_read_log(results, 36, &time, message, 7), 108);
    EXPECT_EQ(time, 1000);
}

TEST_P(post_either_way, the_librarys_table_says_how_large_blocks_are)
{
    pcie ? postlog_map_pcie_nvram_access(controller.base()) : postlog_map_def_nvram_access();
    for (const log_type_t blk : {event, results, errors})
        fs::remove(nvram_class_dir(blk) + "/size");
    for (const log_type_t blk : {results, errors}) {
        test::output_of([&] { EXPECT_EQ(postlog_nvram_init(blk), 1); });
        const auto current = [&](uint32_t history, uint32_t distance) {
            load(blk, post_index(order, history, distance));
            return post_get_curr_log_hdr_pos(blk);
        };
        const uint32_t size = blk == results && !pcie ? 0x4000 : 0x8000;
        DOES(current(1, size - 12), -1,
             calculated + test::printed("0x%x%s0x%x\n", size, exceeds.c_str(), size - 12));
        DOES(current(9, 0x100), 0x90C);
        DOES(current(10, 9), -1, "", "post_get_log_hdr_pos: index 0xa exceeds the maximum 0x9! ");
        postlog_nvram_close(blk);
    }
    // Where sysfs says nothing, the table's address is shown with an entry that is not there.
    const char *const addresses[] = {"f0004000", "f0006000", "f000a000"};
    for (const log_type_t blk : {event, results, errors}) {
        load(blk, (blk == event ? "" : post_index(order, 0, 64)) + post_header(order, 1, 40));
        const string said = test::output_of([=] { postlog_nvram_open_log(blk, 0); }).err;
        EXPECT_EQ(said.find(string("OFW base = ") + addresses[blk]) == string::npos, pcie) << said;
    }
    // The size limits how much of a message without an end is taken for one.
    load(event,
         post_header(order, 1, 40) + post_entry_head(order, 1, 2, 0x10000) + string(0x4000, 'x'));
    const auto dump = test::output_of([] { postlog_nvram_dump_all_log_msgs(event); });
    EXPECT_NE(dump.out.find("= " + string(0x2000, 'x') + "\n"), string::npos);
}

TEST_P(post_either_way, blocks_that_the_firmware_has_not_set_up_do_not_open)
{
    load(event, string(64, '\0'));
    DOES((postlog_nvram_init(event), closings), 1,
         string("ERROR: postlog_") + (pcie ? "pcie" : "dev_file") +
             "_nvram_init : header structure not initialized! cannot open for reading!!\n");
    const std::pair<string, string> cases[] = {
        {"\1\2\3\4" + string(8, '\0'), pcie ? "1020304" : "4030201"},
        {"\xE5", pcie ? "e5020304" : "e5"}}; // some of a record counts as a record
    for (const auto &[stored, magic] : cases) {
        load(results, stored);
        DOES(postlog_nvram_init(results), -1,
             "ERROR: postlog_dev_file_nvram_init: magic number not initialized! cannot open for "
             "reading!!\nmagic number: read = 0x" +
                 magic + " expect = 0x106f11e5\n",
             pcie ? ""
                  : "post_nvram_dump_block_index: \t  magic number = 0x" + magic +
                        " \n\t header index = 0x0\t size = 0x0 \n\t\n");
    }
}

TEST_P(post_either_way, a_history_that_is_not_there_does_not_open)
{
    use(ring);
    const auto open = [](int history) { return postlog_nvram_open_log(results, history); };
    const auto missing = [](int history) {
        return "post_get_log_pos: failed to get hdr postition. subblock=" + to_string(history) +
               " log=0\nclosed\n";
    };
    const string invalid = "ERROR: post_get_log_hdr_pos: invalid ";
    POST(postlog_nvram_open_log(event, 1), -1,
         invalid + "index 1; must less than 1!\n" + missing(1));
    POST(open(4), -1, invalid + "index 4; must less than 4!\n" + missing(4));
    POST(open(-1), -1, calculated + "0xfffffc0c" + exceeds + "0x400\n" + missing(-1));
    POST(open(2), -1, closed); // empty
    flip(ring.header_position(3));
    POST(open(3), -1, closed);
    flip(ring.entry_position(0, 0));
    POST(open(0), -1, closed);
    put(0, post_index(order, 1, 0xFFFFFFF0));
    POST(open(3), -1, calculated + "0xffffffdc" + exceeds + "0xfffffff0\n" + missing(3));
    put(0, post_index(order, 1, 1024, 0xABCD));
    POST(open(3), -1, missing(3), invalid + "magic number 0xabcd!\n");
}

TEST_P(post_either_way, opening_a_directory_says_why_there_is_nothing_to_list)
{
    use(ring);
    const auto open_with = [&](uint32_t current, int histories, uint32_t magic = 0x106F11E5) {
        put(0, post_index(order, current, 1024, magic));
        table[results].num_subblock = histories;
        return postlog_nvram_open_dir(results);
    };
    const string routine = "postlog_nvram_open_dir: ", invalid = routine + "invalid subblock # ";
    POST(open_with(1, 4, 0), -1, closed, routine + "cannot get curr log index!!\n");
    POST(open_with(4, 4), -1, closed, invalid + "4!! must be smaller than 4\n");
    POST(open_with(1, -3), -1, closed, invalid + "1!! must be smaller than -3\n");
    POST(open_with(1u << 31, 4), -1, closed, invalid + "-2147483648!! must be smaller than 4\n");
    table[event].num_subblock = 0;
    POST(postlog_nvram_open_dir(event), -1, closed, invalid + "0!! must be smaller than 0\n");
    for (const size_t history : {0, 1, 2, 3})
        put(ring.header_position(history), post_header(order, 1024, 0));
    POST(open_with(1, 4), -2, closed);
    flip(ring.header_position(1));
    POST(open_with(1, 4), -2, "ERROR " + routine + "check header failed!\n" + closed);
}

TEST_P(post_either_way, reading_steps_over_whole_messages_to_the_first_invalid_entry)
{
    use(ring);
    time_t time;
    string text(40, '?');
    const auto read = [&](uint32_t size) {
        return postlog_nvram_read_log(results, 36, &time, text.data(), size);
    };
    POST(read(4), 108);
    EXPECT_EQ(text.substr(0, 5), "olde?") << "no terminator, and no more than there is room for";
    POST(read(40), 108);
    EXPECT_EQ(text, "oldest" + string(26, '\0') + "????????");
    const string unread = "ERROR: post_nvram_mem_rd: cannot read or reach eof!! range=";
    put(36, post_entry_head(order, 1, 2, 0)); // an empty message
    POST(read(4), -1,
         pcie ? "pcie_nvram_read(): argument error \n"
                "ERROR: postlog_pcie_nvram_rd(): POST NVRAM Read error!\n"
              : unread + "0x4c-0x4b\n");
    for (const uint32_t size : {0x80000000, 0xFFFFFFFF}) { // beyond INT_MAX, and all offsets
        put(36, post_entry_head(order, 1, 2, size));
        const uint32_t next = size == 0xFFFFFFFF ? size : 36 + 40 + size;
        POST(read(4), -1,
             pcie ? "ERROR: postlog_pcie_rd_log(): POST NVRAM Read error!\n"
                  : unread + test::printed("0x%x-0x%x\nERROR postlog_dev_rd_log: cannot read from "
                                           "the device file! offset = 0x%x\nclosed\n",
                                           next, next + 39, next));
    }
    flip(36);
    POST(read(4), -1);
}

TEST_P(post_either_way, dumps_print_the_entries_of_histories)
{
    use(ring);
    const auto entry = [](const string &since_boot, const string &time, const string &message) {
        return "   epoch time (since boot): " + since_boot + " seconds.  timestamp: " + time +
               " 1970\n     msg = " + message + "\n\n";
    };
    const auto title = [](int history) {
        return "-------- history/subblock = " + to_string(history) + " --------\n";
    };
    const string first = entry("5", "Thu Jan  1 00:16:40", "oldest") +
                         entry("6", "Thu Jan  1 00:16:41", "last of it");
    const string newest =
        "   epoch time (since boot): 7 seconds.  timestamp: Sat Jan 10 13:37:04 2004\n     msg = newest\n\n";
    const string current = "postlog_nvram_dump_curr_log_msgs: curr log =";
    POST(postlog_nvram_dump_log_msgs(results, 2), 1);
    POST(postlog_nvram_dump_curr_log_msgs(results), 1, "", current + "1 \n" + newest);
    POST(postlog_nvram_dump_all_log_msgs(results), 1, closed,
         title(1) + newest + title(0) + first + title(3) +
             entry("8", "Thu Jan  1 00:50:00", "older") + title(2));
    table[results].num_subblock = 1;
    POST(postlog_nvram_dump_curr_log_msgs(results), 1, "", current + "0 \n" + first);
    table[results].num_subblock = 0;
    POST(postlog_nvram_dump_all_log_msgs(results), 1, closed);
    table[results].num_subblock = 4;
    put(0, post_index(order, 1, 1024, 5));
    POST(postlog_nvram_dump_curr_log_msgs(results), -1,
         "post_get_log_pos: failed to get hdr postition. subblock=-1 log=0\n",
         current + "-1 \nERROR: post_get_log_hdr_pos: invalid magic number 0x5!\n");
    nvram_log_header_t header = {0x11, 0x22, 0x33, 0x44, 0x5566778899AABBCC};
    DOES((post_dump_log_block_header(&header), 0), 0, "",
         "post_dump_log_block_header: \n\theader checksum = 0x11 \n\t log size = 0x22 \n\t index "
         "= 0x33\n\t version = 0x44 \n\t start addr = 0x99aabbcc\n");
}

TEST_P(post_either_way, the_place_for_the_next_entry)
{
    use(ring);
    const auto next_with = [&](uint32_t size, uint32_t used) {
        put(0x40c, post_header(order, size, used));
        return post_get_nxt_log_pos(results);
    };
    POST(post_get_curr_log_hdr_pos(event), 0);
    POST(next_with(3, 72), 0x40c + 3 * 72 + 24);
    POST(next_with(0x7FFFFBDB, 1), INT_MAX);
    POST(next_with(0x7FFFFBDC, 1), -1);
    POST(next_with(0xFFFFFFFF, 0xFFFFFFFF), -1);
    flip(0x40c);
    POST(post_get_nxt_log_pos(results), -1);
    put(0, post_index(order, 3, 0x400, 7));
    POST(post_get_nxt_log_pos(results), -1,
         "ERROR: post_get_curr_log_hdr_pos: invalid magic number 0x7!\n");
}

// What is listed and dumped when a bit of a record is flipped. The index has no checksum, nor have
// messages.
TEST_P(post_either_way, a_flipped_bit_is_never_shown_as_an_entry)
{
    const post_block small = {"", 256, 4, 1, {{{1, 1, "AAAA"}, {2, 2, "BBBB"}}, {{3, 3, "CCCC"}}}};
    const std::tuple<size_t, size_t, string, string> records[] = {
        {small.header_position(0), 24, "1: CCCC, ", "C"},
        {small.entry_position(0, 0), 40, "1: CCCC, ", "C"},
        {small.entry_position(0, 1), 40, "1: CCCC, 0: AAAA, ", "CA"},
        {small.header_position(1), 24, "", "AB"},
        {small.entry_position(1, 0), 40, "0: AAAA|BBBB, ", "AB"},
        {small.entry_position(1, 0) + 44, 4, "1: CCCC, 0: AAAA|BBBB, ", "CAB"}};
    use(small);
    const size_t step = pcie ? 29 : 1; // each access of a register is a trap
    for (const auto &[position, size, listed, dumped] : records)
        for (size_t bit = 8 * position; bit < 8 * (position + size); bit += step) {
            flip(bit / 8, bit % 8);
            EXPECT_EQ(log_of(results), listed) << bit;
            std::istringstream lines(
                test::output_of([] { postlog_nvram_dump_all_log_msgs(results); }).out);
            string messages;
            for (string line; std::getline(lines, line);)
                messages += line.starts_with("     msg = ") ? line.substr(11, 1) : "";
            EXPECT_EQ(messages, dumped) << bit;
            flip(bit / 8, bit % 8);
            controller.take_log();
        }
}

//--- device files ---------------------------------------------------------------------------------

TEST(post_access, nothing_is_mapped_at_first)
{
    const string init = not_mapped("postlog_nvram_init", "'init'");
    DOES(postlog_nvram_open_log(event, 0), -1, init);
    DOES(postlog_nvram_open_dir(event), -1, init, "postlog_nvram_open_dir: cannot open device!!\n");
    DOES(postlog_nvram_dump_all_log_msgs(event), -1, init);
    DOES(post_nvram_mem_rd(event, 0, nullptr, 1), 0, not_mapped("post_nvram_mem_rd", "'read'"));
    DOES(postlog_nvram_close_log(event, 0), 1, not_mapped("postlog_nvram_close", "'close'"));
    DOES(postlog_rd_log_index(event, 0, nullptr), -1, not_mapped("postlog_rd_log_index"));
    DOES(postlog_rd_log_header(event, 0, nullptr), -1, not_mapped("postlog_rd_log_header"));
    DOES(postlog_rd_log(event, 0, nullptr), -1, not_mapped("postlog_rd_log"));
    DOES(postlog_validate_log_header(nullptr), -1, not_mapped("postlog_validate_log_header"));
    DOES(postlog_validate_log_entry(nullptr), -1, not_mapped("postlog_validate_log_entry"));
}

TEST_F(post_device, without_validation_functions_records_count_as_valid)
{
    use(ring);
    postlog_map_nvram_access(
        table, [](log_type_t) { return 1; }, post_dev_file_nvram_mem_rd, close_block,
        postlog_dev_rd_log_index, postlog_dev_rd_log_header, postlog_dev_rd_log, nullptr, nullptr);
    flip(ring.header_position(1));
    flip(ring.entry_position(1, 0));
    const string header = not_mapped("postlog_validate_log_header");
    const string entry = not_mapped("postlog_validate_log_entry");
    POST(postlog_nvram_open_dir(results), 1, header + header + entry);
    POST(postlog_nvram_open_log(results, 1), 0x424, header + entry + entry);
}

TEST_F(post_device, opening_takes_over_what_sysfs_says_of_the_block)
{
    const auto describe = [](unsigned n, const char *file, const string &text) {
        write_file(nvram_class_dir(n) + "/" + file, text);
    };
    const nvram_dev_info_t &row = table[errors];
    const auto opened = [&] {
        DOES(postlog_nvram_init(errors), 1, "", "", test::any_error, 1);
        postlog_dev_file_nvram_close(errors);
        return std::tuple(row.attr, row.ofw_base, row.mem_size, row.subblock_size, row.fd);
    };
    for (const string mode : {"rw\n", "ro\n", "r\n", "wr\n", "rwx\n", ""}) {
        describe(2, "mode", mode);
        EXPECT_EQ(opened(),
                  std::tuple(mode.starts_with("rw") ? 2 : 0, 0xF000A000, 32768, 3264, -1));
    }
    // So many characters of each are read; the last one is taken for the line end.
    for (unsigned n = 3; n <= 20; ++n)
        describe(n, "name", n == 19 ? string(29, 'n') + "?\n" : n < 19 ? "other\n" : "twentieth\n");
    describe(19, "baseaddr", "0x123456789\n");
    describe(19, "size", "0x1234567\n");
    describe(19, "mode", "rwx\n");
    std::memset(table[errors].name, 'n', 29);
    EXPECT_EQ(opened(), std::tuple(2, 0x12345678, 0x12345, 0x1D20, -1));
    std::strcpy(table[event].name, "twentieth");
    DOES(postlog_nvram_init(event), 1,
         "ERROR: twentieth: cannot find nvram block named postlog_nvram_find_blk_properties!\n",
         "WARNING: failed to read NVRAM info. use default value.\n", test::any_error, 1);
    postlog_dev_file_nvram_close(event);
    EXPECT_EQ(table[event].subblock_size, table[event].mem_size) << "a single history has it all";
}

TEST_F(post_device, a_block_that_cannot_be_opened_is_reported)
{
    make_symlink("/dev/dangling", "/dev/nowhere/at-all");
    fs::remove(nvram_class_dir(2) + "/dev");
    const string failure = "ERROR postlog_dev_file_nvram_init: cannot open the device file!\n";
    const auto open = [](const char *path, const char *name) {
        std::strcpy(table[event].path, path);
        std::strcpy(table[event].name, name);
        return postlog_nvram_init(event);
    };
    DOES(open("/dev/x", "unknown"), -1, failure);
    DOES(open("/dev/x", "nvlog-diag-error"), -1, failure); // its device number is missing
    DOES(open("/dev/no/x", "nvlog-ofw-event"), -1,
         "mknod(/dev/no/x) failed: No such file or directory\n" + failure);
    DOES(open("/dev/dangling", "nvlog-ofw-event"), -1,
         "ERROR: cannot open newly created dev file /dev/dangling!\n" + failure);
    for (const int none : {-1, 3, INT_MIN, INT_MAX})
        DOES(postlog_nvram_init(static_cast<log_type_t>(none)), -1, failure);
    postlog_map_nvram_access(table, postlog_dev_file_nvram_init, nullptr, close_block, nullptr,
                             nullptr, nullptr, nullptr, nullptr);
    POST(postlog_nvram_init(results), -1, not_mapped("postlog_rd_log_index") + closed);
}

TEST_F(post_device, a_second_opening_is_refused_and_the_first_stays)
{
    DOES(postlog_nvram_init(results), 1, "", "", test::any_error, 1);
    DOES(postlog_nvram_init(results), -1,
         "ERROR: postlog_dev_file_nvram_init: current device is currently opened already!\n");
    DOES(post_get_curr_log_hdr_pos(results), 0xCCC);
    for (const long opens : {-1, 0})
        POST(postlog_nvram_close_dir(results), 1, closed, "", test::any_error, opens);
    POST(post_get_curr_log_hdr_pos(results), -1,
         "ERROR: post_nvram_mem_rd: cannot access device!\n"
         "ERROR postlog_dev_rd_log_index: cannot read from the device file!\nclosed\n");
}

TEST_F(post_device, devices_are_opened_exclusively_while_that_is_possible)
{
    const char *const node = table[event].path;
    const auto opens = [] {
        return test::system_calls_of([] { postlog_nvram_init(event); })["open"];
    };
    fs::remove(node);
    server.start();
    constexpr int properties = 4;
    EXPECT_EQ(opens(), 10 + 2 + 1 + properties) << "attempts, name and number, and the node made";
    const fs::file_status made = fs::status(node);
    EXPECT_TRUE(!fs::is_character_file(made) || made.permissions() == fs::perms(0600));
    for (const int shared : {::open(node, O_RDONLY), -1}) {
        EXPECT_EQ(opens(), (shared < 0 ? 1 : 10 + 2 + 1) + properties) << "not exclusively";
        ASSERT_EQ(postlog_nvram_init(event), 1);
        EXPECT_EQ(::fcntl(table[event].fd, F_GETFD), FD_CLOEXEC);
        EXPECT_EQ(::close(::open(node, O_RDONLY)), shared < 0 ? -1 : 0);
        postlog_dev_file_nvram_close(event);
        ::close(shared);
    }
}

// One failing call anywhere: opening the device is tried again, reading it is not, and without what
// sysfs says the table's values do.
TEST_F(post_device, any_call_may_fail)
{
    static time_t time;
    static char text[64];
    const std::tuple<std::function<int()>, int, long, bool> cases[] = {
        {[] { return postlog_nvram_init(results); }, 1, 1, false},
        {[] { return postlog_nvram_open_dir(results); }, 1, 1, false},
        {[] { return postlog_nvram_open_log(results, 1); }, 548, 1, false},
        {[] { return postlog_nvram_dump_all_log_msgs(results); }, 1, 0, false},
        {[] { return postlog_nvram_read_dir(results, 1, &time); }, -2, 0, true},
        {[] { return postlog_nvram_read_log(results, 548, &time, text, 64); }, 620, 0, true},
        {[] { return postlog_nvram_dump_curr_log_msgs(results); }, 1, 0, true},
        {[] { return post_get_nxt_log_pos(results); }, 524 + 512 * 144 + 24, 0, true},
    };
    set(results, {"", 1024, 32, 1, {{}, {{5, 5, "first"}, {6, 6, "second"}}}});
    std::set<string> printed; // but for what dumps and the device's reading print
    for (const auto &[call, value, opens, is_open_before] : cases) {
        if (is_open_before)
            test::output_of([] { postlog_nvram_init(results); });
        const auto make_call = [&] {
            const int result = kept(call());
            const nvram_dev_info_t &row = table[results];
            std::printf("post row %d %x %x\n", row.attr, row.ofw_base, row.mem_size);
            return result;
        };
        test::fail_each_call(EDOM, make_call, [&](const test::run &ran) {
            const bool fails = ran.failed == "pread";
            EXPECT_EQ(ran.seen.value, fails ? -1 : value) << ran;
            const bool closes = is_open_before && ran.seen.err.find(closed) != string::npos;
            EXPECT_EQ(ran.seen.opens, fails ? 0 - closes : opens) << ran;
            EXPECT_TRUE(!fails || ran.seen.error == EDOM) << ran;
            EXPECT_EQ(ran.seen.out.find("WARNING: failed to read NVRAM info.") == string::npos,
                      ran.seen.err.find("find_blk_properties") == string::npos)
                << ran;
            for (const auto &[name, stream] :
                 {std::pair("out ", ran.seen.out), {"err ", ran.seen.err}}) {
                std::istringstream lines(stream);
                for (string line; std::getline(lines, line);)
                    if (line.find("post") != string::npos && line.find("_rd") == string::npos)
                        printed.insert(name + line + "\n");
            }
        });
        postlog_dev_file_nvram_close(results);
    }
    string all = "\n";
    for (const string &line : printed)
        all += line;
    EXPECT_EQ(all, R"(
err ERROR postlog_nvram_open_dir: failed to get log position!
err ERROR: /sys/class/zmt_nvram/nvram1/baseaddr: failed to read base address from postlog_nvram_find_blk_properties!
err ERROR: /sys/class/zmt_nvram/nvram1/mode: failed to read access attribute from postlog_nvram_find_blk_properties!
err ERROR: /sys/class/zmt_nvram/nvram1/size: failed to read size from postlog_nvram_find_blk_properties!
err ERROR: nvlog-diag-test: cannot find nvram block named postlog_nvram_find_blk_properties!
err ERROR: postlog_nvram_read_dir: failed to get lg position!
err post_get_log_pos: faild to read log structure at position 0x224post_get_log_pos: hdr struct: OFW base = f0006000  start addr/offset=224/0x224 index =0x90 log pos = 0x224
err post_get_log_pos: failed to get hdr postition. subblock=-1 log=0
err post_get_log_pos: failed to get hdr postition. subblock=0 log=0
err post_get_log_pos: failed to get hdr postition. subblock=1 log=0
err post_get_log_pos: subblock=0 log=0 hdr position = 0xc
err post_get_log_pos: subblock=1 log=0 hdr position = 0x20c
out post row 0 f0006000 4000
out post row 2 1234 4000
out post row 2 f0006000 400
out post row 2 f0006000 4000
out post row 7 1234 400
out postlog_nvram_dump_curr_log_msgs: curr log =-1 
out postlog_nvram_dump_curr_log_msgs: curr log =1 
out postlog_nvram_open_dir: cannot get curr log index!!
out postlog_nvram_open_dir: cannot open device!!
out postlog_nvram_read_dir: failed to read log from position 0x224
)");
}

//--- the controller -------------------------------------------------------------------------------

// Accesses in order: "s" and "b" for a look at the status register that finds the controller ready
// or busy, "cX" for the control word X, "d" for a word of data; others with a "?".
string text(const std::vector<register_access> &log)
{
    string text;
    for (const auto &[kind, offset, width, value] : log) {
        const bool writes = kind != register_access::read;
        text += width != 4 || writes != (offset == nvram_controller::control) ? "?" : "";
        text += offset == nvram_controller::status ? (value & 1 ? "b" : "s")
                : offset == nvram_controller::data ? "d"
                                                   : test::printed("c%jx ", uintmax_t{value});
    }
    return text;
}

TEST_F(post_controller, a_read_makes_exactly_these_accesses)
{
    const string stored = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ!?";
    controller.store(0x1234, stored);
    const std::tuple<uint32_t, string, string, int, int> cases[] = {
        {1, "sc1234 sd", "0", 0, 0},
        {2, "sc1234 sd", "1.", 0, 0}, // of a tail only one byte, and that not the one at its place
        {7, "sc1234 sdd", "01236..", 0, 0},
        {32, "sc1234 sdddddddd", stored.substr(0, 32), 0, 0},
        {33, "sc201234 sddddddddsd", stored.substr(0, 33), 0, 0},
        {11, "sc1234 sddd", "321076549..", 1, 0}, // the tail comes out of the reversed word, too
        {36, "sc201234 bbbbbbbbbsddddddddbbbbbbbbbsd", stored.substr(0, 36), 0, 9},
    };
    for (const auto &[size, accesses, bytes, swap, busy_looks] : cases) {
        controller.set_busy_looks(busy_looks);
        std::vector<uint8_t> buffer(size + 1, '.');
        DOES(pcie_nvram_read(0x1234, size, buffer.data(), swap), 0);
        EXPECT_EQ(string(buffer.begin(), buffer.end()), bytes + ".");
        EXPECT_EQ(text(controller.take_log()), accesses) << size;
    }
    EXPECT_EQ(set_nvc_ctl_reg(0xFD118024, 0, 1, 0xAB), 0x00218024u);
    EXPECT_EQ(set_nvc_ctl_reg(0xFFFFFFFF, 1, 0, 0xAB), 0xAB1FFFFFu);
    EXPECT_EQ(set_nvc_ctl_reg(0, 1, 2, 0x01), 0x01300000u);
}

TEST_F(post_controller, refused_and_timed_out_reads)
{
    uint8_t bytes[64];
    const string refused = "pcie_nvram_read(): argument error \n";
    DOES(pcie_nvram_read(0, 4, bytes, 0), 1, refused);
    DOES(pcie_nvram_read(4, 0, bytes, 0), 1, refused);
    DOES(pcie_nvram_read(4, 4, nullptr, 0), 1, refused);
    EXPECT_EQ(text(controller.take_log()), "");
    const string timeout = "check_nvc_ready(): PCIE NVRAM Busy check Timed out.\n"
                           "pcie_nvram_read(): PCIE NVRAM Busy check Timed out.\n";
    const string read_error = "ERROR: postlog_pcie_nvram_rd(): POST NVRAM Read error!\n";
    controller.set_busy_looks(25); // behind the control word: two times 10 looks, and 5 more
    const auto start = std::chrono::steady_clock::now();
    DOES(pcie_nvram_read(4, 4, bytes, 0), 1, timeout);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(10));
    DOES(postlog_pcie_nvram_rd(event, 4, bytes, 4), 0, timeout + read_error);
    DOES(check_nvc_ready(), 1);
    EXPECT_EQ(text(controller.take_log()), "sc4 bbbbbbbbbbbbbbbbbbbbbbbbbs");
    // Nothing lies beyond the controller's addresses.
    constexpr uint32_t last = 0x100000 - 0x8000 - sizeof(nvram_log_t);
    nvram_log_t entry;
    controller.set_busy_looks(0);
    DOES(postlog_rd_log(event, last, &entry), 1);
    for (const uint32_t offset : {last + 1, 0x100000u, 0xFFFFFFFFu}) {
        DOES(postlog_rd_log(event, offset, &entry), -1,
             "ERROR: postlog_pcie_rd_log(): POST NVRAM Read error!\n");
        DOES(post_nvram_mem_rd(event, offset, bytes, 40), 0, read_error);
    }
}

TEST_F(post_controller, records_are_converted_field_by_field_and_checked_as_stored)
{
    const auto records = [](byte_order in) {
        return post_header(in, 0x01020304, 0x05060708, 0x1122334455667788, 9) +
               post_entry_head(in, 0x0102030405060708, 0x1112131415161718, 99);
    };
    nvram_log_header_t header;
    nvram_log_t entry;
    load(errors, records(order));
    DOES(postlog_rd_log_header(errors, 0, &header), 1);
    DOES(postlog_rd_log(errors, 24, &entry), 1);
    const string little = records(byte_order::little);
    EXPECT_EQ(string(reinterpret_cast<const char *>(&header), 24).substr(4), little.substr(4, 20));
    EXPECT_EQ(string(reinterpret_cast<const char *>(&entry), 32), little.substr(24, 32));
    header.start ^= uint64_t{1} << 63;
    EXPECT_EQ(postlog_validate_log_header(&header), 0);
    EXPECT_EQ(postlog_validate_log_entry(&entry), 1);
    EXPECT_NE(entry.log_checksum, 0u) << "left alone by the check";
    entry.epoch_time.tv_usec = 1;
    EXPECT_EQ(postlog_validate_log_entry(&entry), 0);
}

TEST_F(post_controller, closed_blocks_stay_closed)
{
    postlog_map_pcie_nvram_access(controller.base());
    DOES(postlog_nvram_open_dir(event), 0);
    DOES(postlog_nvram_close_dir(event), 1);
    load(errors, "\x01\x02\x03\x04");
    test::output_of([] { EXPECT_EQ(postlog_nvram_init(errors), -1); }); // closes, too
    postlog_map_pcie_nvram_access(controller.base());
    for (const int blk : {0, 2, 3, -1})
        DOES(postlog_pcie_nvram_rd(static_cast<log_type_t>(blk), 24, nullptr, 1), 0,
             "ERROR: postlog_pcie_nvram_rd(): cannot access device!\n");
    for (const int blk : {0, 3})
        DOES(postlog_pcie_nvram_init(static_cast<log_type_t>(blk)), -1,
             "pcie_nvram_read(): argument error \n"
             "ERROR: postlog_pcie_rd_log_header(): POST NVRAM Read error!\n"
             "ERROR postlog_pcie_nvram_init: cannot read from the device file!\n");
}

} // namespace

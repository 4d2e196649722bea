// How the POST logs are read, through device files and through a PCIe NVRAM controller. Each call
// by itself is what the model tries (tests/models/).
#include "support/log_text.h"
#include "support/nvram_controller.h"
#include "support/post_access.h"
#include "support/sweep.h"

#include <device_access/post_log.hpp>

#include <climits>
#include <filesystem>

#include <fcntl.h>
#include <unistd.h>

namespace
{

using namespace chassis_sim;
namespace fs = std::filesystem;
using std::string;
using test::transcript;

constexpr log_type_t event = OFWEVENT_LOG;
constexpr log_type_t results = OFWDIAG_TEST_LOG;
constexpr log_type_t errors = OFWDIAG_ERROR_LOG;

nvram_dev_info_t table[3];
int kept_open = -1; // a client's own descriptor

void close_block(log_type_t blk)
{
    if (table[blk].fd != kept_open)
        postlog_dev_file_nvram_close(blk);
}

// A log as a client reads it.
string log_of(log_type_t blk)
{
    return test::log_text(device_access::post_log(device_access::post_block(blk)));
}

// A chassis with the sample logs, which the library opens and a client's function closes.
struct post_log : testing::Test {
    explicit post_log(bool by_pcie) : pcie(by_pcie)
    {
        ::setenv("TZ", "EAST-1", 1);
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

    void map(nvram_init_fp init) { test::map_post_access(pcie, table, init, close_block); }

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
    EXPECT_EQ(postlog_nvram_read_dir(results, 2, &time), -2);
    EXPECT_EQ(time, 0) << "an empty history";
    EXPECT_EQ(postlog_nvram_open_dir(results), 1);
    EXPECT_EQ(postlog_nvram_read_dir(results, 1, &time), 0);
    EXPECT_EQ(time, 0x40000000) << "without the upper bits";
    EXPECT_EQ(postlog_nvram_open_log(results, 0), 36);
    EXPECT_EQ(postlog_nvram_read_log(results, 36, &time, message, 7), 108);
    EXPECT_EQ(time, 1000);
}

TEST_P(post_either_way, the_librarys_table_says_how_large_blocks_are)
{
    const auto use_library_table = [this] {
        pcie ? postlog_map_pcie_nvram_access(controller.base()) : postlog_map_def_nvram_access();
    };
    transcript seen;
    for (const log_type_t blk : {event, results, errors}) {
        use_library_table();
        // Where sysfs says nothing, the table's address is shown with an entry that is not there.
        fs::remove(nvram_class_dir(blk) + "/size");
        load(blk, (blk == event ? "" : post_index(order, 0, 64)) +
                      post_header(order, 1, 40, 0x123456789));
        SHOW(seen, postlog_nvram_open_log(blk, 0));
        use_library_table();
        load(blk, image);
        SHOW(seen, postlog_nvram_init(blk));
        const uint32_t size = blk == results && !pcie ? 0x4000 : 0x8000;
        for (const auto &[history, distance] :
             std::vector<std::pair<uint32_t, uint32_t>>{{1, size - 12}, {9, 0x100}, {10, 9}}) {
            load(blk, post_index(order, history, distance));
            SHOW(seen, post_get_curr_log_hdr_pos(blk));
        }
        SHOW(seen, postlog_nvram_close(blk));
    }
    use_library_table();
    // The size limits how much of a message without an end is taken for one.
    load(event,
         post_header(order, 1, 40) + post_entry_head(order, 1, 2, 0x10000) + string(0x4000, 'x'));
    SHOW(seen, postlog_nvram_dump_all_log_msgs(event));
    EXPECT_TEXT(pcie ? "post/sizes_pcie.txt" : "post/sizes.txt", seen.text());
}

//--- device files ---------------------------------------------------------------------------------

TEST(post_access, nothing_is_mapped_at_first)
{
    transcript seen;
    SHOW(seen, postlog_nvram_open_log(event, 0));
    SHOW(seen, postlog_nvram_open_dir(event));
    SHOW(seen, postlog_nvram_dump_all_log_msgs(event));
    SHOW(seen, post_nvram_mem_rd(event, 0, nullptr, 1));
    SHOW(seen, postlog_nvram_close_log(event, 0));
    SHOW(seen, postlog_rd_log_index(event, 0, nullptr));
    SHOW(seen, postlog_rd_log_header(event, 0, nullptr));
    SHOW(seen, postlog_rd_log(event, 0, nullptr));
    SHOW(seen, postlog_validate_log_header(nullptr));
    SHOW(seen, postlog_validate_log_entry(nullptr));
    SHOW(seen, postlog_nvram_dump_curr_log_msgs(results));
    nvram_log_header_t header = {0x10, 0x20, 0x30, 0x40, 0x1122334455667788};
    SHOW(seen, post_dump_log_block_header(&header)); // which needs no mapping
    EXPECT_TEXT("post/nothing_mapped.txt", seen.text());
}

TEST_F(post_device, a_block_that_cannot_be_opened_is_reported)
{
    make_symlink("/dev/dangling", "/dev/nowhere/at-all");
    fs::remove(nvram_class_dir(2) + "/dev");
    transcript seen;
    const auto open = [](const char *path, const char *name) {
        std::strcpy(table[event].path, path);
        std::strcpy(table[event].name, name);
        return postlog_nvram_init(event);
    };
    SHOW(seen, open("/dev/x", "unknown"));
    SHOW(seen, open("/dev/x", "nvlog-diag-error")); // its device number is missing
    SHOW(seen, open("/dev/no/x", "nvlog-ofw-event"));
    const string longest(29, 'l'); // for which the table has room
    write_file(nvram_class_dir(3) + "/name", longest + "\n");
    write_file(nvram_class_dir(3) + "/dev", "1:3\n");
    SHOW(seen, open("/dev/no/x", longest.c_str()));
    SHOW(seen, open("/dev/dangling", "nvlog-ofw-event"));
    for (const int none : {-1, 3, INT_MIN, INT_MAX})
        SHOW(seen, postlog_nvram_init(static_cast<log_type_t>(none)));
    postlog_map_nvram_access(table, postlog_dev_file_nvram_init, nullptr, close_block, nullptr,
                             nullptr, nullptr, nullptr, nullptr);
    SHOW(seen, postlog_nvram_init(results));
    EXPECT_TEXT("post/not_opened.txt", seen.text());
}

TEST_F(post_device, sysfs_says_what_a_block_is)
{
    transcript seen;
    using texts = std::vector<string>;
    for (const texts &one : {texts{"nvlog-ofw-event\n", "0xF0004000\n", "2000\n", "rw\n"},
                             {"nvlog-ofw-event", "f0006000\n", "0x800\n", "ro\n"},
                             {"nvlog-ofw-event\n", "0x0000000010\n", "12345678\n", "rw"},
                             {"nvlog-ofw-event\n", "12\n", "1234567\n", "rwx\n"},
                             {"nvlog-ofw-event2\n", "12\n", "10\n", "rw\n"},
                             {"nvlog-ofw-event\n", "01234567\n", "010\n", "w\n"},
                             {"nvlog-ofw-event\n", "12\n", "10\n", ""},
                             {"nvlog-ofw-event\n", "12\n", "", "rw\n"},
                             {"nvlog-ofw-event\n", "", "10\n", "rw\n"},
                             {"nvlog-ofw-event\n", "12\n", "", ""},
                             {"nvlog-ofw-event\n", "", "", ""}}) {
        set(event, logs[event]);
        for (const int number : {0, 20}) { // the last is not looked at
            fs::remove_all("/sys/class/zmt_nvram");
            for (size_t i = 0; i < one.size(); ++i)
                if (const char *const names[] = {"name", "baseaddr", "size", "mode"};
                    !one[i].empty())
                    write_file(nvram_class_dir(number) + "/" + names[i], one[i]);
            SHOW(seen, postlog_nvram_init(event));
            SHOW(seen, postlog_nvram_close(event));
            seen.note(test::printed("  at 0x%x, 0x%x bytes, attribute %d, histories of 0x%x",
                                    table[event].ofw_base, table[event].mem_size, table[event].attr,
                                    table[event].subblock_size));
        }
    }
    EXPECT_TEXT("post/sysfs.txt", seen.text());
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

// Opening the device is tried again, reading it is not, and without what sysfs says the table's
// values do.
TEST_F(post_device, a_failed_read_is_the_result_and_closes_what_was_opened)
{
    set(results, {"", 1024, 32, 1, {{}, {{5, 5, "first"}, {6, 6, "second"}}}});
    const std::tuple<std::function<int()>, int, long> cases[] = {
        {[] { return postlog_nvram_init(results); }, 1, 1},
        {[] { return postlog_nvram_open_dir(results); }, 1, 1},
        {[] { return postlog_nvram_open_log(results, 1); }, 548, 1},
        {[] { return postlog_nvram_dump_all_log_msgs(results); }, 1, 0},
    };
    for (const auto &[call, value, opens] : cases)
        test::fail_each_call(EDOM, call,
                             [&, expected = value, opened = opens](const test::run &ran) {
                                 const bool fails = ran.failed == "pread";
                                 EXPECT_EQ(ran.seen.value, fails ? -1 : expected) << ran;
                                 EXPECT_EQ(ran.seen.opens, fails ? 0 : opened) << ran;
                                 EXPECT_TRUE(!fails || ran.seen.error == EDOM) << ran;
                             });
}

TEST_F(post_device, a_clients_functions_may_fail_or_be_missing)
{
    use(ring);
    static int reads = 0;
    const nvram_rd_log_fp rd_log = [](log_type_t blk, uint32_t offset, nvram_log_t *entry) {
        return reads++ % 2 == 0 ? postlog_dev_rd_log(blk, offset, entry) : -1;
    };
    const auto map_to = [&](nvram_mem_rd_fp rd) {
        postlog_map_nvram_access(
            table, [](log_type_t) { return 1; }, rd, close_block, postlog_dev_rd_log_index,
            postlog_dev_rd_log_header, rd_log, nullptr, nullptr);
    };
    map_to(post_dev_file_nvram_mem_rd);
    transcript seen;
    time_t time = 77;
    char message[8];
    SHOW(seen, postlog_nvram_read_dir(results, 1, &time));
    SHOW(seen, postlog_nvram_open_log(results, 1));
    SHOW(seen, postlog_nvram_read_log(results, 36, &time, message, 8));
    SHOW(seen, postlog_nvram_dump_log_msgs(results, 1));
    map_to([](log_type_t, uint32_t, uint8_t *, uint32_t) { return 0; });
    SHOW(seen, postlog_nvram_dump_log_msgs(results, 1));
    EXPECT_TEXT("post/clients_functions.txt", seen.text());
}

//--- the controller -------------------------------------------------------------------------------

TEST_F(post_controller, closed_blocks_stay_closed)
{
    postlog_map_pcie_nvram_access(controller.base());
    transcript seen;
    SHOW(seen, postlog_nvram_open_dir(event));
    SHOW(seen, postlog_nvram_close_dir(event));
    load(errors, "\x01\x02\x03\x04");
    SHOW(seen, postlog_nvram_init(errors)); // closes, too
    SHOW(seen, postlog_nvram_close(results));
    postlog_map_pcie_nvram_access(controller.base());
    for (const int blk : {0, 1, 2, 3, -1})
        SHOW(seen, postlog_pcie_nvram_rd(static_cast<log_type_t>(blk), 24, nullptr, 1));
    for (const int blk : {0, 3})
        SHOW(seen, postlog_pcie_nvram_init(static_cast<log_type_t>(blk)));
    nvram_log_index_t index;
    SHOW(seen, postlog_pcie_rd_log_index(event, 0, &index));
    EXPECT_TEXT("post/closed.txt", seen.text());
    nvram_controller other;
    postlog_map_pcie_nvram_access(other.base());
    EXPECT_EQ(check_nvc_ready(), 1);
    EXPECT_EQ(other.take_log().size(), 1u) << "the base that was mapped last";
}

} // namespace

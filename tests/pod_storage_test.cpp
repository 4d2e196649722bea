// How the three storages of the POD log are used, each case on each of them; what failing calls
// leave; then how their devices are made. Each call by itself is what the model tries
// (tests/models/), and what a cut leaves is explored (tests/explore/).
#include "support/pod_log.h"
#include "support/sweep.h"
#include "support/test.h"

#include <filesystem>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

static std::string made; // nodes, and what of: MODE MAJOR:MINOR

extern "C" int mknod(const char *path, mode_t mode, dev_t number) noexcept
{
    made += test::printed(" %s 0%o %u:%u", path, mode, major(number), minor(number));
    return reinterpret_cast<decltype(&::mknod)>(::dlsym(RTLD_NEXT, "mknod"))(path, mode, number);
}

namespace
{

using namespace test;
namespace fs = std::filesystem;
using chassis_sim::pod_entry;
using chassis_sim::write_file;

class storage : public testing::TestWithParam<pod_storage>
{
protected:
    pod_storage s = GetParam();
    const bool is_eeprom = s.path.empty();

    void SetUp() override
    {
        chassis_sim::enter_private_root();
        ::setenv("TZ", "EAST-1", 1);
        bind_eeprom<0>(0);
        if (is_eeprom)
            s.path = eeprom_path(0);
        write_file(s.path, s.image());
    }

    void open(const std::string &image) const
    {
        write_file(s.path, image);
        ASSERT_EQ(s.init(0, 0), 1);
    }
};

const auto name_of = [](const auto &kind) { return kind.param.name; };
INSTANTIATE_TEST_SUITE_P(on, storage, testing::ValuesIn(pod_storages), name_of);

//--- what is written ------------------------------------------------------------------------------

TEST_P(storage, formats_adds_and_moves_on_byte_for_byte)
{
    open(std::string(s.layout.size, '\0'));
    std::string image = s.image();
    ASSERT_EQ(difference(read_file(s.path), image), "");
    now = 1700000001;
    EXPECT_EQ(s.add_parts("INFO ", "memtest", "ok", "%d%% of %s", 50, "it, done"), 1);
    now = static_cast<time_t>(0x80000002); // beyond 32 signed bits
    EXPECT_EQ(s.add_text("second"), 1);
    image = s.image(
        0, {{{1700000001, "INFO memtest  ok  50% of it, done"}, {0xFFFFFFFF80000002, "second"}}});
    EXPECT_EQ(difference(read_file(s.path), image), "");

    // Messages are not cleared, only entry headers, at the fixed distance.
    EXPECT_EQ(s.set_curr_log_status(0, 1), 1);
    for (uint32_t i = 0; i < s.layout.histories; ++i)
        EXPECT_EQ(s.use_nxt_log(0), 1);
    put(image, s.header_at(0), s.image().substr(s.header_at(0), 36));
    put(image, s.entry_at(0, 1), std::string(16, '\0'));
    put(image, 0, s.name == "file" ? s.index(0) : "");
    EXPECT_EQ(difference(read_file(s.path), image), "");
}

#if __SIZEOF_LONG__ == 4
TEST_P(storage, keeps_the_time_that_a_narrow_time_t_cannot_hold)
{
    open(s.image());
    time_error = EOVERFLOW;
    EXPECT_EQ(s.add_text("later"), 1);
    s.close(0);
    timespec clock = {};
    ::clock_gettime(CLOCK_REALTIME, &clock);
    time_t ts = 0;
    char msg[64];
    ASSERT_GT(s.open_log(0, 0), 0);
    EXPECT_EQ(s.read_log(0, static_cast<int>(s.entry_at(0, 0)), &ts, msg, sizeof msg), -2);
    EXPECT_NEAR(static_cast<double>(ts), static_cast<double>(clock.tv_sec), 60);
}
#endif

//--- what is read ---------------------------------------------------------------------------------

TEST_P(storage, walks_histories_newest_first_and_entries_oldest_first)
{
    s.describe(3, 416);
    write_file(s.path,
               s.image(1, {{{1000, "old"}}, {{0x90000000, "new"}, {0x90000001, "newer"}}, {}}));
    EXPECT_EQ(s.text(), "1: new|newer, 0: old, ");
    time_t ts = -1;
    EXPECT_EQ(s.open_dir(0), 1);
    EXPECT_EQ(s.read_dir(0, 1, &ts), 0);
    EXPECT_EQ(ts, static_cast<time_t>(0x90000000u)) << "32 bits without sign";
    EXPECT_EQ(s.read_dir(0, 0, &ts), -2) << "the empty history 2 is passed over";
    EXPECT_EQ(s.close_dir(0), 1);
    char msg[4] = "###";
    const int first = static_cast<int>(s.entry_at(1, 0));
    EXPECT_EQ(s.open_log(0, 1), first);
    EXPECT_EQ(s.read_log(0, first, &ts, msg, 2), first + 80);
    EXPECT_STREQ(msg, "ne#");
    EXPECT_EQ(s.read_log(0, first + 80, &ts, msg, 1), -2);
    const std::string dump = output_of([&] { s.dump_log_msgs(0, 1); }).out;
    const std::string time = printed(" %ld: ", static_cast<long>(ts));
    EXPECT_TRUE(s.is_nvram() || dump.find(time) != dump.npos) << dump;
}

TEST(pod_walk, each_kind_of_storage_has_one_of_its_own)
{
    chassis_sim::enter_private_root();
    bind_eeprom<0>(0);
    for (pod_storage s : pod_storages) {
        s.describe(3, 416);
        write_file(s.path.empty() ? eeprom_path(0) : s.path,
                   s.image(2, {{{1, "a"}}, {{2, "b"}}, {{3, "c"}}}));
        EXPECT_EQ(s.open_dir(0), 2);
    }
    time_t ts;
    for (const auto &step : {std::pair{2, 1}, {1, 0}, {0, -2}})
        for (const pod_storage &s : pod_storages)
            EXPECT_EQ(s.read_dir(0, step.first, &ts), step.second) << s.name;
}

TEST_P(storage, dumps_what_is_good_of_damaged_histories)
{
    s.describe(3, 416);
    const std::string good =
        s.image(1, {{{1000, "old"}, {0x60000000, "late"}, {3, ""}}, {{7, "new"}}, {}});
    const auto at = [&](size_t position, const std::string &bytes) {
        std::string other = good;
        put(other, position, bytes);
        return other;
    };
    const size_t second = s.entry_at(0, 1);
    const std::pair<const char *, std::string> images[] = {
        {"good", good},
        {"a message without an end", at(second + 16, std::string(700, 'm'))},
        {"a longer message that leads to no entry",
         at(s.entry_at(0, 0), pod_entry(5, 380) + std::string(300, 'l'))},
        {"an entry that leads beyond the end", at(second, pod_entry(5, 0x7fffff00))},
        {"an entry without a message", at(second, pod_entry(5, 0))},
        {"a bad second entry", at(second, "?")},
        {"a bad header", at(s.header_at(0), "?")},
        {"a header that counts nothing", at(s.header_at(0), chassis_sim::pod_header(416, 0, 0))},
        {"a current history that does not exist", at(32, s.index(9))},
        {"another magic number", at(32, "?")},
        {"cut within an entry", good.substr(0, second + 7)},
        {"cut before a message", good.substr(0, second + 16)},
    };
    transcript seen;
    seen.shows_errno = s.name != "eeprom";
    for (const auto &[what, image] : images) {
        seen.note(what);
        write_file(s.path, image);
        SHOW(seen, s.dump_all_log_msgs(0));
        output_of([&] { s.init(0, 0); });
        write_file(s.path, image); // what opening has made good
        for (const int history : {0, 3, -1})
            SHOW(seen, s.dump_log_msgs(0, history));
        SHOW(seen, s.dump_curr_log_msgs(0));
        output_of([&] { s.close(0); });
    }
    EXPECT_TEXT("pod/dumps_" + s.name + ".txt", seen.text());
}

//--- failing calls --------------------------------------------------------------------------------

TEST_P(storage, a_failing_call_leaves_nothing_open)
{
    const std::string filled = s.image(1, {{{5, "a"}}, {{6, "b"}}});
    const auto check = [&](const run &one) {
        const bool stays_open = one.seen.value.number >= 0 && !is_eeprom;
        EXPECT_EQ(one.seen.opens, stays_open) << one;
        EXPECT_EQ(one.blocks, 0) << one;
        EXPECT_TRUE(stays_open || one.seen.error == EIO || one.seen.value.number >= 0) << one;
        write_file(s.path, filled);
    };
    write_file(s.path, filled);
    fail_each_call(
        EIO, [&] { return s.init(0, 0); }, check);
    fail_each_call(
        EIO, [&] { return s.open_dir(0); }, check);
    fail_each_call(
        EIO, [&] { return s.open_log(0, 1); }, check);
}

//--- NVRAM ----------------------------------------------------------------------------------------

struct pod_nvram : testing::Test {
    pod_nvram() { chassis_sim::enter_private_root(); }

    void configure(std::string node)
    {
        seen.note(node);
        s.set_pod_info(0, node.data(), 16384, 10, 64, 0xFFFFFFE0);
    }
    const pod_storage s = pod_storages[0];
    const std::string good = s.image();
    transcript seen;
};

TEST_F(pod_nvram, makes_the_node_of_the_block_it_finds_and_holds_it_alone)
{
    chassis_sim::device_server server;
    chassis_sim::add_nvram(server, {.number = 0, .name = "nvlog-pod2"});
    chassis_sim::add_nvram(server, {.number = 1, .name = "nvlog-po"});
    chassis_sim::add_nvram(server, {.number = 2});
    server.start();
    ASSERT_EQ(s.init(0, 0), 1);
    s.close(0);
    EXPECT_EQ(difference(read_file(s.path), good), "");
    ASSERT_EQ(s.init(0, 1), 1);
    const int held = std::exchange(_nvram_dev_info[0].fd, -1);
    EXPECT_OUTCOME(s.init(0, 0), {.value = -1, .error = any_error}); // a busy device is no news
    ::close(held);
    const int shared = ::open(s.path.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(s.init(0, 0), 1) << "the node that was made is opened as it is";
    ::close(shared);
}

TEST_F(pod_nvram, says_why_there_is_no_device)
{
    int fd = 5;
    SHOW(seen, podlog_nvram_open_dev_file(0, &fd, 1));
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(pauses, 20) << "one after each attempt";
    EXPECT_EQ(shortest_pause, 500u);
    EXPECT_EQ(longest_pause, 1499u);

    write_file(s.path, "");
    const auto open_as_0 = [&] { // the lowest descriptor is not taken, nor left open
        ::close(0);
        const int result = podlog_nvram_open_dev_file(0, &fd, 1);
        return ::open("/dev/null", O_RDONLY) == 0 ? result : -1;
    };
    SHOW(seen, open_as_0());
    fs::remove(s.path);
    for (unsigned int n = 0; n < 21; ++n)
        write_file(chassis_sim::nvram_class_dir(n) + "/name", n == 20 ? "nvlog-pod\n" : "other\n");
    write_file(chassis_sim::nvram_class_dir(20) + "/dev", "1:3\n");
    SHOW(seen, podlog_nvram_open_dev_file(0, &fd, 1)); // only 20 are looked at
    write_file(chassis_sim::nvram_class_dir(19) + "/name", "nvlog-pod\n");
    SHOW(seen, s.init(0, 0));
    for (const char *number : {"7\n", "010:07\n", "1:3\n"}) { // both are decimal
        write_file(chassis_sim::nvram_class_dir(19) + "/dev", number);
        configure("/dev/missing/node");
        SHOW(seen, s.init(0, 0));
        seen.note("  made" + std::exchange(made, ""));
    }
    chassis_sim::make_symlink("/dev/dangling", "/dev/missing/node");
    for (const char *node : {"/dev/missing/node", "/dev/dangling"}) {
        configure(node);
        SHOW(seen, s.init(0, 0));
        SHOW(seen, s.init(0, 1));
    }
    const std::string path = "/dev/" + std::string(35, 'n'); // 40 bytes of a name are kept
    write_file(path, good);
    configure(path + "more");
    SHOW(seen, s.init(0, 1));
    EXPECT_EQ(std::string(_nvram_dev_info[0].name, 41), path + '\2');
    EXPECT_TEXT("pod/no_device.txt", seen.text());
}

//--- files and EEPROMs ----------------------------------------------------------------------------

TEST(pod_file, makes_directory_and_file_only_for_writing)
{
    chassis_sim::enter_private_root();
    ::umask(027);
    std::string missing;
    for (int id = 0; id < 17; ++id)
        missing += output_of([&] { EXPECT_EQ(podlog_file_init(id, 1), -1); }).err;
    EXPECT_TEXT("pod/missing_files.txt", missing);
    int fd = 5;
    EXPECT_OUTCOME(podlog_file_open_dev_file(6, &fd, 1),
                   {.error = ENOENT, .err = "ERROR: file /var/pod/pod_ft1.hex does not exist!\n"});
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(fs::status("/var/pod").permissions(), fs::perms{0777});
    EXPECT_TRUE(fs::is_empty("/var/pod"));
    podlog_file_set_pod_info(3, std::string("/var/pod/small").data(), 1000, 2, 64, ~0u);
    for (const auto &file : {std::pair{3, "/var/pod/small"}, {16, "/var/pod/pod_rpsw_mate.hex"}}) {
        EXPECT_OUTCOME(podlog_file_init(file.first, 0),
                       {.value = 1, .error = any_error, .opens = 1});
        EXPECT_EQ(fs::status(file.second).permissions(), fs::perms{0750});
        EXPECT_EQ(fs::file_size(file.second), 16384u) << "whatever the log's size";
    }
    podlog_file_set_pod_info(4, std::string("/var/pod/small/below").data(), 1000, 2, 64, ~0u);
    for (const int rdonly : {0, 1})
        EXPECT_OUTCOME(podlog_file_init(4, rdonly),
                       {.value = -1,
                        .error = any_error,
                        .err = "ERROR: pod_file_mem_rd: cannot access device!\n"});
    EXPECT_EQ(::umask(027), mode_t{027});
    fs::rename("/var", "/elsewhere");
    EXPECT_OUTCOME(podlog_file_init(4, 1),
                   {.value = -1,
                    .error = ENOENT,
                    .err = "Unable to create POD directory: No such file or directory\n"});
    EXPECT_EQ(::umask(027), mode_t{0}) << "stays so";
}

} // namespace

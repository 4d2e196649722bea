// UIO devices with interrupts, removals and failing calls. What names, maps and the tree may be,
// the model in tests/models tries. This program defines libuio_log, so diagnostics are on.
#include "support/uio.h"

#include <chrono>
#include <climits>
#include <csignal>
#include <limits>
#include <set>
#include <utility>

#include <stdio_ext.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/time.h>

extern "C" {
int libuio_log;
}

namespace
{

using namespace chassis_sim;
using namespace test;
using std::chrono::milliseconds;

constexpr timespec long_past = {0, 1};
constexpr time_t start_of_time = std::numeric_limits<time_t>::min();
constexpr timespec end_of_time = {std::numeric_limits<time_t>::max(), 999999999};

void start_chassis(const std::vector<uio_description> &devices = {{}})
{
    enter_private_root();
    device_server server;
    for (const uio_description &device : devices)
        add_uio(server, device);
    server.start();
}

//--- open -----------------------------------------------------------------------------------------

TEST(uio_open, tells_each_step_and_leaves_three_descriptors)
{
    start_chassis();
    libuio_dev_t *uio = nullptr;
    const outcome seen = outcome_of([&] { return uio = libuio_open("/dev/uio0"); });
    ASSERT_NE(uio, nullptr) << seen;
    EXPECT_EQ(seen.opens, 3);
    EXPECT_EQ(seen.out, "");
    const std::string fixed = std::to_string(sizeof *uio + sizeof *uio->map);
    const std::string three = printed("\\(%d, %d, %d\\)", uio->tmr_fd, uio->uio_fd, uio->gone_fd);
    const std::string lines = replaced(seen.err, three.c_str(), "(3 descriptors)");
    EXPECT_TEXT("uio/open.txt", replaced(lines, ("\\(" + fixed).c_str(), "(handle and records"));
    EXPECT_OUTCOME(libuio_close(uio), {.error = any_error, .opens = -3});
    EXPECT_OUTCOME(libuio_adjust_size(nullptr),
                   {.value = nullptr, .out = "LOG_ERR libuio_adjust_size: uio is NULL\n"});
}

TEST(uio_open, waits_in_steps_of_5_ms_and_counts_what_is_below_a_second_a_tenth)
{
    start_chassis({});
    struct waiting {
        timespec limit;
        int steps;
        const char *name = "/dev/uio0";
    };
    for (const waiting &one : {waiting{{0, 500000000}, 50 / 5},
                               {{0, 500000000}, 50 / 5, "sysfs_pci:uio_fe.sw1.vostra_lite"},
                               {{0, 59999999}, 5 / 5},
                               {{0, 10000000}, 1},
                               {{0, 9999999}, 0},
                               {{1, 0}, 1000 / 5},
                               {{start_of_time, 0}, 0}}) {
        const auto start = std::chrono::steady_clock::now();
        const auto open = [&] { libuio_open_timed(one.name, &one.limit); };
        EXPECT_EQ(system_calls_of(open)["nanosleep"], one.steps) << one.limit.tv_sec;
        EXPECT_GE(std::chrono::steady_clock::now() - start, one.steps * milliseconds(5));
    }
    // Nor is there a directory of UIO devices.
    EXPECT_OUTCOME(open_now("/dev/null"), {.value = nullptr, .error = ENOENT});
}

TEST(uio_open, waits_for_what_appears_later)
{
    std::vector<uio_description> late(2);
    late[0].plugged = late[1].plugged = false;
    late[1].number = 1;
    start_chassis(late);
    background([] {
        for (const std::string line : {"plug uio0", "plug uio1", ""}) {
            usleep(40000);
            line.empty() ? add_fpga_card({"sw1", "0000:00:01.0", "0000:01:00.0", 0, {4096}})
                         : control(line);
        }
    });
    held("/dev/uio0", &end_of_time);
    held("/dev/uio1", nullptr);
    held("sysfs_pci:uio_fe.sw1.vostra_lite", nullptr);
    background([] {
        usleep(40000);
        make_symlink("/dev/uio2", "uio2");
    });
    EXPECT_OUTCOME(libuio_open("/dev/uio2"), {.value = nullptr, .error = ELOOP});
}

// The C library spreads a minor number above 255 over two places of a device number.
TEST(uio_open, composes_a_device_number_the_simple_way)
{
    start_chassis({});
    const auto node = [](unsigned int major, unsigned int minor, const std::string &text) {
        std::filesystem::remove("/dev/uio7");
        write_file("/sys/class/uio/uio7/dev", text);
        return mknod("/dev/uio7", S_IFCHR | 0600, makedev(major, minor));
    };
    if (node(243, 300, "243:300\n") != 0)
        GTEST_SKIP() << "an ordinary user makes no device nodes";
    const std::string line = debug("make_class_dir: 0x10f32c not matching 243:300\n");
    EXPECT_OUTCOME(open_now("/dev/uio7"), {.value = nullptr, .error = ENODEV, .err = line + line});
    node(4095, 44, "4095:44\n");
    const outcome seen = outcome_of([] { return open_now("/dev/uio7"); });
    EXPECT_EQ(seen.err, debug("make_class_dir: Made /sys/class/uio/uio7"));
}

//--- attributes and lines -------------------------------------------------------------------------

TEST(uio_attribute, is_opened_below_the_devices_directory)
{
    start_chassis();
    libuio_dev_t *const uio = opened("/dev/uio0");
    transcript seen;
    const auto show = [&](const char *name, int flags) {
        seen.note(name ? name : "NULL");
        SHOW(seen, libuio_open_device_attr(uio, name, flags) >= 0 ? 1 : -1);
    };
    for (const char *name : {static_cast<const char *>(nullptr), "uevent", "none", "/etc/passwd",
                             "uevent/x", "uio_maps/x", "."})
        show(name, O_RDONLY | O_CLOEXEC);
    show(".", O_RDWR);
    const char *const dir = std::exchange(uio->sys_device_dir, nullptr);
    for (const char *name : {"uevent", "/etc/passwd", static_cast<const char *>(nullptr)})
        show(name, O_RDONLY);
    for (const char *other : {"/sys/gone", "/etc/passwd"}) {
        uio->sys_device_dir = other;
        show("uevent", O_RDONLY);
    }
    uio->sys_device_dir = dir;
    EXPECT_TEXT("uio/attributes.txt", seen.text());
    const int fd = libuio_open_device_attr(uio, "uevent", O_RDWR);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDWR);
    libuio_close(uio);
}

TEST(uio_lines, go_to_one_of_the_streams_as_far_as_they_fit)
{
    const std::string prefix = "log[word]: lib/device_access/libuio:7:";
    for (const int level : {INT_MIN, 0, 3, 5, 6, 7, INT_MAX})
        for (const size_t length : {9, 440, 470, 472, 473, 474, 475, 600}) {
            const std::string function(length, 'f');
            std::string line = "lib/device_access/libuio:7:" + function + "(): ";
            line = line.substr(0, 509) + (line.size() < 509 ? "text %s" : "");
            line = "log[word]: " + line.substr(0, 509) + "\n";
            outcome expected;
            (level <= 5 ? expected.out : expected.err) = short_lines(line);
            EXPECT_OUTCOME(libuio_pr(level, "word", 7, function.c_str(), "text %s", "%s"),
                           {expected});
        }
    static char buffer[BUFSIZ];
    size_t waiting = 0;
    output_of([&waiting] {
        setvbuf(stderr, buffer, _IOFBF, sizeof buffer);
        for (const int level : {3, 7}) {
            libuio_pr(level, "word", 7, "function", "text");
            waiting += __fpending(level == 3 ? stdout : stderr);
        }
    });
    EXPECT_EQ(waiting, 0u) << "bytes are left in the buffers";
}

//--- each failing call ----------------------------------------------------------------------------

// A client's whole round; 0, or the errno of the call that failed.
int round()
{
    const timespec deadline = {0x7fffffff, 7};
    libuio_dev_t *uio = open_now("/dev/uio0");
    const bool good = uio && libuio_mmap(uio, 0) >= 0 && libuio_irqcontrol(uio, 1) == 0 &&
                      libuio_irqwait(uio, &deadline, nullptr) == 0;
    const int error = good ? 0 : errno;
    libuio_close(uio);
    return error;
}

TEST(uio_faults, each_failing_call_gives_its_errno_and_one_line_and_leaves_nothing)
{
    uio_description device;
    device.maps = {{"map5", "4096"}};
    device.irq_delay_ms = 0;
    start_chassis({device});
    expect_failures("uio", EIO, round);
    EXPECT_EQ(opens_of(round), "O_RDONLY /sys/class/uio/uio0/dev\n"
                               "O_RDONLY /sys/class/uio/uio0/maps/map5/size\n"
                               "O_RDWR /dev/uio0\nO_RDONLY uio_maps\n");
}

TEST(uio_faults, an_unmapping_that_fails_is_noted_and_forgotten)
{
    start_chassis();
    libuio_dev_t *uio = opened("/dev/uio0");
    libuio_mmap(uio, 0);
    const std::string line = debug(printed("munmap: munmap(%p, 0x1000) failed: Input/output error",
                                           libuio_get_mapinfo(uio, 0, nullptr)));
    const auto unmap = [uio] {
        libuio_munmap(uio, 0);
        return libuio_get_mapinfo(uio, 0, nullptr);
    };
    EXPECT_EQ(fail_each_call(EIO, unmap,
                             [&line](const run &seen) {
                                 EXPECT_EQ(seen.seen, (outcome{nullptr, EIO, line}));
                             }),
              1);
    libuio_close(uio);
}

//--- interrupts and removal -----------------------------------------------------------------------

class uio_irq : public testing::Test
{
protected:
    uio_irq()
    {
        start_chassis();
        uio_ = opened("/dev/uio0");
        libuio_mmap(uio_, 0);
        libuio_irqcontrol(uio_, 1);
    }
    void TearDown() override { libuio_close(uio_); }

    void expect_interrupt(const timespec *deadline, uint32_t number)
    {
        uint32_t count = 0;
        EXPECT_OUTCOME(libuio_irqwait(uio_, deadline, &count), {});
        EXPECT_EQ(count, number);
    }
    void expect_timeout(const timespec &deadline)
    {
        const std::string line =
            debug(printed("irqwait: poll() fires timer-fd (%d)", uio_->tmr_fd));
        EXPECT_OUTCOME(libuio_irqwait(uio_, &deadline, nullptr),
                       {.value = -1, .error = ETIMEDOUT, .err = line});
    }
    void expect_no_control(int32_t flag, int error, const std::string &text)
    {
        const std::string line = err(printed("irqcontrol: pwrite(%d, ", uio_->uio_fd) + text);
        EXPECT_OUTCOME(libuio_irqcontrol(uio_, flag), {.value = -1, .error = error, .out = line});
    }

    libuio_dev_t *uio_;
};

TEST_F(uio_irq, waits_until_the_deadline)
{
    timespec soon;
    clock_gettime(CLOCK_MONOTONIC, &soon);
    soon.tv_sec += 1;
    const auto start = std::chrono::steady_clock::now();
    expect_timeout(soon);
    EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(900));
}

TEST_F(uio_irq, takes_a_system_call_for_each_thing_it_does)
{
    control("interrupt uio0");
    expect_interrupt(nullptr, 1);
    control("interrupt uio0");
    const auto calls = system_calls_of([this] {
        uint32_t count;
        libuio_irqcontrol(uio_, 1);
        libuio_irqwait(uio_, &long_past, &count);
    });
    EXPECT_EQ(calls,
              (call_counts{{"poll", 1}, {"pread", 1}, {"pwrite", 1}, {"timerfd_settime", 1}}));
}

TEST_F(uio_irq, removal_wins_and_shuts_the_handle)
{
    control("interrupt uio0");
    control("remove uio0");
    uint32_t count = 77;
    EXPECT_OUTCOME(
        libuio_irqwait(uio_, &long_past, &count),
        {.value = -1, .error = ECANCELED, .err = debug("irqwait: uio_maps removed"), .opens = -3});
    EXPECT_EQ(count, 77u);
    EXPECT_EQ(maps_text(uio_), "0=0:0+1000 ");
    EXPECT_OUTCOME(libuio_irqwait(uio_, &long_past, &count), {.value = -1, .error = EBADF});
    expect_no_control(1, EBADF, "0x1, 0) failed: Bad file descriptor");
    EXPECT_OUTCOME(libuio_close(std::exchange(uio_, nullptr)), {});
}

TEST_F(uio_irq, passes_on_what_the_driver_answers)
{
    control(printed("answer-write uio0 %d", -ENOSYS));
    expect_no_control(-2, ENOSYS, "0xfffffffe, 0) failed: Function not implemented");
    control("answer-write uio0 2");
    expect_no_control(0x20, EIO, "0x20, 0) partial 2");
    uint32_t count = 0;
    control("interrupt uio0");
    for (int answer : {-EIO, 0, 2}) {
        control(printed("answer-read uio0 %d", answer));
        EXPECT_OUTCOME(libuio_irqwait(uio_, nullptr, &count),
                       {.value = -1, .error = answer < 0 ? EIO : untouched});
    }
}

TEST_F(uio_irq, a_signal_ends_a_wait)
{
    struct sigaction wake = {};
    wake.sa_handler = [](int) {};
    sigaction(SIGALRM, &wake, nullptr);
    const auto wait = [this] {
        const itimerval each_30_ms = {{0, 30000}, {0, 30000}};
        const itimerval never = {};
        setitimer(ITIMER_REAL, &each_30_ms, nullptr);
        const int result = libuio_irqwait(uio_, nullptr, nullptr);
        setitimer(ITIMER_REAL, &never, nullptr);
        return result;
    };
    EXPECT_OUTCOME(wait(), {.value = -1,
                            .error = EINTR,
                            .out = err("irqwait: poll(,2,-1) failed: Interrupted system call")});
}

TEST_F(uio_irq, moves_4_bytes_at_the_beginning_of_the_node)
{
    write_file("/dev/file", "........");
    close(std::exchange(uio_->uio_fd, open("/dev/file", O_RDWR)));
    EXPECT_OUTCOME(libuio_irqcontrol(uio_, 0x34333231), {});
    EXPECT_EQ(read_file("/dev/file"), "1234....");
    expect_interrupt(nullptr, 0x34333231);
}

TEST_F(uio_irq, any_event_of_the_notice_is_a_removal)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    close(ends[1]); // a hang-up, and nothing to read
    close(std::exchange(uio_->gone_fd, ends[0]));
    EXPECT_OUTCOME(
        libuio_irqwait(uio_, nullptr, nullptr),
        {.value = -1, .error = ECANCELED, .err = debug("irqwait: uio_maps removed"), .opens = -3});
}

TEST_F(uio_irq, a_node_may_be_descriptor_0)
{
    dup2(std::exchange(uio_->uio_fd, 0), 0);
    libuio_munmap(uio_, 0);
    EXPECT_OUTCOME(libuio_mmap(uio_, 0), {.value = 1});
    control("interrupt uio0");
    EXPECT_OUTCOME(libuio_irqwait(uio_, &long_past, nullptr), {});
}

TEST_F(uio_irq, closes_the_notice_then_the_node_then_the_timer)
{
    std::string done;
    // The sanitizers, too, make calls at the first look at an object that has virtual functions.
    const auto close = [uio = uio_] { return libuio_close(uio), 0; };
    fail_each_call(EIO, close, [&done](const run &run) { done += run.failed + "\n"; });
    EXPECT_EQ(replaced(done, "[0-9]{2,}", "NUMBER"),
              "munmap\nclose /memfd:chassis-notice:uio0 (deleted)\n"
              "close socket:[NUMBER]\nclose anon_inode:[timerfd]\n");
}

TEST_F(uio_irq, disables_what_has_its_class_directory_among_the_pci_devices)
{
    write_file("/sys/bus/pci/devices/any/enable", "1");
    uio_->sys_class_dir = uio_->sys_device_dir = "/sys/bus/pci/devices/any";
    EXPECT_OUTCOME(libuio_close(std::exchange(uio_, nullptr)), {.error = any_error, .opens = -3});
    EXPECT_EQ(read_file("/sys/bus/pci/devices/any/enable"), "0");
}

TEST_F(uio_irq, descriptor_0_is_never_closed_nor_watched)
{
    close(std::exchange(uio_->gone_fd, 0));
    dup2(open("/dev/null", O_RDONLY), 0); // always readable
    expect_timeout(long_past);
    EXPECT_OUTCOME(libuio_close(std::exchange(uio_, nullptr)), {.error = any_error, .opens = -2});
}

} // namespace

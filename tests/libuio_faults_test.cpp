#include "sim/chassis.h"
#include "support/captured_output.h"
#include "support/descriptors.h"
#include "support/failing_call.h"
#include "support/libuio_messages.h"

#include <device_access/libuio.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <fstream>
#include <string>

#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <sys/xattr.h>
#include <unistd.h>

extern "C" {
int libuio_log;
}

namespace
{

using test_support::failing;
using test_support::fails;
using test_support::next;

void *unmapped; // by the last call

} // namespace

extern "C" {

int timerfd_create(int clock, int flags)
{
    return fails("timerfd_create") ? -1 : next<int(int, int)>("timerfd_create")(clock, flags);
}

// Opens the attribute of the device's directory.
int openat(int dir, const char *name, int flags, ...)
{
    va_list args;
    va_start(args, flags);
    const int mode = va_arg(args, int);
    va_end(args);
    return fails("openat")
               ? -1
               : next<int(int, const char *, int, ...)>("openat64")(dir, name, flags, mode);
}

int lstat(const char *path, struct stat *status)
{
    return fails("lstat") ? -1 : next<int(const char *, struct stat *)>("lstat64")(path, status);
}

ssize_t pread(int fd, void *buffer, size_t size, off_t offset)
{
    if (size == 1 && fails("pread"))
        return failing.error ? -1 : 0;
    return next<ssize_t(int, void *, size_t, off_t)>("pread64")(fd, buffer, size, offset);
}

int munmap(void *address, size_t size) noexcept
{
    const int result = next<int(void *, size_t)>("munmap")(address, size);
    unmapped = address;
    return fails("munmap") ? -1 : result;
}

int poll(struct pollfd *set, nfds_t count, int timeout)
{
    if (!fails("poll"))
        return next<int(struct pollfd *, nfds_t, int)>("poll")(set, count, timeout);
    return failing.error ? -1 : 1; // awake for nothing
}

// What poll() is in a library that has been built with checks of its buffers.
int __poll_chk(struct pollfd *set, nfds_t count, int timeout, size_t)
{
    return poll(set, count, timeout);
}

// Finds a card by its slot's name.
ssize_t getxattr(const char *path, const char *name, void *value, size_t size) noexcept
{
    using function = ssize_t(const char *, const char *, void *, size_t);
    return fails("getxattr") ? -1 : next<function>("getxattr")(path, name, value, size);
}

} // extern "C"

namespace
{

using test_support::captured_output;
using test_support::libuio_messages;
using test_support::open_descriptors;

constexpr timespec no_wait = {0, 0};

void start_chassis()
{
    chassis_sim::enter_private_root();
    chassis_sim::device_server server;
    chassis_sim::add_uio(server, {});
    server.start();
}

TEST(libuio_faults, each_failing_call_ends_the_open_with_its_errno_and_leaves_nothing)
{
    start_chassis();
    const std::string device_dir = chassis_sim::uio_device_dir(0);
    struct {
        const char *call;
        int error;
        int expected;
        std::string message;
        bool on_heap = false;
    } cases[] = {
        {"lstat", EIO, EIO,
         "LOG_ERR libuio_locate_class_dir: lstat(/dev/uio0) failed: Input/output error\n"},
        {"openat", EACCES, EACCES,
         "LOG_ERR libuio_open_device_attr: openat(" + device_dir +
             ",uio_maps,0x80000) failed: Permission denied\n"},
        {"pread", EIO, EIO,
         "LOG_ERR libuio_open_files: 1st read(" + device_dir +
             "/uio_maps) failed: Input/output error\n"},
        {"pread", 0, EIO,
         "LOG_ERR libuio_open_files: 1st read(" + device_dir +
             "/uio_maps) failed: Input/output error\n"},
        {"timerfd_create", ENFILE, ENFILE,
         "LOG_ERR libuio_open_files: timerfd_create() failed: Too many open files in system\n"},
        {"calloc", EAGAIN, ENOMEM,
         "LOG_ERR libuio_locate_real_name: calloc(54) failed for "
         "/dev/uio0\n",
         true},
        {"realloc", EAGAIN, ENOMEM, "LOG_ERR libuio_adjust_size: realloc (", true},
    };
    for (const auto &c : cases) {
        if (c.on_heap && test_support::heap_is_replaced)
            continue;
        SCOPED_TRACE(c.call);
        const auto before = open_descriptors();
        {
            captured_output output;
            failing = {c.call, c.error};
            EXPECT_EQ(libuio_open_timed("/dev/uio0", &no_wait), nullptr);
            EXPECT_EQ(errno, c.expected) << strerror(errno);
            failing.name = "";
            EXPECT_EQ(libuio_messages(output.take_stdout()).rfind(c.message, 0), 0u);
        }
        EXPECT_EQ(open_descriptors(), before);
    }
}

TEST(libuio_faults, an_unmapping_that_fails_is_noted_and_forgotten)
{
    start_chassis();
    libuio_dev_t *uio = libuio_open("/dev/uio0");
    ASSERT_NE(uio, nullptr);
    ASSERT_EQ(libuio_mmap(uio, 0), 1);
    captured_output output;
    char expected[128];
    snprintf(expected, sizeof expected,
             "LOG_DEBUG libuio_munmap: munmap(%p, 0x1000) failed: Invalid argument\n",
             libuio_get_mapinfo(uio, 0, nullptr));
    failing = {"munmap", EINVAL};
    libuio_munmap(uio, 0);
    EXPECT_EQ(libuio_messages(output.take_stderr()), expected);
    EXPECT_EQ(libuio_get_mapinfo(uio, 0, nullptr), nullptr);
    libuio_close(uio);
}

TEST(libuio_faults, a_wait_that_wakes_for_nothing_is_an_io_error)
{
    start_chassis();
    libuio_dev_t *uio = libuio_open("/dev/uio0");
    ASSERT_NE(uio, nullptr);
    captured_output output;
    failing = {"poll", 0};
    EXPECT_EQ(libuio_irqwait(uio, nullptr, nullptr), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(libuio_messages(output.take_stdout()),
              "LOG_ERR libuio_irqwait: poll(,2,-1) failed: Success\n");
    libuio_close(uio);
}

TEST(libuio_faults, each_failing_call_ends_an_emulated_open_and_leaves_the_device_disabled)
{
    chassis_sim::enter_private_root();
    chassis_sim::add_fpga_card({"sw1", "0000:00:01.0", "0000:01:00.0", 1, {0x40000, 0x80000}});
    static const std::string enable = chassis_sim::pci_link("0000:01:00.0") + "/enable";
    const std::string handle_size =
        std::to_string(sizeof(libuio_dev_t) + LIBUIO_MAX_MAPS * sizeof(libuio_map_t));
    struct {
        const char *call;
        int expected;
        std::string message;
        bool on_heap;
    } const cases[] = {
        {"getxattr", EINVAL, "", false}, // after the first look: the device leaves in between
        {"calloc", ENOMEM, "LOG_ERR libuio_new_handle: calloc(" + handle_size + ") failed\n", true},
        {"realloc", ENOMEM, "LOG_ERR libuio_adjust_size: realloc (", true},
    };
    for (const auto &c : cases) {
        if (c.on_heap && test_support::heap_is_replaced)
            continue;
        SCOPED_TRACE(c.call);
        chassis_sim::write_file(enable, "0\n");
        const auto before = open_descriptors();
        std::string messages;
        const auto fail = [&] {
            captured_output output;
            failing = {c.call, EAGAIN, c.on_heap ? 0 : 1};
            EXPECT_EQ(libuio_open_timed("sysfs_pci:uio_flash.sw1.vostra_lite", &no_wait), nullptr);
            EXPECT_EQ(errno, c.expected) << strerror(errno);
            EXPECT_STREQ(failing.name, "");
            messages = libuio_messages(output.take_stdout());
        };
        fail();
        EXPECT_EQ(messages.substr(0, c.message.size()), c.message);
        EXPECT_EQ(messages.empty(), c.message.empty());
        EXPECT_EQ(open_descriptors(), before);
        std::ifstream file(enable);
        std::string enabled;
        file >> enabled;
        EXPECT_EQ(enabled, "0");
        const size_t used = mallinfo2().uordblks;
        for (int i = 0; i < 100; ++i)
            fail();
        EXPECT_LT(mallinfo2().uordblks, used + 100 * sizeof(libuio_map_t) * LIBUIO_MAX_MAPS / 2);
    }
    if (test_support::heap_is_replaced)
        return;
    captured_output output;
    failing = {"realloc", EAGAIN, 0, [] { unlink(enable.c_str()); }};
    EXPECT_EQ(libuio_open_timed("sysfs_pci:uio_flash.sw1.vostra_lite", &no_wait), nullptr);
    EXPECT_EQ(errno, ENOMEM) << "not that of the disabling, which fails as well";
}

TEST(libuio_faults, an_fpga_says_what_it_is_though_its_page_cannot_be_unmapped)
{
    chassis_sim::enter_private_root();
    chassis_sim::add_fpga_card({"sw1", "0000:00:01.0", "0000:01:00.0", 18, {0x40000, 0x80000}});
    captured_output output;
    failing = {"munmap", EINVAL};
    libuio_dev_t *uio = libuio_open_timed("sysfs_pci:uio_ntb.sw1", &no_wait);
    EXPECT_NE(uio, nullptr);
    char expected[128];
    snprintf(expected, sizeof expected,
             "LOG_ERR get_fpga_name: munmap(%p, 0x1000) failed: Invalid argument\n", unmapped);
    EXPECT_EQ(libuio_messages(output.take_stdout()), expected);
    libuio_close(uio);
}

} // namespace

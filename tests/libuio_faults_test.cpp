// This program's own versions of some calls stand before the C library's, for the library under
// test too: one of them can be told to fail.
#include "sim/chassis.h"
#include "support/captured_output.h"
#include "support/descriptors.h"
#include "support/libuio_messages.h"

#include <device_access/libuio.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <string>

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <unistd.h>

#if defined __SANITIZE_ADDRESS__
constexpr bool heap_is_replaced = true; // by the sanitizer, which must keep it
#else
constexpr bool heap_is_replaced = false;
extern "C" void *__libc_calloc(size_t count, size_t size);
extern "C" void *__libc_realloc(void *block, size_t size);
#endif

extern "C" {
int libuio_log;
}

namespace
{

std::string failing; // name of the call that fails
int error;           // its errno; 0: it reports an end of file, or nothing

bool fails(const char *name)
{
    if (failing != name)
        return false;
    failing.clear(); // once
    errno = error;
    return true;
}

template <typename Function>
Function *next(const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

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
        return error ? -1 : 0;
    return next<ssize_t(int, void *, size_t, off_t)>("pread64")(fd, buffer, size, offset);
}

int munmap(void *address, size_t size) noexcept
{
    const int result = next<int(void *, size_t)>("munmap")(address, size);
    return fails("munmap") ? -1 : result;
}

int poll(struct pollfd *set, nfds_t count, int timeout)
{
    if (!fails("poll"))
        return next<int(struct pollfd *, nfds_t, int)>("poll")(set, count, timeout);
    return error ? -1 : 1; // awake for nothing
}

#if !defined __SANITIZE_ADDRESS__
void *calloc(size_t count, size_t size)
{
    return count == 1 && fails("calloc") ? nullptr : __libc_calloc(count, size);
}

void *realloc(void *block, size_t size)
{
    return fails("realloc") ? nullptr : __libc_realloc(block, size);
}
#endif

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
        if (c.on_heap && heap_is_replaced)
            continue;
        SCOPED_TRACE(c.call);
        const auto before = open_descriptors();
        {
            captured_output output;
            error = c.error;
            failing = c.call;
            EXPECT_EQ(libuio_open_timed("/dev/uio0", &no_wait), nullptr);
            EXPECT_EQ(errno, c.expected) << strerror(errno);
            failing.clear();
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
    error = EINVAL;
    failing = "munmap";
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
    error = 0;
    failing = "poll";
    EXPECT_EQ(libuio_irqwait(uio, nullptr, nullptr), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(libuio_messages(output.take_stdout()),
              "LOG_ERR libuio_irqwait: poll(,2,-1) failed: Success\n");
    libuio_close(uio);
}

} // namespace

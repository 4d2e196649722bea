// The simulated chassis itself: that it never breaks, whatever is done in it, and that it behaves
// like a kernel.
#include "support/test.h"

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#ifndef TOOLS
#define TOOLS PROGRAMS
#endif

namespace
{

namespace fs = std::filesystem;
using namespace chassis_sim;
using std::string;

// What a line of the shell prints on both streams, and its status behind it.
string shell(const string &line)
{
    const string whole = "PATH=" PROGRAMS ":" TOOLS ":$PATH; { " + line + "\n} 2>&1";
    FILE *const pipe = ::popen(whole.c_str(), "r");
    string text;
    for (int byte; (byte = std::fgetc(pipe)) != EOF;)
        text += static_cast<char>(byte);
    return text + std::to_string(WEXITSTATUS(::pclose(pipe)));
}

//--- a device -------------------------------------------------------------------------------------

void become_ordinary_user()
{
    ASSERT_TRUE(::getuid() != 0 ||
                (::setresgid(65534, 65534, 65534) == 0 && ::setresuid(65534, 65534, 65534) == 0));
    // A process that was root may not write to its own /proc entry until it says so.
    ASSERT_EQ(::prctl(PR_SET_DUMPABLE, 1), 0);
}

void start_chassis(const uio_description &device = {})
{
    become_ordinary_user();
    enter_private_root();
    EXPECT_TRUE(fs::is_empty("/sys"));
    EXPECT_FALSE(fs::exists("/dev/mem"));
    EXPECT_TRUE(fs::exists("/usr/bin"));
    device_server server;
    add_uio(server, device);
    server.add(storage_node{"/dev/nvlog-test", "stored"});
    server.start();
}

TEST(chassis, says_in_one_line_that_it_cannot_be_built)
{
    if (::getuid() != 0)
        GTEST_SKIP() << "only root can put itself where no namespaces are allowed";
    const auto build_without_namespaces = [] {
        // The kernel makes no user namespaces for who lives in a changed root.
        if (::chroot("/usr") == 0)
            become_ordinary_user();
        try {
            enter_private_root();
        } catch (const failure &error) {
            std::fputs(error.what(), stderr);
            ::_exit(3); // a sanitizer's checks at exit need the root that is left
        }
    };
    EXPECT_EXIT(build_without_namespaces(), testing::ExitedWithCode(3),
                "^needs a private mount namespace: run it as root, or where user namespaces are "
                "allowed: Operation not permitted$");
}

// An open device whose interrupt is enabled.
int open_device(int flags = 0)
{
    const int fd = ::open("/dev/uio0", O_RDWR | flags);
    const uint32_t on = 1;
    EXPECT_EQ(::write(fd, &on, sizeof on), 4) << std::strerror(errno);
    return fd;
}

// The count read, or -errno.
int64_t count_of(int fd)
{
    uint32_t count;
    const ssize_t length = ::read(fd, &count, sizeof count);
    return length == sizeof count ? int64_t{count} : -errno;
}

// What poll tells at once.
int events_of(int fd, int asked = POLLIN)
{
    pollfd one = {fd, static_cast<short>(asked), 0};
    ::poll(&one, 1, 0);
    return one.revents;
}

TEST(chassis, device_that_was_removed_is_whole_again_when_it_is_plugged)
{
    start_chassis();
    for (int round = 0; round < 10; ++round) {
        const int fd = open_device();
        const int notice = ::open("/sys/class/uio/uio0/device/uio_maps", O_RDONLY);
        char text[8];
        EXPECT_EQ(::pread(notice, text, sizeof text, 0), 5);
        auto *const map = static_cast<volatile uint32_t *>(
            ::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
        ASSERT_NE(map, MAP_FAILED);
        EXPECT_EQ(std::exchange(*map, 7u), 0u);
        control("interrupt uio0");
        EXPECT_EQ(count_of(fd), 1);
        EXPECT_EQ(events_of(fd) | events_of(notice), 0);
        control("remove uio0");
        EXPECT_FALSE(fs::exists("/dev/uio0") || fs::exists("/sys/class/uio/uio0") ||
                     fs::exists(uio_device_dir(0)));
        EXPECT_EQ(events_of(fd), POLLIN | POLLERR | POLLHUP);
        EXPECT_EQ(events_of(notice), POLLIN | POLLERR | POLLHUP);
        EXPECT_EQ(count_of(fd), -EIO);
        EXPECT_EQ(*map, 7u) << "what is mapped stays";
        EXPECT_EQ(::mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0), MAP_FAILED);
        EXPECT_EQ(::pread(notice, text, sizeof text, 0), -1);
        control("plug uio0");
        EXPECT_EQ(test::read_file("/sys/class/uio/uio0/maps/map0/size"), "0x0000000000001000\n");
        EXPECT_EQ(count_of(fd), -EIO) << "what was open is not the new device";
        ::munmap(const_cast<uint32_t *>(map), 4096);
        ::close(fd);
        ::close(notice);
    }
}

// Ways to wait: whether a descriptor is readable after that many milliseconds at most.
bool by_poll(int fd, int ms)
{
    pollfd one = {fd, POLLIN, 0};
    return ::poll(&one, 1, ms) == 1 && one.revents == POLLIN;
}
bool by_ppoll(int fd, int ms)
{
    pollfd one = {fd, POLLIN, 0};
    const timespec limit = {0, ms * 1000000L};
    return ::ppoll(&one, 1, &limit, nullptr) == 1 && one.revents == POLLIN;
}
bool by_select(int fd, int ms)
{
    fd_set set;
    FD_ZERO(&set);
    FD_SET(fd, &set);
    timeval limit = {0, ms * 1000L};
    return ::select(fd + 1, &set, nullptr, nullptr, &limit) == 1 && FD_ISSET(fd, &set);
}
template <uint32_t mode>
bool by_epoll(int fd, int ms)
{
    const int set = ::epoll_create1(0);
    epoll_event event = {EPOLLIN | mode, {.u64 = 0x123456789abcdef}};
    epoll_event seen = {};
    ::epoll_ctl(set, EPOLL_CTL_ADD, fd, &event);
    const bool ready = ::epoll_wait(set, &seen, 1, ms) == 1 && seen.events == EPOLLIN &&
                       seen.data.u64 == event.data.u64;
    ::close(set);
    return ready;
}
bool by_read(int fd, int ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    ::fcntl(fd, F_SETFL, O_NONBLOCK);
    uint32_t count;
    const bool ready = ::pread(fd, &count, sizeof count, 0) == sizeof count;
    EXPECT_TRUE(ready || errno == EAGAIN);
    ::fcntl(fd, F_SETFL, 0);
    return ready;
}

// Another opening has seen `count` interrupts at least.
void expect_interrupts(int used, int other, bool (*wait)(int, int), int64_t &count)
{
    EXPECT_FALSE(wait(used, 2));
    control("interrupt uio0");
    EXPECT_TRUE(wait(used, 900));
    if (wait != by_read) {
        control("interrupt uio0");
        EXPECT_GE(count_of(used), 2); // the newest
    }
    EXPECT_FALSE(wait(used, 0));
    EXPECT_GT(count_of(other), std::exchange(count, 1)) << "each opening has its own";
    std::thread later([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        control("interrupt uio0");
    });
    EXPECT_GT(count_of(used), 0) << "it waits";
    later.join();
}

TEST(chassis, interrupts_are_seen_in_every_way_to_wait_and_through_every_descriptor)
{
    start_chassis();
    const std::pair<const char *, int (*)(int)> descriptors[] = {
        {"opened", [](int fd) { return fd; }},
        {"dup", [](int fd) { return ::dup(fd); }},
        {"fcntl", [](int fd) { return ::fcntl(fd, F_DUPFD_CLOEXEC, 3); }},
        {"dup2", [](int fd) { return ::dup2(fd, 200); }},
        {"mapped", [](int fd) {
             EXPECT_NE(::mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0), MAP_FAILED);
             return fd;
         }}};
    const std::pair<const char *, bool (*)(int, int)> waits[] = {
        {"poll", by_poll},
        {"ppoll", by_ppoll},
        {"select", by_select},
        {"epoll", by_epoll<0>},
        {"epoll, edges", by_epoll<uint32_t{EPOLLET}>},
        {"read", by_read}};
    for (const auto &[descriptor, make] : descriptors) {
        const int fd = open_device();
        const int other = open_device();
        int64_t count = 0;
        for (const auto &[way, wait] : waits) {
            SCOPED_TRACE(string(descriptor) + ", " + way);
            if (string(descriptor) == "dup2" && wait == by_read)
                continue; // its number is too low for pread to be asked about
            const int used = make(fd);
            expect_interrupts(used, other, wait, count);
            if (used != fd)
                ::close(used);
        }
        ::close(other);
        ::close(fd);
    }
}

TEST(chassis, descriptor_left_to_the_kernel_behaves_like_one)
{
    start_chassis();
    const int fd = open_device(O_NONBLOCK | O_CLOEXEC);
    EXPECT_EQ(::fcntl(fd, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(count_of(fd), -EAGAIN);
    char many[8];
    EXPECT_OUTCOME(::read(fd, many, 8), {.value = -1, .error = EINVAL});
    EXPECT_OUTCOME(::write(fd, many, 8), {.value = -1, .error = EINVAL});
    ::mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0);
    EXPECT_EQ(::fcntl(fd, F_GETFD), FD_CLOEXEC) << "as before it was mapped";
    // A set of epoll forgets what is closed.
    const int set = ::epoll_create1(0);
    epoll_event event = {EPOLLIN, {}};
    ASSERT_EQ(::epoll_ctl(set, EPOLL_CTL_ADD, fd, &event), 0);
    ::mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0);
    ::close(fd);
    const int again = open_device();
    control("interrupt uio0");
    EXPECT_EQ(::epoll_wait(set, &event, 1, 0), 0);
    EXPECT_EQ(count_of(again), 1 + 0);
    // Children have it too, and a removal ends their wait.
    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(count_of(again) == -EIO ? 9 : 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    control("remove uio0");
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(WEXITSTATUS(status), 9);
}

TEST(chassis, storage_is_there_once_its_node_is_made_and_for_one_at_a_time)
{
    start_chassis();
    EXPECT_TRUE(fs::is_character_file("/dev/uio0"));
    EXPECT_EQ(::mknod("/dev/nvlog-test", S_IFCHR | 0600, ::makedev(240, 0)), 0);
    const int busy = ::open("/dev/nvlog-test", O_RDWR | O_EXCL);
    EXPECT_EQ(test::read_file("/dev/nvlog-test"), "");
    ::close(busy);
    EXPECT_EQ(test::read_file("/dev/nvlog-test"), "stored");
}

//--- sysfs ----------------------------------------------------------------------------------------

TEST(chassis, functions_have_what_tools_read_of_those_of_a_machine)
{
    enter_private_root();
    add_chassis_pci();
    add_chassis_hotswap();
    // By lspci, setpci, udevadm, devaccess and scripts.
    const string names =
        "ari_enabled broken_parity_status class config consistent_dma_mask_bits d3cold_allowed "
        "device dma_mask_bits driver_override enable irq local_cpulist local_cpus modalias "
        "msi_bus numa_node power power_state remove rescan resource revision subsystem "
        "subsystem_device subsystem_vendor uevent vendor";
    for (const auto &function : fs::directory_iterator("/sys/bus/pci/devices"))
        for (const string &name : test::words(names))
            EXPECT_TRUE(fs::exists(function.path() / name)) << function << name << " is missing";
}

TEST(chassis, device_manager_finds_its_devices)
{
    const string seen = shell("command -v udevadm >/dev/null || exit 0; "
                              "chassis-sim -- sh -c 'udevadm info /dev/uio0 -q path; "
                              "udevadm info -a /sys/class/uio/uio0 | grep name; udevadm info "
                              "-q property /sys/bus/pci/devices/0000:03:00.0 | grep PCI_ID'");
    if (seen != "0") {
        EXPECT_TRUE(seen.starts_with("/devices/platform/regblock.0/uio/uio0\n"
                                     "    ATTR{maps/map0/name}==\"regist"))
            << seen;
        EXPECT_TRUE(seen.ends_with("F0CA:0020\n0")) << seen;
    }
}

//--- registers and examples ----------------------------------------------------------------------

TEST(chassis, registers_have_what_is_described_and_answer)
{
    uio_description device;
    device.registers = {{4, 9}};
    device.answers = {{0, 0xff, 5, 4, 6}};
    start_chassis(device);
    const int fd = open_device();
    auto *const registers = static_cast<volatile uint32_t *>(
        ::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    for (const uint32_t expected : {9u, 6u}) {
        for (int looks = 0; registers[1] != expected && looks < 1000; ++looks)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        EXPECT_EQ(registers[1], expected);
        registers[0] = 0x105;
    }
}

TEST(chassis, examples_of_tests_pass)
{
    if (!fs::exists(TOOLS "/devaccess"))
        GTEST_SKIP() << "devaccess is not built, which they test";
    const string build = fs::temp_directory_path() / ("in_tests" + std::to_string(::getpid()));
    for (const string &line :
         {string("make -sC " EXAMPLES " check"), string("python3 -B " EXAMPLES "/test_client.py"),
          "cmake -S " EXAMPLES " -B " + build + " && ctest --test-dir " + build})
        EXPECT_TRUE(shell(line).ends_with("\n0") || shell(line) == "0") << shell(line);
    fs::remove_all(build);
}

#ifdef CLIENT
TEST(chassis, statically_linked_client_of_an_event_library_sees_interrupts_and_the_removal)
{
    EXPECT_EQ(shell("chassis-sim --uio-irq-delay 10 --uio-removed 500 -- " CLIENT " /dev/uio0 3"),
              "1\n2\n3\nremoved\n0");
}
#endif

} // namespace

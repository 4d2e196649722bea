// This program defines libuio_log, so the library's diagnostics are on and their texts are tested.
#include "sim/chassis.h"
#include "support/captured_output.h"
#include "support/descriptors.h"
#include "support/libuio_messages.h"
#include "support/libuio_waits.h"
#include "support/system_calls.h"

#include <device_access/libuio.h>
#include <device_access/regiomap_x86.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <string>
#include <thread>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/time.h>
#include <unistd.h>

extern "C" {
int libuio_log;
}

namespace
{

namespace fs = std::filesystem;
using chassis_sim::control;
using chassis_sim::uio_description;
using test_support::captured_output;
using test_support::libuio_messages;
using test_support::open_descriptors;

constexpr timespec no_wait = {0, 0};
const std::string class_dir = "/sys/class/uio/uio0";
const std::string device_dir = chassis_sim::uio_device_dir(0);

void start_chassis(std::initializer_list<uio_description> devices)
{
    chassis_sim::enter_private_root();
    chassis_sim::device_server server;
    for (const uio_description &device : devices)
        chassis_sim::add_uio(server, device);
    server.start();
}

// uio0 with the maps of these numbers, each a page long.
uio_description with_maps(std::initializer_list<int> numbers)
{
    uio_description device;
    device.maps.clear();
    for (int number : numbers)
        device.maps.push_back({"map" + std::to_string(number), "0x1000\n"});
    return device;
}

void overwrite(const std::string &path, const std::string &text)
{
    fs::remove_all(path);
    chassis_sim::write_file(path, text);
}

timespec in_ms(long ms)
{
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    time.tv_nsec += ms * 1000000;
    time.tv_sec += time.tv_nsec / 1000000000;
    time.tv_nsec %= 1000000000;
    return time;
}

const timespec long_past = {0, 1};

//--- open -----------------------------------------------------------------------------------------

TEST(libuio_open, fills_the_handle_from_sysfs)
{
    uio_description device = with_maps({0, 2});
    device.number = 3;
    device.maps[1].size = "8192";
    start_chassis({device});
    captured_output output;
    libuio_dev_t *uio = libuio_open("/dev/uio3");
    ASSERT_NE(uio, nullptr) << strerror(errno);
    const std::string debug = libuio_messages(output.take_stderr());
    EXPECT_EQ(output.take_stdout(), "");

    const std::string bus_dir = chassis_sim::uio_device_dir(3);
    EXPECT_STREQ(libuio_get_real_devnode(uio), "/dev/uio3");
    EXPECT_STREQ(libuio_get_sys_class_dir(uio), "/sys/class/uio/uio3");
    EXPECT_EQ(libuio_get_sys_device_dir(uio), bus_dir);
    EXPECT_EQ(uio->map_count, 2u);
    EXPECT_EQ(libuio_get_map_limit(uio), 3u);
    size_t size = 0;
    EXPECT_EQ(libuio_get_mapinfo(uio, 2, &size), nullptr);
    EXPECT_EQ(size, 8192u);
    EXPECT_EQ(libuio_get_mapinfo(uio, 1, &size), nullptr);
    EXPECT_EQ(size, 8192u);
    EXPECT_EQ(libuio_messages(output.take_stderr()),
              "LOG_DEBUG libuio_get_mapinfo: map[1] not found\n");
    for (int fd : {libuio_get_uio_fd(uio), libuio_get_removed_fd(uio), uio->tmr_fd}) {
        EXPECT_GT(fd, 0);
        EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    }

    // One block: the fixed part, the records, then the strings in this order.
    const char *tail = reinterpret_cast<const char *>(uio) + sizeof *uio + 2 * sizeof uio->map[0];
    EXPECT_EQ(uio->sys_device_dir, tail);
    EXPECT_EQ(uio->sys_class_dir, tail + bus_dir.size() + 1);
    EXPECT_EQ(uio->devnode_name, uio->sys_class_dir + strlen("/sys/class/uio/uio3") + 1);
    const std::string sizes = std::to_string(tail - reinterpret_cast<const char *>(uio)) + "+" +
                              std::to_string(bus_dir.size() + 1) + "+20+10";
    for (const std::string &line :
         {std::string("libuio_make_class_dir: Made /sys/class/uio/uio3"),
          "libuio_locate_device_dir: Found " + bus_dir,
          std::string("libuio_fill_map: Found 0; /sys/class/uio/uio3/maps/map0/size = 0x1000"),
          std::string("libuio_fill_map: Found 2; /sys/class/uio/uio3/maps/map2/size = 0x2000"),
          "libuio_adjust_size: realloc (" + sizes + ") ok",
          "libuio_open_files: (tmr, uio, chg) = (" + std::to_string(uio->tmr_fd) + ", " +
              std::to_string(uio->uio_fd) + ", " + std::to_string(uio->gone_fd) + ")\n"})
        EXPECT_NE(debug.find("LOG_DEBUG " + line + "\n"), std::string::npos) << line << debug;
    libuio_close(uio);
}

TEST(libuio_open, finds_the_device_of_a_link_and_of_a_node_with_another_name)
{
    uio_description other;
    other.number = 1;
    other.node = "/dev/regblock";
    start_chassis({uio_description(), other});
    fs::create_symlink("/dev/uio0", "/dev/first");
    struct {
        const char *name;
        const char *class_dir;
    } cases[] = {{"/dev/first", "/sys/class/uio/uio0"}, {"/dev/regblock", "/sys/class/uio/uio1"}};
    for (const auto &c : cases) {
        libuio_dev_t *uio = libuio_open_timed(c.name, &no_wait);
        ASSERT_NE(uio, nullptr) << c.name << strerror(errno);
        EXPECT_STREQ(libuio_get_real_devnode(uio), c.name);
        EXPECT_STREQ(libuio_get_sys_class_dir(uio), c.class_dir);
        libuio_close(uio);
    }
}

TEST(libuio_open, waits_for_the_node_within_its_budget)
{
    uio_description late;
    late.plugged = false;
    start_chassis({late});
    captured_output output;
    test_support::expect_waits_within_budget("/dev/uio0", ENOENT);
    EXPECT_EQ(output.take_stdout() + output.take_stderr(), "");

    chassis_sim::background([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(40));
        control("plug uio0");
    });
    libuio_dev_t *uio = libuio_open("/dev/uio0");
    ASSERT_NE(uio, nullptr) << strerror(errno);
    libuio_close(uio);
}

TEST(libuio_open, the_longest_limit_does_not_wrap)
{
    uio_description late;
    late.plugged = false;
    start_chassis({late});
    chassis_sim::background([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(40));
        control("plug uio0");
    });
    const timespec ages = {std::numeric_limits<time_t>::max(), 0};
    libuio_dev_t *uio = libuio_open_timed("/dev/uio0", &ages);
    ASSERT_NE(uio, nullptr) << strerror(errno);
    libuio_close(uio);
}

TEST(libuio_open, composes_device_numbers_the_simple_way_only)
{
    start_chassis({uio_description()});
    // The C library spreads a minor number above 255 over two places of a device number.
    if (mknod("/dev/uio7", S_IFCHR | 0600, makedev(243, 300)) != 0)
        GTEST_SKIP() << "an ordinary user makes no device nodes";
    chassis_sim::write_file("/sys/class/uio/uio7/dev", "243:300\n");
    captured_output output;
    EXPECT_EQ(libuio_open_timed("/dev/uio7", &no_wait), nullptr);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_NE(libuio_messages(output.take_stderr())
                  .find("LOG_DEBUG libuio_make_class_dir: 0x10f32c not matching 243:300\n"),
              std::string::npos);
}

// Each row breaks one thing; the open must say so, set errno, and leave nothing open.
struct broken_case {
    const char *title;
    std::function<void()> damage;
    std::string node;
    int error;
    std::string message; // on standard output; LOG_ERR
};

TEST(libuio_open, reports_each_failing_step_and_leaks_nothing)
{
    uio_description device;
    start_chassis({device});
    const std::string dev = class_dir + "/dev";
    const std::string dev_text = [&dev] {
        std::string text;
        std::getline(std::ifstream(dev), text);
        return text;
    }();
    const std::string bad_dev = "LOG_ERR libuio_make_class_dir: read(" + dev + ") returns \"";
    const std::string size_file = class_dir + "/maps/map0/size";
    const std::string long_name = "/dev/" + std::string(300, 'x');
    const auto dev_becomes = [&dev](const char *text) {
        return [&dev, text] { overwrite(dev, text); };
    };
    const auto nothing = [] {};
    const broken_case cases[] = {
        {"path through a file", nothing, "/dev/null/uio0", ENOTDIR,
         "LOG_ERR libuio_check: stat(/dev/null/uio0) failed: Not a directory\n"},
        {"name too long", nothing, long_name, ENAMETOOLONG,
         "LOG_ERR libuio_check: stat(" + long_name + ") failed: File name too long\n"},
        {"regular file", nothing, "/etc/passwd", EINVAL,
         "LOG_ERR libuio_locate_class_dir: /etc/passwd: not cdev\n"},
        {"directory", nothing, "/dev", EINVAL, "LOG_ERR libuio_locate_class_dir: /dev: not cdev\n"},
        {"no line end", dev_becomes("243:0"), "/dev/uio0", ENODEV, bad_dev + "243:0\"\n"},
        {"letters", dev_becomes("x:0\n"), "/dev/uio0", ENODEV, bad_dev + "x:0\n\"\n"},
        {"no minor", dev_becomes("243:\n"), "/dev/uio0", ENODEV, bad_dev + "243:\n\"\n"},
        {"no colon", dev_becomes("243 0\n"), "/dev/uio0", ENODEV, bad_dev + "243 0\n\"\n"},
        {"too large", dev_becomes("65536:0\n"), "/dev/uio0", ENODEV, bad_dev + "65536:0\n\"\n"},
        {"too long", dev_becomes("00000000000000243:0\n"), "/dev/uio0", ENODEV,
         bad_dev + "00000000000000243:0\"\n"},
        {"empty", dev_becomes(""), "/dev/uio0", EIO,
         "LOG_ERR libuio_make_class_dir: read(" + dev + ") failed: Input/output error\n"},
        {"other device", dev_becomes("9:9\n"), "/dev/uio0", ENODEV, ""},
        {"no dev file", [&] { fs::remove(dev); }, "/dev/uio0", ENOENT,
         "LOG_ERR libuio_make_class_dir: open(" + dev + ") failed: No such file or directory\n"},
        {"no device link", [&] { fs::remove(class_dir + "/device"); }, "/dev/uio0", ENOENT,
         "LOG_ERR libuio_locate_real_name: stat(" + class_dir +
             "/device) failed: No such file or directory\n"},
        {"no uevent", [&] { fs::remove(device_dir + "/uevent"); }, "/dev/uio0", ENOENT,
         "LOG_ERR libuio_locate_device_dir: lstat(" + device_dir +
             "/uevent) failed: No such file or directory\n"},
        {"uevent a directory",
         [&] {
             fs::remove(device_dir + "/uevent");
             fs::create_directory(device_dir + "/uevent");
         },
         "/dev/uio0", EINVAL,
         "LOG_ERR libuio_locate_device_dir: lstat(" + device_dir +
             "/uevent) found a non-regular file\n"},
        {"maps a file", [&] { overwrite(class_dir + "/maps", ""); }, "/dev/uio0", ENOTDIR,
         "LOG_ERR libuio_find_maps: opendir(" + class_dir + "/maps) failed: Not a directory\n"},
        {"no size", [&] { fs::remove(size_file); }, "/dev/uio0", ENOENT,
         "LOG_ERR libuio_fill_map: open(" + size_file + ") failed: No such file or directory\n"},
        {"empty size", [&] { overwrite(size_file, ""); }, "/dev/uio0", EIO,
         "LOG_ERR libuio_fill_map: pread(" + size_file + ") failed: Input/output error\n"},
        {"unreadable size",
         [&] {
             fs::remove(size_file);
             fs::create_directory(size_file);
         },
         "/dev/uio0", EISDIR,
         "LOG_ERR libuio_fill_map: pread(" + size_file + ") failed: Is a directory\n"},
        {"65 maps",
         [&] {
             for (int i = 0; i < 64; ++i)
                 chassis_sim::write_file(class_dir + "/maps/map" + std::to_string(i) + "/size",
                                         "1");
             chassis_sim::write_file(class_dir + "/maps/map00/size", "1");
         },
         "/dev/uio0", ENOMEM, "LOG_ERR libuio_find_maps: max-map reached\n"},
        {"unreadable removal notice",
         [&] {
             fs::remove(device_dir + "/uio_maps");
             fs::create_directory(device_dir + "/directory");
             fs::create_symlink("directory", device_dir + "/uio_maps");
         },
         "/dev/uio0", EISDIR,
         "LOG_ERR libuio_open_files: 1st read(" + device_dir +
             "/uio_maps) failed: Is a directory\n"},
        {"no class", [] { fs::remove_all("/sys/class/uio"); }, "/dev/null", ENOENT, ""},
    };
    for (const broken_case &c : cases) {
        SCOPED_TRACE(c.title);
        const fs::path saved = "/sys/saved";
        fs::create_directory(saved);
        fs::copy("/sys/class", saved / "class",
                 fs::copy_options::recursive | fs::copy_options::copy_symlinks);
        fs::copy("/sys/devices", saved / "devices",
                 fs::copy_options::recursive | fs::copy_options::copy_symlinks);
        c.damage();
        const auto before = open_descriptors();
        {
            captured_output output;
            errno = 0;
            EXPECT_EQ(libuio_open_timed(c.node.c_str(), &no_wait), nullptr);
            EXPECT_EQ(errno, c.error) << strerror(errno);
            // The search goes over the class directory after the direct try: the same line twice.
            std::string text = libuio_messages(output.take_stdout());
            if (!c.message.empty() && text == c.message + c.message)
                text = c.message;
            EXPECT_EQ(text, c.message);
        }
        EXPECT_EQ(open_descriptors(), before);
        for (const char *tree : {"class", "devices"}) {
            fs::remove_all(fs::path("/sys") / tree);
            fs::rename(saved / tree, fs::path("/sys") / tree);
        }
    }
    EXPECT_EQ(libuio_open_timed(nullptr, &no_wait), nullptr);
    EXPECT_EQ(errno, EINVAL);
    libuio_dev_t *uio = libuio_open_timed("/dev/uio0", &no_wait);
    ASSERT_NE(uio, nullptr) << "the tree is whole again";
    libuio_close(uio);
}

TEST(libuio_open, takes_only_the_maps_that_are_numbered_0_to_63_and_reads_sizes_like_c)
{
    uio_description device;
    device.maps = {{"map0", "0x20\n"}, {"map9", "020"},
                   {"map63", "16"},    {"map5", "junk\n"},
                   {"map64", "1\n"},   {"map007", "1\n"},
                   {"map1a", "1\n"},   {"portio0", "1\n"},
                   {"map", "1\n"},     {"map7", "0x10" + std::string(36, ' ') + "9"}};
    start_chassis({device});
    libuio_dev_t *uio = libuio_open("/dev/uio0");
    ASSERT_NE(uio, nullptr) << strerror(errno);
    EXPECT_EQ(uio->map_count, 5u);
    EXPECT_EQ(libuio_get_map_limit(uio), 64u);
    struct {
        unsigned int index;
        size_t size;
    } expected[] = {{0, 32}, {9, 16}, {63, 16}, {5, 0}, {7, 16}};
    for (const auto &map : expected) {
        size_t size = 99;
        libuio_get_mapinfo(uio, map.index, &size);
        EXPECT_EQ(size, map.size) << map.index;
    }
    libuio_close(uio);
}

TEST(libuio_open, does_without_maps_and_without_a_removal_notice)
{
    uio_description device = with_maps({});
    device.removal_notice = false;
    start_chassis({device});
    captured_output output;
    libuio_dev_t *uio = libuio_open("/dev/uio0");
    ASSERT_NE(uio, nullptr) << strerror(errno);
    EXPECT_EQ(output.take_stdout(), "");
    EXPECT_EQ(libuio_get_map_limit(uio), 0u);
    EXPECT_EQ(libuio_mmap(uio, 0), 0);
    EXPECT_EQ(libuio_get_removed_fd(uio), -1);
    control("interrupt uio0");
    libuio_irqcontrol(uio, 1);
    uint32_t count = 0;
    const timespec deadline = in_ms(5000);
    EXPECT_EQ(libuio_irqwait(uio, &deadline, &count), 0);
    libuio_close(uio);
}

TEST(libuio_open, fails_cleanly_at_every_descriptor_limit)
{
    start_chassis({uio_description()});
    captured_output output;
    const auto before = open_descriptors();
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    const int first_free = dup(0);
    close(first_free);
    for (int room = 0; room < 4; ++room) {
        const rlimit small = {static_cast<rlim_t>(first_free + room), limit.rlim_max};
        setrlimit(RLIMIT_NOFILE, &small);
        EXPECT_EQ(libuio_open_timed("/dev/uio0", &no_wait), nullptr);
        EXPECT_EQ(errno, EMFILE);
        setrlimit(RLIMIT_NOFILE, &limit);
        EXPECT_NE(output.take_stdout().find("Too many open files"), std::string::npos);
    }
    EXPECT_EQ(open_descriptors(), before);
}

//--- attributes and accessors ---------------------------------------------------------------------

TEST(libuio_device_attr, opens_only_relative_names)
{
    start_chassis({uio_description()});
    chassis_sim::write_file(device_dir + "/power/state", "on\n");
    libuio_dev_t *uio = libuio_open("/dev/uio0");
    ASSERT_NE(uio, nullptr);
    const auto before = open_descriptors();
    captured_output output;
    const int fd = libuio_open_device_attr(uio, "power/state", O_RDONLY);
    char text[4] = "";
    EXPECT_EQ(read(fd, text, 3), 3);
    EXPECT_STREQ(text, "on\n");
    close(fd);
    struct {
        const char *name;
        int error;
        std::string message;
    } cases[] = {
        {"/etc/passwd", EINVAL,
         "LOG_ERR libuio_open_device_attr: /etc/passwd: attr-name is not relative\n\n"},
        {"none", ENOENT, ""},
        {"uevent/x", ENOTDIR,
         "LOG_ERR libuio_open_device_attr: openat(" + device_dir +
             ",uevent/x,0x2) failed: Not a directory\n"},
        {nullptr, EINVAL, ""},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(libuio_open_device_attr(uio, c.name, O_RDWR), -1);
        EXPECT_EQ(errno, c.error);
        EXPECT_EQ(libuio_messages(output.take_stdout()), c.message);
    }
    fs::remove_all(device_dir);
    EXPECT_EQ(libuio_open_device_attr(uio, "uevent", O_RDONLY), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(libuio_messages(output.take_stdout()),
              "LOG_ERR libuio_open_device_attr: open(" + device_dir +
                  ",O_DIRECTORY) failed: No such file or directory\n");
    const char *const dir = uio->sys_device_dir;
    uio->sys_device_dir = nullptr;
    EXPECT_EQ(libuio_open_device_attr(uio, "uevent", O_RDONLY), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(libuio_messages(output.take_stdout()),
              "LOG_ERR libuio_open_device_attr: sys_device_dir is NULL\n\n");
    uio->sys_device_dir = dir;
    libuio_close(uio);
    EXPECT_LT(open_descriptors(), before + 4);
}

TEST(libuio_handle, null_is_refused_with_einval_everywhere)
{
    const auto refused = [](auto call) {
        errno = 0;
        call();
        return errno == EINVAL;
    };
    EXPECT_TRUE(refused([] { EXPECT_EQ(libuio_get_uio_fd(nullptr), -1); }));
    EXPECT_TRUE(refused([] { EXPECT_EQ(libuio_get_removed_fd(nullptr), -1); }));
    EXPECT_TRUE(refused([] { EXPECT_EQ(libuio_get_real_devnode(nullptr), nullptr); }));
    EXPECT_TRUE(refused([] { EXPECT_EQ(libuio_get_sys_class_dir(nullptr), nullptr); }));
    EXPECT_TRUE(refused([] { EXPECT_EQ(libuio_get_sys_device_dir(nullptr), nullptr); }));
    EXPECT_TRUE(refused([] { EXPECT_EQ(libuio_open_device_attr(nullptr, "x", 0), -1); }));
    EXPECT_TRUE(refused([] { EXPECT_EQ(libuio_mmap(nullptr, 0), -1); }));
    EXPECT_TRUE(refused([] { libuio_munmap(nullptr, 0); }));
    EXPECT_TRUE(refused([] { EXPECT_EQ(libuio_get_mapinfo(nullptr, 0, nullptr), nullptr); }));
    EXPECT_TRUE(refused([] { EXPECT_EQ(libuio_get_map_limit(nullptr), 0u); }));
    EXPECT_TRUE(refused([] { EXPECT_EQ(libuio_irqcontrol(nullptr, 1), -1); }));
    EXPECT_TRUE(refused([] { EXPECT_EQ(libuio_irqwait(nullptr, nullptr, nullptr), -1); }));
    EXPECT_TRUE(refused([] { libuio_close(nullptr); }));
    captured_output output;
    EXPECT_EQ(libuio_adjust_size(nullptr), nullptr);
    EXPECT_EQ(libuio_messages(output.take_stdout()), "LOG_ERR libuio_adjust_size: uio is NULL\n");
}

//--- maps -----------------------------------------------------------------------------------------

TEST(libuio_mmap, masks_by_map_number_and_counts_new_maps)
{
    start_chassis({with_maps({0, 1, 33})});
    libuio_dev_t *uio = libuio_open("/dev/uio0");
    ASSERT_NE(uio, nullptr);
    const auto mapped = [uio] {
        std::string numbers;
        for (unsigned int i = 0; i < libuio_get_map_limit(uio); ++i)
            if (libuio_get_mapinfo(uio, i, nullptr))
                numbers += std::to_string(i) + " ";
        return numbers;
    };
    const uint64_t bit33 = uint64_t{1} << 33;
    EXPECT_EQ(libuio_mmap(uio, bit33 | 1), 1);
    EXPECT_EQ(mapped(), "1 ");
    EXPECT_EQ(libuio_mmap(uio, bit33), 1);
    EXPECT_EQ(mapped(), "0 1 ");
    EXPECT_EQ(libuio_mmap(uio, 0), 1);
    EXPECT_EQ(libuio_mmap(uio, 0), 0);
    EXPECT_EQ(mapped(), "0 1 33 ");
    libuio_munmap(uio, bit33 | 2);
    EXPECT_EQ(mapped(), "1 33 ");
    libuio_munmap(uio, 0);
    EXPECT_EQ(mapped(), "");
    libuio_close(uio);
}

TEST(libuio_mmap, reaches_map_n_at_n_pages_of_the_shared_device)
{
    start_chassis({with_maps({0, 5})});
    libuio_dev_t *uio = libuio_open("/dev/uio0");
    ASSERT_NE(uio, nullptr);
    ASSERT_EQ(libuio_mmap(uio, 0), 2);
    iowrite32(0x11111111, libuio_get_mapinfo(uio, 0, nullptr));
    iowrite32(0x55555555, libuio_get_mapinfo(uio, 5, nullptr));
    const int fd = open("/dev/uio0", O_RDWR);
    const long page = sysconf(_SC_PAGESIZE);
    for (long n : {0L, 5L}) {
        void *window = mmap(nullptr, 4, PROT_READ, MAP_SHARED, fd, n * page);
        ASSERT_NE(window, MAP_FAILED);
        EXPECT_EQ(ioread32(window), n ? 0x55555555u : 0x11111111u);
        munmap(window, 4);
    }
    close(fd);
    libuio_close(uio);
}

TEST(libuio_mmap, returns_minus_the_number_of_the_map_that_failed)
{
    uio_description device = with_maps({0, 5});
    device.maps[1].size = "0\n"; // a length the kernel refuses
    start_chassis({device});
    libuio_dev_t *uio = libuio_open("/dev/uio0");
    ASSERT_NE(uio, nullptr);
    captured_output output;
    EXPECT_EQ(libuio_mmap(uio, 1), -5);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(libuio_messages(output.take_stdout()),
              "LOG_ERR libuio_mmap: mmap(0, (5*4096)) failed: Invalid argument\n");
    uio->map[0].size = uio->map[1].size = 0;
    EXPECT_EQ(libuio_mmap(uio, uint64_t{1} << 5), 0) << "a failing map 0 looks like nothing to do";
    EXPECT_EQ(libuio_messages(output.take_stdout()),
              "LOG_ERR libuio_mmap: mmap(0, (0*4096)) failed: Invalid argument\n");
    libuio_close(uio);
}

//--- interrupts and removal -----------------------------------------------------------------------

class libuio_irq : public testing::Test
{
protected:
    void SetUp() override
    {
        start_chassis({uio_description()});
        uio_ = libuio_open("/dev/uio0");
        ASSERT_NE(uio_, nullptr) << strerror(errno);
        ASSERT_EQ(libuio_mmap(uio_, 0), 1);
        ASSERT_EQ(libuio_irqcontrol(uio_, 1), 0);
    }
    void TearDown() override { libuio_close(uio_); }

    // errno of a wait, 0 for an interrupt.
    int wait(const timespec *deadline, uint32_t *count = nullptr)
    {
        errno = 0;
        const int result = libuio_irqwait(uio_, deadline, count);
        EXPECT_TRUE(result == 0 || result == -1);
        return result == 0 ? 0 : errno;
    }

    libuio_dev_t *uio_ = nullptr;
};

TEST_F(libuio_irq, counts_interrupts_and_leaves_uncounted_ones_pending)
{
    captured_output output;
    uint32_t count = 0;
    control("interrupt uio0");
    EXPECT_EQ(wait(nullptr), 0);
    EXPECT_EQ(wait(nullptr), 0) << "not consumed without a count";
    EXPECT_EQ(wait(nullptr, &count), 0);
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(wait(&long_past, &count), ETIMEDOUT);
    EXPECT_EQ(libuio_messages(output.take_stderr()),
              "LOG_DEBUG libuio_irqwait: poll() fires timer-fd (" + std::to_string(uio_->tmr_fd) +
                  ")\n");
    const timespec zero = {0, 0};
    EXPECT_EQ(wait(&zero, &count), ETIMEDOUT) << "as long past as any";
    control("interrupt uio0");
    EXPECT_EQ(wait(&long_past, &count), 0) << "an interrupt wins over a past deadline";
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(libuio_irqcontrol(uio_, 0), 0);
    control("interrupt uio0");
    const timespec soon = in_ms(30);
    EXPECT_EQ(wait(&soon, &count), ETIMEDOUT) << "disabled";
    EXPECT_EQ(libuio_irqcontrol(uio_, 1), 0);
    EXPECT_EQ(wait(nullptr, &count), 0);
    EXPECT_EQ(count, 3u);
    EXPECT_EQ(output.take_stdout(), "");
}

TEST_F(libuio_irq, removal_wins_and_shuts_the_handle)
{
    const auto opened = open_descriptors();
    captured_output output;
    control("interrupt uio0");
    control("remove uio0");
    uint32_t count = 77;
    EXPECT_EQ(wait(&long_past, &count), ECANCELED);
    EXPECT_EQ(count, 77u);
    EXPECT_EQ(libuio_messages(output.take_stderr()),
              "LOG_DEBUG libuio_irqwait: uio_maps removed\n");
    EXPECT_EQ(libuio_get_uio_fd(uio_), -1);
    EXPECT_EQ(libuio_get_removed_fd(uio_), -1);
    EXPECT_EQ(uio_->tmr_fd, -1);
    EXPECT_EQ(libuio_get_mapinfo(uio_, 0, nullptr), nullptr);
    EXPECT_EQ(open_descriptors(), opened + 4 - 3); // the capture's own four; the handle's three

    EXPECT_EQ(wait(&long_past, &count), EBADF);
    EXPECT_EQ(output.take_stdout(), "");
    EXPECT_EQ(libuio_mmap(uio_, 0), 0);
    EXPECT_EQ(libuio_messages(output.take_stdout()), "LOG_ERR libuio_mmap: UIO-fd closed\n");
    EXPECT_EQ(libuio_irqcontrol(uio_, 1), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(libuio_irq, reports_what_the_driver_refuses)
{
    captured_output output;
    const std::string fd = std::to_string(libuio_get_uio_fd(uio_));
    control("answer-write uio0 " + std::to_string(-ENOSYS));
    EXPECT_EQ(libuio_irqcontrol(uio_, 1), -1);
    EXPECT_EQ(errno, ENOSYS);
    EXPECT_EQ(libuio_messages(output.take_stdout()),
              "LOG_ERR libuio_irqcontrol: pwrite(" + fd +
                  ", 0x1, 0) failed: Function not implemented\n");
    control("answer-write uio0 2");
    EXPECT_EQ(libuio_irqcontrol(uio_, 0x20), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(libuio_messages(output.take_stdout()),
              "LOG_ERR libuio_irqcontrol: pwrite(" + fd + ", 0x20, 0) partial 2\n");

    control("interrupt uio0");
    uint32_t count = 0;
    control("answer-read uio0 " + std::to_string(-EIO));
    EXPECT_EQ(wait(nullptr, &count), EIO);
    control("answer-read uio0 2");
    EXPECT_EQ(libuio_irqwait(uio_, nullptr, &count), -1);
    EXPECT_EQ(output.take_stdout() + output.take_stderr(), "") << "a failing count read is silent";
}

TEST_F(libuio_irq, passes_on_failures_of_timer_and_poll)
{
    captured_output output;
    const timespec not_a_time = {5, 2000000000};
    EXPECT_EQ(wait(&not_a_time), EINVAL);
    EXPECT_EQ(libuio_messages(output.take_stdout()),
              "LOG_ERR libuio_irqwait: timerfd_settime 5,2000000000 failed: Invalid argument\n");

    struct sigaction wake = {};
    wake.sa_handler = [](int) {};
    sigaction(SIGALRM, &wake, nullptr);
    const itimerval in_30_ms = {{0, 30000}, {0, 30000}};
    setitimer(ITIMER_REAL, &in_30_ms, nullptr);
    EXPECT_EQ(wait(nullptr), EINTR);
    const itimerval off = {};
    setitimer(ITIMER_REAL, &off, nullptr);
    EXPECT_EQ(libuio_messages(output.take_stdout()),
              "LOG_ERR libuio_irqwait: poll(,2,-1) failed: Interrupted system call\n");

    const int timer = uio_->tmr_fd;
    uio_->tmr_fd = -7;
    EXPECT_EQ(wait(nullptr), EINVAL);
    EXPECT_EQ(libuio_messages(output.take_stdout()),
              "LOG_ERR libuio_irqwait: Corrupted tmr_fd: -7\n\n");
    uio_->tmr_fd = timer;
}

TEST_F(libuio_irq, each_control_and_each_wait_costs_the_system_calls_it_needs)
{
    const auto calls = test_support::count_system_calls([this] {
        uint32_t count;
        libuio_irqcontrol(uio_, 1);
        control("interrupt uio0");
        libuio_irqwait(uio_, nullptr, &count);
    });
    // One write enables, a poll waits, a read counts; the control line is opened and closed.
    EXPECT_EQ(test_support::text(calls),
              "#" + std::to_string(SYS_poll) + ":1 close:1 open:1 pread:1 pwrite:1 write:1 ");
}

TEST_F(libuio_irq, descriptor_0_is_never_closed_nor_watched)
{
    close(uio_->gone_fd);
    uio_->gone_fd = 0;
    const int input = open("/dev/null", O_RDONLY);
    dup2(input, 0);
    close(input);
    EXPECT_EQ(wait(&long_past), ETIMEDOUT) << "/dev/null is always readable";
    libuio_close(uio_);
    EXPECT_NE(fcntl(0, F_GETFD), -1);
    uio_ = libuio_open("/dev/uio0"); // for TearDown
}

//--- diagnostics ----------------------------------------------------------------------------------

TEST(libuio_pr, prints_errors_on_standard_output_and_the_rest_on_standard_error)
{
    captured_output output;
    errno = EXDEV;
    libuio_pr(3, "LOG_ERR", 12, "caller", "%s %d", "text", 7);
    libuio_pr(5, "LOG_NOTICE", 1, "f", "five");
    EXPECT_EQ(output.take_stdout(), "log[LOG_ERR]: lib/device_access/libuio:12:caller(): text 7\n"
                                    "log[LOG_NOTICE]: lib/device_access/libuio:1:f(): five\n");
    libuio_pr(6, "LOG_INFO", 4294967295u, "f", "six");
    EXPECT_EQ(output.take_stderr(),
              "log[LOG_INFO]: lib/device_access/libuio:4294967295:f(): six\n");
    EXPECT_EQ(errno, EXDEV);

    const std::string head = "log[LOG_ERR]: lib/device_access/libuio:1:f(): ";
    libuio_pr(3, "LOG_ERR", 1, "f", "%s", std::string(2000, 'x').c_str());
    const std::string cut = output.take_stdout();
    EXPECT_EQ(cut, head + std::string(cut.size() - head.size() - 1, 'x') + "\n");
    EXPECT_EQ(cut.size(), strlen("log[LOG_ERR]: ") + 510);
    libuio_pr(3, "LOG_ERR", 1, std::string(2000, 'y').c_str(), "never seen");
    EXPECT_EQ(output.take_stdout().back(), '\n');
}

} // namespace

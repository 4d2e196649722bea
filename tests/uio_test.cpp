// This program defines libuio_log, so the library's diagnostics are on and their texts are tested.
#include "support/uio.h"

#include <chrono>
#include <csignal>
#include <limits>
#include <set>
#include <utility>

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/time.h>

extern "C" {
int libuio_log;
}

namespace
{

namespace fs = std::filesystem;
using namespace chassis_sim;
using namespace test;
using std::chrono::milliseconds;

constexpr timespec long_past = {0, 1};
constexpr timespec end_of_time = {std::numeric_limits<time_t>::max(), 999999999};
const std::string class_dir = uio_class_dir(0);
const std::string device_dir = uio_device_dir(0);

void start_chassis(const std::vector<uio_description> &devices = {{}})
{
    enter_private_root();
    device_server server;
    for (const uio_description &device : devices)
        add_uio(server, device);
    server.start();
}

uio_description with_maps(const std::vector<uio_map> &maps, unsigned int number = 0)
{
    uio_description device;
    device.maps = maps;
    device.number = number;
    return device;
}

// States an open that fails with this on standard output.
void expect_no_open(const char *name, int error, const std::string &out)
{
    const outcome seen = outcome_of([name] { return open_now(name); });
    EXPECT_EQ(seen, (outcome{nullptr, error, seen.err, out}));
}

//--- open -----------------------------------------------------------------------------------------

TEST(uio_open, fills_the_handle_from_sysfs)
{
    start_chassis({with_maps({{"map2", "8192"}}, 3)});
    libuio_dev_t *uio = nullptr;
    const outcome seen = outcome_of([&] { return uio = libuio_open("/dev/uio3"); });
    ASSERT_NE(uio, nullptr) << seen;
    const std::string dir = uio_device_dir(3);
    const std::string lines =
        debug("make_class_dir: Made /sys/class/uio/uio3") +
        debug("locate_device_dir: Found " + dir) +
        debug("fill_map: Found 2; /sys/class/uio/uio3/maps/map2/size = 0x2000") +
        debug(printed("adjust_size: realloc (%zu+%zu+20+10) ok", sizeof *uio + sizeof *uio->map,
                      dir.size() + 1)) +
        debug(printed("open_files: (tmr, uio, chg) = (%d, %d, %d)\n", uio->tmr_fd, uio->uio_fd,
                      uio->gone_fd));
    EXPECT_EQ(seen, (outcome{a_pointer, any_error, lines, "", 3}));
    // One block: the fixed part, the records, then the strings in this order.
    const char *tail = reinterpret_cast<const char *>(uio->map + 1);
    EXPECT_TRUE(libuio_get_sys_device_dir(uio) == tail && tail == dir);
    EXPECT_EQ(libuio_get_sys_class_dir(uio), tail + dir.size() + 1);
    EXPECT_STREQ(libuio_get_sys_class_dir(uio), "/sys/class/uio/uio3");
    EXPECT_EQ(libuio_get_real_devnode(uio), tail + dir.size() + 21);
    for (int fd : {libuio_get_uio_fd(uio), libuio_get_removed_fd(uio), uio->tmr_fd})
        EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    size_t size = 0;
    EXPECT_OUTCOME(libuio_get_mapinfo(uio, 2, &size), {.value = nullptr});
    EXPECT_OUTCOME(libuio_get_mapinfo(uio, 1, &size),
                   {.value = nullptr, .err = debug("get_mapinfo: map[1] not found")});
    EXPECT_TRUE(size == 8192 && libuio_get_map_limit(uio) == 3);
    EXPECT_OUTCOME(libuio_close(uio), {.error = any_error, .opens = -3});
}

TEST(uio_open, finds_the_device_of_a_link_and_of_a_node_with_another_name)
{
    uio_description other;
    other.number = 1;
    other.node = "/dev/regblock";
    start_chassis({{}, other});
    make_symlink("/dev/first", "/dev/uio0");
    const auto first = held("/dev/first");
    EXPECT_STREQ(libuio_get_real_devnode(first.get()), "/dev/first");
    EXPECT_EQ(libuio_get_sys_class_dir(first.get()), class_dir);
    // Only what is "uio" and a number of at most five digits below 65536 is looked at.
    std::string entry = uio_class_dir(1);
    for (const std::string &name :
         words("uio uio1a uio+1 uio65536 uio000001 uii1 uio65535 uio00001")) {
        fs::rename(entry, "/sys/class/uio/" + name);
        entry = "/sys/class/uio/" + name;
        if (name != "uio65535" && name != "uio00001")
            expect_no_open("/dev/regblock", ENODEV, "");
        else
            EXPECT_EQ(libuio_get_sys_class_dir(held("/dev/regblock").get()), entry);
    }
    // A node of the real kernel shows how it is opened.
    write_file(class_dir + "/dev", "1:5\n");
    EXPECT_EQ(fcntl(held("/dev/zero")->uio_fd, F_GETFL) & O_ACCMODE, O_RDWR);
}

TEST(uio_open, waits_for_the_node_within_its_budget)
{
    std::vector<uio_description> late(2);
    late[0].plugged = late[1].plugged = false;
    late[1].number = 1;
    start_chassis(late);
    for (const auto &[name, error] :
         {std::pair("/dev/uio0", ENOENT), {"sysfs_pci:uio_fe.sw1.vostra_lite", EINVAL}}) {
        // What is below a second counts a tenth.
        for (const auto &[limit, least_ms, below_ms] : {std::tuple(no_wait, 0, 300),
                                                        {timespec{0, 500000000}, 50, 450},
                                                        {timespec{0, 9999999}, 0, 300},
                                                        {timespec{-1, 0}, 0, 300}}) {
            const auto start = std::chrono::steady_clock::now();
            EXPECT_OUTCOME(libuio_open_timed(name, &limit), {.value = nullptr, .error = error});
            const auto ms = (std::chrono::steady_clock::now() - start) / milliseconds(1);
            EXPECT_TRUE(ms >= least_ms && ms < below_ms) << ms << " ms: " << name;
        }
    }
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
}

TEST(uio_open, takes_a_device_number_that_is_two_numbers_and_a_line_end_composed_the_simple_way)
{
    start_chassis();
    const std::string dev = class_dir + "/dev";
    const std::string own = read_file(dev);
    const std::string number = own.substr(0, own.size() - 1);
    for (const std::string &good : {own + "more", "00" + own}) {
        write_file(dev, good);
        libuio_close(opened("/dev/uio0"));
    }
    std::vector<std::string> bad = {number, number + " \n", "0 " + own, " " + own,
                                    std::string(17, '0') + own};
    for (const std::string &text : words("243: :0 243 65536:0 0:65536 -1:0 0x1:0"))
        bad.push_back(text + "\n");
    for (const std::string &text : bad) {
        write_file(dev, text);
        // The search goes over the class directory after the direct try.
        const std::string line =
            err("make_class_dir: read(" + dev + ") returns \"" + text.substr(0, 19) + "\"");
        EXPECT_OUTCOME(open_now("/dev/uio0"),
                       {.value = nullptr, .error = ENODEV, .out = line + line});
    }
    fs::remove_all(class_dir);
    const auto node = [](unsigned int major, unsigned int minor, const std::string &text) {
        fs::remove("/dev/uio7");
        write_file("/sys/class/uio/uio7/dev", text);
        return mknod("/dev/uio7", S_IFCHR | 0600, makedev(major, minor));
    };
    // The C library spreads a minor number above 255 over two places of a device number.
    if (node(243, 300, "243:300\n") != 0)
        GTEST_SKIP() << "an ordinary user makes no device nodes";
    std::string line = debug("make_class_dir: 0x10f32c not matching 243:300\n");
    EXPECT_OUTCOME(open_now("/dev/uio7"), {.value = nullptr, .error = ENODEV, .err = line + line});
    node(4095, 44, "65535:65535\n");
    line = debug("make_class_dir: 0xfff2c not matching 65535:65535\n");
    EXPECT_OUTCOME(open_now("/dev/uio7"), {.value = nullptr, .error = ENODEV, .err = line + line});
    node(4095, 44, "4095:44\n"); // it is found, and only then lacks something
    expect_no_open(
        "/dev/uio7", ENOENT,
        err("locate_real_name: stat(/sys/class/uio/uio7/device) failed: No such file or directory"));
}

TEST(uio_open, takes_only_the_maps_that_are_numbered_0_to_63_and_reads_sizes_like_c)
{
    const std::string size = "0x10" + std::string(36, ' ') + "9";
    uio_description device = with_maps(
        {{"map0", "0x20\n"}, {"map9", "020"}, {"map63", "16"}, {"map5", "x"}, {"map07", size}});
    for (const std::string &name : words("map64 map007 map1a map portio0 map+1"))
        device.maps.push_back({name, "1\n"});
    start_chassis({device});
    EXPECT_EQ(maps_text(held("/dev/uio0").get()), "0=0:0+20 5=0:0+0 7=0:0+10 9=0:0+10 3f=0:0+10 ");
    for (int i = 0; i < 62; ++i)
        write_file(printed("/sys/class/uio/uio0/maps/map%d/size", i), "1");
    EXPECT_EQ(held("/dev/uio0")->map_count, 64u) << "two have the number 7";
    write_file(class_dir + "/maps/map00/size", "1");
    expect_no_open("/dev/uio0", ENOMEM, err("find_maps: max-map reached"));
}

TEST(uio_open, reports_what_is_wrong_with_the_tree)
{
    start_chassis();
    EXPECT_OUTCOME(open_now(nullptr), {.value = nullptr, .error = EINVAL});
    expect_no_open("/dev/null/uio0", ENOTDIR,
                   err("check: stat(/dev/null/uio0) failed: Not a directory"));
    expect_no_open("/etc/passwd", EINVAL, err("locate_class_dir: /etc/passwd: not cdev"));
    const std::string nothing_read = ") failed: Input/output error";
    fs::remove(device_dir + "/uio_maps");
    make_symlink(device_dir + "/uio_maps", "empty");
    write_file(device_dir + "/empty", "");
    expect_no_open("/dev/uio0", EIO,
                   err("open_files: 1st read(" + device_dir + "/uio_maps" + nothing_read));
    write_file(class_dir + "/maps/map0/size", "");
    expect_no_open("/dev/uio0", EIO,
                   err("fill_map: pread(" + class_dir + "/maps/map0/size" + nothing_read));
    fs::remove(device_dir + "/uevent");
    make_directory(device_dir + "/uevent");
    expect_no_open(
        "/dev/uio0", EINVAL,
        err("locate_device_dir: lstat(" + device_dir + "/uevent) found a non-regular file"));
    write_file(class_dir + "/dev", "9:9\n");
    expect_no_open("/dev/uio0", ENODEV, "");
    write_file(class_dir + "/dev", "");
    const std::string line = err("make_class_dir: read(" + class_dir + "/dev" + nothing_read);
    expect_no_open("/dev/uio0", EIO, line + line);
    fs::remove_all("/sys/class/uio");
    expect_no_open("/dev/null", ENOENT, "");
}

TEST(uio_open, does_without_maps_and_without_a_removal_notice)
{
    uio_description device = with_maps({});
    device.removal_notice = false;
    start_chassis({device});
    libuio_dev_t *uio = opened("/dev/uio0");
    EXPECT_OUTCOME(libuio_get_map_limit(uio), {});
    EXPECT_OUTCOME(libuio_mmap(uio, 0), {});
    EXPECT_OUTCOME(libuio_get_removed_fd(uio), {.value = -1});
    control("interrupt uio0");
    libuio_irqcontrol(uio, 1);
    uint32_t count = 0;
    EXPECT_OUTCOME(libuio_irqwait(uio, &end_of_time, &count), {});
    EXPECT_OUTCOME(libuio_close(uio), {.error = any_error, .opens = -2});
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
    uio_description device = with_maps({{"map5", "4096"}});
    device.irq_delay_ms = 0;
    start_chassis({device});
    libuio_dev_t *uio = opened("/dev/uio0");
    const int fd = uio->uio_fd;
    libuio_close(uio);
    // The directory of the class may be looked through instead, and that of the maps may end early.
    const std::string by_call =
        printed(R"(stat: 5 LOG_ERR libuio_check: stat(/dev/uio0) failed: Input/output error
stat: 5 LOG_ERR libuio_locate_real_name: stat(/dev/uio0) failed: Input/output error
readlink: 5 LOG_ERR libuio_locate_real_name: canonicalize_file_name(/dev/uio0) failed: Input/output error
stat: 5 LOG_ERR libuio_locate_class_dir: lstat(/dev/uio0) failed: Input/output error
open: 0 LOG_ERR libuio_make_class_dir: open(/sys/class/uio/uio0/dev) failed: Input/output error
read: 0 LOG_ERR libuio_make_class_dir: read(/sys/class/uio/uio0/dev) failed: Input/output error
close: 0
stat: 5 LOG_ERR libuio_locate_real_name: stat(/sys/class/uio/uio0/device) failed: Input/output error
readlink: 5 LOG_ERR libuio_locate_real_name: canonicalize_file_name(/sys/class/uio/uio0/device) failed: Input/output error
stat: 5 LOG_ERR libuio_locate_device_dir: lstat(/sys/devices/platform/regblock.0/uevent) failed: Input/output error
open: 5 LOG_ERR libuio_find_maps: opendir(/sys/class/uio/uio0/maps) failed: Input/output error
stat: 5 LOG_ERR libuio_find_maps: opendir(/sys/class/uio/uio0/maps) failed: Input/output error
getdents64: 0
open: 5 LOG_ERR libuio_fill_map: open(/sys/class/uio/uio0/maps/map5/size) failed: Input/output error
pread: 5 LOG_ERR libuio_fill_map: pread(/sys/class/uio/uio0/maps/map5/size) failed: Input/output error
open: 5 LOG_ERR libuio_open_files: open(/dev/uio0) failed: Input/output error
open: 5 LOG_ERR libuio_open_device_attr: open(/sys/devices/platform/regblock.0,O_DIRECTORY) failed: Input/output error
open: 5 LOG_ERR libuio_open_device_attr: openat(/sys/devices/platform/regblock.0,uio_maps,0x80000) failed: Input/output error
pread: 5 LOG_ERR libuio_open_files: 1st read(/sys/devices/platform/regblock.0/uio_maps) failed: Input/output error
timerfd_create: 5 LOG_ERR libuio_open_files: timerfd_create() failed: Input/output error
mmap: 5 LOG_ERR libuio_mmap: mmap(4096, (5*4096)) failed: Input/output error
pwrite: 5 LOG_ERR libuio_irqcontrol: pwrite(%d, 0x1, 0) failed: Input/output error
timerfd_settime: 5 LOG_ERR libuio_irqwait: timerfd_settime 2147483647,7 failed: Input/output error
poll: 5 LOG_ERR libuio_irqwait: poll(,3,-1) failed: Input/output error
munmap: 0
)",
                fd);
    const std::string by_allocation = printed(
        R"(allocation: 12 LOG_ERR libuio_locate_real_name: canonicalize_file_name(/dev/uio0) failed: Cannot allocate memory
allocation: 12 LOG_ERR libuio_locate_real_name: calloc(54) failed for /dev/uio0
allocation: 12 LOG_ERR libuio_locate_real_name: canonicalize_file_name(/sys/class/uio/uio0/device) failed: Cannot allocate memory
allocation: 12 LOG_ERR libuio_locate_real_name: calloc(77) failed for /sys/devices/platform/regblock.0
allocation: 12 LOG_ERR libuio_new_handle: calloc(%zu) failed
allocation: 12 LOG_ERR libuio_find_maps: opendir(/sys/class/uio/uio0/maps) failed: Cannot allocate memory
allocation: 12 LOG_ERR libuio_adjust_size: realloc (%zu+33+20+10) failed
)",
        sizeof *uio + 64 * sizeof *uio->map, sizeof *uio + sizeof *uio->map);
    EXPECT_EQ(by_call + (heap_can_fail ? by_allocation : ""), failures_of(EIO, round));
}

TEST(uio_faults, no_clean_up_hides_the_errno_of_the_failing_step)
{
    start_chassis();
    const std::set<std::string> go_on = {"open " + class_dir + "/dev", "read", "close",
                                         "getdents64"};
    const auto judge = [&go_on](const run &seen) {
        EXPECT_TRUE(seen.seen.opens == 0 && seen.blocks == 0) << seen;
        if (seen.seen.out.find("opendir") != std::string::npos)
            return; // the C library closes what it has opened without such care
        const int error = seen.failed.starts_with("allocation") ? ENOMEM : EIO;
        EXPECT_EQ(seen.seen.error, go_on.contains(seen.failed) ? EXDEV : error) << seen;
    };
    EXPECT_GT(fail_each_call(
                  EIO, [] { return open_now("/dev/uio0"); }, judge, EXDEV),
              20);
}

//--- handles --------------------------------------------------------------------------------------

TEST(uio_handle, null_is_refused_with_einval_everywhere)
{
    EXPECT_OUTCOME(libuio_get_uio_fd(nullptr), {.value = -1, .error = EINVAL});
    EXPECT_OUTCOME(libuio_get_removed_fd(nullptr), {.value = -1, .error = EINVAL});
    EXPECT_OUTCOME(libuio_get_real_devnode(nullptr), {.value = nullptr, .error = EINVAL});
    EXPECT_OUTCOME(libuio_get_sys_class_dir(nullptr), {.value = nullptr, .error = EINVAL});
    EXPECT_OUTCOME(libuio_get_sys_device_dir(nullptr), {.value = nullptr, .error = EINVAL});
    EXPECT_OUTCOME(libuio_open_device_attr(nullptr, "x", 0), {.value = -1, .error = EINVAL});
    EXPECT_OUTCOME(libuio_mmap(nullptr, 0), {.value = -1, .error = EINVAL});
    EXPECT_OUTCOME(libuio_munmap(nullptr, 0), {.error = EINVAL});
    EXPECT_OUTCOME(libuio_get_mapinfo(nullptr, 0, nullptr), {.value = nullptr, .error = EINVAL});
    EXPECT_OUTCOME(libuio_get_map_limit(nullptr), {.error = EINVAL});
    EXPECT_OUTCOME(libuio_irqcontrol(nullptr, 1), {.value = -1, .error = EINVAL});
    EXPECT_OUTCOME(libuio_irqwait(nullptr, nullptr, nullptr), {.value = -1, .error = EINVAL});
    EXPECT_OUTCOME(libuio_close(nullptr), {.error = EINVAL});
    EXPECT_OUTCOME(libuio_adjust_size(nullptr),
                   {.value = nullptr, .out = err("adjust_size: uio is NULL")});
}

TEST(uio_handle, opens_attributes_with_relative_names)
{
    start_chassis();
    write_file(device_dir + "/power/state", "on\n");
    libuio_dev_t *uio = opened("/dev/uio0");
    int fd = -1;
    EXPECT_OUTCOME((fd = libuio_open_device_attr(uio, "power/state", O_RDONLY)) >= 0,
                   {.value = 1, .opens = 1});
    EXPECT_EQ(read_file("/proc/self/fd/" + std::to_string(fd)), "on\n");
    const auto refuses = [uio](const char *name, int error, const std::string &out) {
        EXPECT_OUTCOME(libuio_open_device_attr(uio, name, O_RDWR),
                       {.value = -1, .error = error, .out = out});
    };
    refuses(nullptr, EINVAL, "");
    refuses("none", ENOENT, "");
    refuses("/etc/passwd", EINVAL,
            err("open_device_attr: /etc/passwd: attr-name is not relative\n"));
    refuses(
        "uevent/x", ENOTDIR,
        err("open_device_attr: openat(" + device_dir + ",uevent/x,0x2) failed: Not a directory"));
    uio->sys_device_dir = nullptr;
    refuses("uevent", ENOENT, err("open_device_attr: sys_device_dir is NULL\n"));
    libuio_close(uio);
}

TEST(uio_handle, maps_by_number_and_mask)
{
    start_chassis(
        {with_maps({{"map0", "4096"}, {"map1", "4096"}, {"map21", "4096"}, {"map33", "4096"}})});
    libuio_dev_t *uio = opened("/dev/uio0");
    const auto mapped = [uio] { // their numbers
        std::string numbers;
        for (const std::string &map : words(maps_text(uio)))
            numbers += map.back() == '*' ? map.substr(0, map.find('=')) + " " : "";
        return numbers;
    };
    const uint64_t bit33 = uint64_t{1} << 33;
    EXPECT_OUTCOME(libuio_mmap(uio, bit33 | 1), {.value = 2});
    EXPECT_EQ(mapped(), "1 15 ");
    EXPECT_OUTCOME(libuio_mmap(uio, bit33), {.value = 1});
    EXPECT_EQ(mapped(), "0 1 15 ");
    EXPECT_OUTCOME(libuio_mmap(uio, 0), {.value = 1});
    EXPECT_OUTCOME(libuio_mmap(uio, 0), {});
    // Map N is the device at N pages.
    for (unsigned int n : {0u, 1u, 33u})
        iowrite32(n + 7, libuio_get_mapinfo(uio, n, nullptr));
    for (unsigned int n : {0u, 1u, 33u})
        EXPECT_EQ(ioread32(mmap(nullptr, 4, PROT_READ, MAP_SHARED, uio->uio_fd, n * 4096)), n + 7);
    EXPECT_OUTCOME(libuio_munmap(uio, bit33 | 2), {});
    EXPECT_EQ(mapped(), "1 21 ");
    // An unmapping that fails is noted and forgotten.
    const std::string line = debug(printed("munmap: munmap(%p, 0x1000) failed: Input/output error",
                                           libuio_get_mapinfo(uio, 1, nullptr)));
    const auto unmap = [uio, bit33] {
        return libuio_munmap(uio, bit33), libuio_get_mapinfo(uio, 1, nullptr);
    };
    const auto judge = [&line](const run &seen) {
        EXPECT_EQ(seen.seen, (outcome{nullptr, EIO, line}));
    };
    EXPECT_EQ(fail_each_call(EIO, unmap, judge), 1);
    libuio_munmap(uio, 0);
    EXPECT_EQ(mapped(), "");
    // A length that the kernel refuses. Minus the number of map 0 looks like nothing to do.
    for (unsigned int i = 0; i < uio->map_count; ++i)
        uio->map[i].size = 0;
    EXPECT_OUTCOME(libuio_mmap(uio, ~bit33),
                   {.value = -33,
                    .error = EINVAL,
                    .out = err("mmap: mmap(0, (33*4096)) failed: Invalid argument")});
    EXPECT_OUTCOME(
        libuio_mmap(uio, ~uint64_t{1}),
        {.error = EINVAL, .out = err("mmap: mmap(0, (0*4096)) failed: Invalid argument")});
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
    void expect_no_wait(const timespec *deadline, int error, const std::string &text)
    {
        EXPECT_OUTCOME(libuio_irqwait(uio_, deadline, nullptr),
                       {.value = -1, .error = error, .out = err("irqwait: " + text)});
    }
    void expect_no_control(int32_t flag, int error, const std::string &text)
    {
        const std::string line = err(printed("irqcontrol: pwrite(%d, ", uio_->uio_fd) + text);
        EXPECT_OUTCOME(libuio_irqcontrol(uio_, flag), {.value = -1, .error = error, .out = line});
    }

    libuio_dev_t *uio_;
};

TEST_F(uio_irq, counts_interrupts_and_leaves_uncounted_ones_pending)
{
    control("interrupt uio0");
    for (int i = 0; i < 2; ++i)
        EXPECT_OUTCOME(libuio_irqwait(uio_, nullptr, nullptr), {});
    expect_interrupt(nullptr, 1);
    timespec soon;
    clock_gettime(CLOCK_MONOTONIC, &soon);
    soon.tv_sec += 1;
    for (const timespec &deadline : {no_wait, long_past, soon})
        expect_timeout(deadline);
    for (uint32_t number = 2; const timespec &deadline : {no_wait, long_past, end_of_time}) {
        control("interrupt uio0"); // it wins over a deadline that is past
        expect_interrupt(&deadline, number++);
    }
    EXPECT_OUTCOME(libuio_irqcontrol(uio_, 0), {});
    control("interrupt uio0");
    expect_timeout(long_past);
    EXPECT_OUTCOME(libuio_irqcontrol(uio_, 1), {});
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
    const std::string line = debug("irqwait: uio_maps removed");
    EXPECT_OUTCOME(libuio_irqwait(uio_, &long_past, &count),
                   {.value = -1, .error = ECANCELED, .err = line, .opens = -3});
    EXPECT_TRUE(uio_->uio_fd == -1 && uio_->gone_fd == -1 && uio_->tmr_fd == -1 && count == 77);
    EXPECT_EQ(maps_text(uio_), "0=0:0+1000 ");
    EXPECT_OUTCOME(libuio_irqwait(uio_, &long_past, &count), {.value = -1, .error = EBADF});
    expect_no_control(1, EBADF, "0x1, 0) failed: Bad file descriptor");
    uio_->map[0].index = 9;
    EXPECT_OUTCOME(libuio_mmap(uio_, 1), {.value = -9, .out = err("mmap: UIO-fd closed")});
    EXPECT_OUTCOME(libuio_close(std::exchange(uio_, nullptr)), {});
}

TEST_F(uio_irq, passes_on_the_failures_of_driver_timer_and_poll)
{
    control(printed("answer-write uio0 %d", -ENOSYS));
    expect_no_control(-2, ENOSYS, "0xfffffffe, 0) failed: Function not implemented");
    control("answer-write uio0 2");
    expect_no_control(0x20, EIO, "0x20, 0) partial 2");

    const timespec no_time = {5, 1000000000};
    const timespec before_time = {-1, 1};
    const std::string invalid = " failed: Invalid argument";
    expect_no_wait(&no_time, EINVAL, "timerfd_settime 5,1000000000" + invalid);
    expect_no_wait(&before_time, EINVAL, "timerfd_settime 18446744073709551615,1" + invalid);
    struct sigaction wake = {};
    wake.sa_handler = [](int) {};
    sigaction(SIGALRM, &wake, nullptr);
    const itimerval each_30_ms = {{0, 30000}, {0, 30000}};
    const itimerval never = {};
    setitimer(ITIMER_REAL, &each_30_ms, nullptr);
    expect_no_wait(nullptr, EINTR, "poll(,2,-1) failed: Interrupted system call");
    setitimer(ITIMER_REAL, &never, nullptr);

    // A failing read of the count is silent.
    uint32_t count = 0;
    control("interrupt uio0");
    for (int answer : {-EIO, 0, 2}) {
        control(printed("answer-read uio0 %d", answer));
        EXPECT_OUTCOME(libuio_irqwait(uio_, nullptr, &count),
                       {.value = -1, .error = answer < 0 ? EIO : untouched});
    }
    uio_->tmr_fd = -7;
    expect_no_wait(nullptr, EINVAL, "Corrupted tmr_fd: -7\n");
}

TEST_F(uio_irq, descriptor_0_is_never_closed_nor_watched)
{
    close(std::exchange(uio_->gone_fd, 0));
    dup2(open("/dev/null", O_RDONLY), 0); // always readable
    expect_timeout(long_past);
    EXPECT_OUTCOME(libuio_close(std::exchange(uio_, nullptr)), {.error = any_error, .opens = -2});
}

//--- diagnostics ----------------------------------------------------------------------------------

TEST(uio_pr, prints_errors_on_standard_output_and_the_rest_on_standard_error)
{
    // A level in small letters, so that the lines are shown as they are.
    const auto print = [](int level, unsigned int line, const std::string &function,
                          const std::string &text) {
        libuio_pr(level, "level", line, function.c_str(), "%s %d", text.c_str(), 7);
    };
    const std::string start = "log[level]: lib/device_access/libuio:";
    EXPECT_OUTCOME(print(3, 12, "caller", "text"), {.out = start + "12:caller(): text 7\n"});
    EXPECT_OUTCOME(print(5, 1, "f", "%d"), {.out = start + "1:f(): %d 7\n"});
    EXPECT_OUTCOME(print(6, 4294967295u, "f", ""), {.err = start + "4294967295:f():  7\n"});
    // Of a line that is too long, the first 509 characters are left.
    const std::string x(2000, 'x');
    EXPECT_OUTCOME(print(3, 1, "f", x), {.out = (start + "1:f(): " + x).substr(0, 521) + "\n"});
    EXPECT_OUTCOME(print(3, 1, x, "never seen"), {.out = (start + "1:" + x).substr(0, 521) + "\n"});
}

} // namespace

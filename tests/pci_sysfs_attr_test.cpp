#include "sim/chassis.h"
#include "support/descriptors.h"

#include <device_access/pci_sysfs.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

namespace
{

namespace fs = std::filesystem;
using chassis_sim::pci_function;
using chassis_sim::write_file;

const sysfs_pci_identity_t ident = {"0000:03:00.0", {}};
const std::string dir = chassis_sim::pci_link(ident.str);

std::string contents(const std::string &name)
{
    std::ifstream file(dir + "/" + name);
    return {std::istreambuf_iterator<char>(file), {}};
}

//--- paths ----------------------------------------------------------------------------------------

TEST(pci_path, fits_its_buffer_or_fails)
{
    sysfs_pci_identity_t unterminated;
    std::memset(unterminated.str, 'x', sizeof unterminated.str);
    struct {
        size_t max;
        const char *attr_name;
        const sysfs_pci_identity_t *ident;
        std::string path; // or "", with
        int error;
    } cases[] = {
        {34, nullptr, &ident, dir, 0},
        {33, nullptr, &ident, "", ENAMETOOLONG},
        {0, nullptr, &ident, "", ENAMETOOLONG},
        {41, "config", &ident, dir + "/config", 0},
        {40, "config", &ident, "", ENAMETOOLONG},
        {35, "", &ident, dir + "/", 0},
        {99, nullptr, &unterminated, "/sys/bus/pci/devices/xxxxxxxxxxxxx", 0},
        {99, "config", nullptr, "", -22},
    };
    for (const auto &c : cases) {
        std::vector<char> buffer(c.max + 1, '#');
        errno = 0;
        char *path = sysfs_pci_abspath(buffer.data(), c.max, c.attr_name, c.ident);
        EXPECT_EQ(path ? path : "", c.path);
        EXPECT_EQ(errno, c.error) << c.path;
        EXPECT_EQ(buffer[c.max], '#');
    }
}

TEST(pci_path, comes_in_a_block_of_its_own)
{
    const std::string attr(500, 'a');
    char *path = sysfs_pci_abspath(nullptr, 10, attr.c_str(), &ident);
    EXPECT_EQ(path, dir + "/" + attr);
    std::strcat(path, "/12345678"); // there is more room than max asks for
    std::free(path);
    EXPECT_EQ(sysfs_pci_abspath(nullptr, SIZE_MAX - 50, "config", &ident), nullptr);
    EXPECT_EQ(errno, ENOMEM);
}

TEST(pci_path, names_the_file_to_test_or_open)
{
    chassis_sim::enter_private_root();
    write_file(dir + "/enable", "1\n");
    EXPECT_EQ(sysfs_pci_access("enable", W_OK, &ident), 0);
    EXPECT_EQ(sysfs_pci_access("absent", F_OK, &ident), -1);
    EXPECT_EQ(errno, ENOENT);
    const int fd = sysfs_pci_open("enable", O_RDWR, &ident);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDWR);
    close(fd);
    for (const char *name : {static_cast<const char *>(nullptr), ""}) {
        errno = 0;
        EXPECT_EQ(sysfs_pci_access(name, F_OK, &ident), -1);
        EXPECT_EQ(errno, EINVAL);
        errno = 0;
        EXPECT_EQ(sysfs_pci_open(name, O_RDONLY, nullptr), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(sysfs_pci_open("enable", O_RDONLY, nullptr), -1);
    EXPECT_EQ(errno, -22);
}

//--- texts and numbers ----------------------------------------------------------------------------

TEST(pci_attribute, is_read_as_text)
{
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    chassis_sim::enter_private_root();
    write_file(dir + "/text", "hello\n");
    write_file(dir + "/long", std::string(page + 100, 'x'));
    write_file(dir + "/empty", "");
    chassis_sim::make_directory(dir + "/directory");
    const auto descriptors = test_support::open_descriptors();

    char text[8] = "#######";
    size_t count = 99;
    EXPECT_EQ(sysfs_pci_show(text, sizeof text, &count, "text", &ident), text);
    EXPECT_STREQ(text, "hello\n");
    EXPECT_EQ(count, 6u);
    EXPECT_EQ(sysfs_pci_show(text, 4, nullptr, "text", &ident), text);
    EXPECT_STREQ(text, "hel");
    char *block = sysfs_pci_show(nullptr, 3, &count, "long", &ident);
    EXPECT_EQ(block, std::string(page - 1, 'x'));
    EXPECT_EQ(count, page - 1);
    std::free(block);

    const int fd = sysfs_pci_open("text", O_RDONLY, &ident);
    lseek(fd, 3, SEEK_SET); // does not matter
    EXPECT_STREQ(sysfs_pci_fshow(text, sizeof text, nullptr, fd), "hello\n");
    EXPECT_EQ(sysfs_pci_fshow(text, 1, nullptr, fd), nullptr);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(sysfs_pci_fshow(nullptr, SIZE_MAX, nullptr, fd), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    close(fd);

    struct {
        const char *name;
        int error;
    } failures[] = {{"empty", EXDEV}, {"directory", EISDIR}, {"absent", ENOENT}, {"", EINVAL}};
    for (const auto &f : failures)
        for (char *buffer : {text, static_cast<char *>(nullptr)}) {
            errno = EXDEV;
            count = 99;
            EXPECT_EQ(sysfs_pci_show(buffer, 8, &count, f.name, &ident), nullptr) << f.name;
            EXPECT_EQ(errno, f.error) << f.name;
            EXPECT_EQ(count, 99u);
        }
    EXPECT_EQ(test_support::open_descriptors(), descriptors);
}

TEST(pci_attribute, is_read_as_numbers)
{
    using numbers = std::vector<int64_t>;
    struct {
        std::string text;
        size_t limit;
        numbers expected;
    } cases[] = {
        {"0x8086\n", 1, {32902}},
        {"12abc", 1, {}},
        {"1 2", 3, {1, 2}},
        {" \t-0x10\n010 +9", 3, {-16, 8, 9}},
        {"1 2 3 4", 3, {1, 2, 3}},
        {"7 8", 0, {7}},
        {"5 x 6", 3, {5}},
        {"0x", 1, {}},
        {"   \n", 2, {}},
        {std::string("1\0002", 3), 2, {1}},
        {"9223372036854775808 -9223372036854775809", 2, {INT64_MAX, INT64_MIN}},
        {std::string(31, ' ') + "1", 1, {}}, // beyond the 31 bytes read for one
        {std::string(31, ' ') + "1", 2, {1}},
        {std::string(29, ' ') + "12345", 1, {12}},
    };
    chassis_sim::enter_private_root();
    for (const auto &c : cases) {
        write_file(dir + "/numbers", c.text);
        numbers found(4, -77);
        const ssize_t count = sysfs_pci_show_nums(found.data(), c.limit, "numbers", &ident);
        ASSERT_EQ(count, static_cast<ssize_t>(c.expected.size())) << c.text;
        EXPECT_EQ(found[c.expected.size()], -77) << c.text;
        found.resize(c.expected.size());
        EXPECT_EQ(found, c.expected) << c.text;
    }
    int64_t value;
    write_file(dir + "/numbers", "");
    for (size_t limit : {1, 2})
        EXPECT_EQ(sysfs_pci_show_nums(&value, limit, "numbers", &ident), -1);
    EXPECT_EQ(sysfs_pci_show_nums(&value, 1, "absent", &ident), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(sysfs_pci_show_nums(nullptr, 1, "numbers", &ident), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(sysfs_pci_fshow_nums(&value, 1, -1), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST(pci_attribute, is_written_as_text_or_number)
{
    struct {
        int64_t value;
        const char *text;
    } cases[] = {{0, "0\n"},
                 {5, "5\n"},
                 {9, "9\n"},
                 {10, "0xa\n"},
                 {-1, "0xffffffffffffffff\n"},
                 {INT64_MAX, "0x7fffffffffffffff\n"}};
    chassis_sim::enter_private_root();
    for (const auto &c : cases) {
        write_file(dir + "/number", "");
        EXPECT_EQ(sysfs_pci_store_num(c.value, "number", &ident), 0);
        EXPECT_EQ(contents("number"), c.text);
    }
    write_file(dir + "/text", "12345");
    EXPECT_EQ(sysfs_pci_store("abc", "text", &ident), 0);
    EXPECT_EQ(contents("text"), "abc45") << "at position 0, no terminator";
    const int fd = sysfs_pci_open("text", O_RDONLY, &ident);
    EXPECT_EQ(sysfs_pci_fstore("abc", fd), -1);
    EXPECT_EQ(errno, EBADF);
    close(fd);
    for (const char *text : {static_cast<const char *>(nullptr), ""}) {
        errno = 0;
        EXPECT_EQ(sysfs_pci_store(text, "text", &ident), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(sysfs_pci_store("1", "absent", &ident), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(fs::exists(dir + "/absent"));

    chassis_sim::make_symlink(dir + "/full", "/dev/full");
    EXPECT_EQ(sysfs_pci_store_num(1, "full", &ident), -1);
    EXPECT_EQ(errno, ENOSPC);
}

TEST(pci_attribute, that_takes_a_part_of_a_text_is_a_failure)
{
    // A file that may grow by three more bytes.
    chassis_sim::enter_private_root();
    write_file(dir + "/text", "");
    const auto store = [] {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit three = {3, 3};
        setrlimit(RLIMIT_FSIZE, &three);
        errno = EXDEV;
        const int result = sysfs_pci_store("12345", "text", &ident);
        _exit(result == -1 && errno == EXDEV ? 0 : 1);
    };
    EXPECT_EXIT(store(), testing::ExitedWithCode(0), "");
    EXPECT_EQ(contents("text"), "123");
}

//--- device memory --------------------------------------------------------------------------------

bool is_mapped(void *address)
{
    const auto page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    void *start = reinterpret_cast<void *>(reinterpret_cast<uintptr_t>(address) & ~(page - 1));
    return msync(start, 1, MS_ASYNC) == 0;
}

// A function with these windows on the bus of a new chassis.
void start_chassis(const std::vector<chassis_sim::pci_window> &windows)
{
    chassis_sim::enter_private_root();
    pci_function function;
    function.id = ident.str;
    function.windows = windows;
    chassis_sim::add_pci(function);
}

constexpr uint64_t memory = 0x40200;
constexpr uint64_t memory64 = 0x140204;
constexpr uint64_t prefetchable64 = 0x14220c;
constexpr uint64_t io = 0x40101;

TEST(pci_mmap, maps_memory_by_size_and_kind)
{
    struct {
        uint64_t size, flags;
        bool mapped;
    } cases[] = {{128, memory64, true}, {256, prefetchable64, true},
                 {127, memory, false},  {128, memory, true},
                 {128, io, false},      {256, memory, true},
                 {256, io, false},      {257, io, true},
                 {4096, io, true},      {0, memory, false}};
    chassis_sim::enter_private_root();
    for (const auto &c : cases) {
        pci_function function;
        function.id = ident.str;
        function.windows = {{}, {}, {}, {}, {}, {0xe0000000, c.size, c.flags}};
        chassis_sim::add_pci(function);
        const auto descriptors = test_support::open_descriptors();
        std::vector<void *> bars(7, &function);
        EXPECT_EQ(sysfs_pci_mmap(bars.data(), 0, &ident), 0) << c.size;
        EXPECT_EQ(test_support::open_descriptors(), descriptors);
        EXPECT_EQ(bars[5] != nullptr, c.mapped) << c.size << " " << c.flags;
        EXPECT_EQ(std::vector<void *>(bars.begin(), bars.begin() + 5),
                  std::vector<void *>(5, nullptr));
        EXPECT_EQ(bars[6], &function);
        void *window = bars[5];
        if (window) {
            std::memcpy(window, "written", 8);
            EXPECT_EQ(contents("resource5").substr(0, 7), "written");
        }
        sysfs_pci_munmap(bars.data(), &ident);
        EXPECT_EQ(bars[5], nullptr);
        EXPECT_TRUE(!window || !is_mapped(window)) << c.size;
        chassis_sim::remove_pci(ident.str);
    }
}

TEST(pci_mmap, leaves_out_what_is_masked_and_fails_where_opening_does)
{
    start_chassis({{0xf0000000, 0x1000, memory}, {0xf1000000, 0x2000}, {}, {0xf2000000, 0x1000}});
    void *bars[6];
    EXPECT_EQ(sysfs_pci_mmap(bars, 0x3e, &ident), 0);
    EXPECT_NE(bars[0], nullptr);
    EXPECT_EQ(bars[1], nullptr);
    sysfs_pci_munmap(bars, &ident);

    fs::remove(dir + "/resource3");
    fs::create_directory(dir + "/resource3");
    const auto descriptors = test_support::open_descriptors();
    EXPECT_EQ(sysfs_pci_mmap(bars, 0, &ident), -1);
    EXPECT_EQ(errno, EISDIR);
    ASSERT_NE(bars[1], nullptr) << "not reset";
    EXPECT_FALSE(is_mapped(bars[0]));
    EXPECT_FALSE(is_mapped(bars[1]));
    EXPECT_EQ(test_support::open_descriptors(), descriptors);
    EXPECT_EQ(sysfs_pci_mmap(bars, 0x08, &ident), 0);
    sysfs_pci_munmap(bars, &ident);

    EXPECT_EQ(sysfs_pci_mmap(bars, 0, nullptr), -1);
    EXPECT_EQ(errno, -22);
}

TEST(pci_mmap, leaves_the_windows_of_a_device_that_vanished_mapped)
{
    start_chassis({{0xf0000000, 0x1000, memory}});
    sysfs_pci_identity_t *list = sysfs_pci_list();
    ASSERT_STREQ(list->str, ident.str);
    void *bars[6];
    ASSERT_EQ(sysfs_pci_mmap(bars, 0, list), 0);
    void *window = bars[0];
    chassis_sim::remove_pci(ident.str);
    EXPECT_EQ(sysfs_pci_open("enable", O_RDWR, list), -1);
    EXPECT_EQ(errno, ENOENT);
    sysfs_pci_munmap(bars, list);
    EXPECT_EQ(bars[0], nullptr);
    EXPECT_TRUE(is_mapped(window)) << "its length cannot be asked for any more";
    EXPECT_EQ(sysfs_pci_mmap(bars, 0, list), 0);
    EXPECT_EQ(bars[0], nullptr);
    std::free(list);
}

TEST(pci_mmap, takes_a_small_window_that_cannot_be_asked_for_memory)
{
    start_chassis({{0x2000, 0x100, io}});
    fs::remove(dir + "/config");
    void *bars[6];
    EXPECT_EQ(sysfs_pci_mmap(bars, 0, &ident), 0);
    void *window = bars[0];
    ASSERT_NE(window, nullptr);
    sysfs_pci_munmap(bars, &ident);
    EXPECT_EQ(bars[0], nullptr);
    EXPECT_TRUE(is_mapped(window)) << "its length could not be asked for either";
}

TEST(pci_mmap, never_maps_a_part_of_a_large_window)
{
    constexpr uint64_t beyond_4_gib = 0x1'0000'1000;
    start_chassis({{0x0, 0x1000}, {0x4'0000'0000, beyond_4_gib, 0x14220c}});
    void *bars[6];
    if (sizeof(void *) == 8) {
        ASSERT_EQ(sysfs_pci_mmap(bars, 0, &ident), 0);
        static_cast<char *>(bars[1])[beyond_4_gib - 1] = 'x';
        void *window = bars[1];
        sysfs_pci_munmap(bars, &ident);
        EXPECT_FALSE(is_mapped(window));
    }
    // More than any address space.
    const uint64_t size = sizeof(void *) == 8 ? uint64_t{1} << 48 : beyond_4_gib;
    ASSERT_EQ(truncate((dir + "/resource1").c_str(), static_cast<off_t>(size)), 0);
    const auto descriptors = test_support::open_descriptors();
    EXPECT_EQ(sysfs_pci_mmap(bars, 0, &ident), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(bars[1], MAP_FAILED);
    EXPECT_FALSE(is_mapped(bars[0]));
    EXPECT_EQ(test_support::open_descriptors(), descriptors);
}

} // namespace

#include "support/pci.h"

#include <device_access/qel_pci_hotswap.h>

#include <array>
#include <chrono>
#include <climits>
#include <csignal>
#include <filesystem>
#include <sstream>
#include <thread>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace
{

namespace fs = std::filesystem;
using namespace test;
using chassis_sim::make_directory;
using chassis_sim::make_symlink;
using chassis_sim::write_file;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

using pci_sysfs = in_chassis;
using qel_pci_hotswap = in_chassis;

const std::string bus = "/sys/bus/pci/devices";
const char *const no_name = nullptr;
const sysfs_pci_identity_t *const nobody = nullptr;

sysfs_pci_identity_t identity(const std::string &id)
{
    sysfs_pci_identity_t result = {};
    id.copy(result.str, sizeof result.str);
    return result;
}

void add(const std::string &id, const std::string &parent = "")
{
    chassis_sim::pci_function function;
    function.id = id;
    function.parent = parent;
    chassis_sim::add_pci(function);
}

// The identities of a list, which is released; "NULL" for none.
std::string taken(sysfs_pci_identity_t *list)
{
    std::string text = list ? "" : "NULL";
    for (const sysfs_pci_identity_t *entry = list; list && entry->str[0]; ++entry)
        text += std::string(entry->str) + " ";
    std::free(list);
    return text;
}

// Receives what the process sends to syslog. The kernel queues few messages (ten by default), then
// syslog blocks.
struct syslog_socket {
    syslog_socket()
    {
        const sockaddr_un address = {AF_UNIX, "/dev/log"};
        unlink(address.sun_path);
        bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    }
    ~syslog_socket() { close(fd); }

    // What came since the last call, "<PRIORITY>TEXT" each; LOG_ERR of an ordinary program is 11.
    std::string take() const
    {
        std::string messages;
        char block[4096];
        for (ssize_t size; (size = recv(fd, block, sizeof block, MSG_DONTWAIT)) >= 0;)
            messages += replaced({block, static_cast<size_t>(size)}, "^([^>]*>).*?: ", "$1");
        return messages;
    }

    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
};

TEST(pci_identity, is_read_by_the_letter_rule)
{
    const auto numbers_of = [](const std::string &text) {
        const sysfs_pci_identity_t id = identity(text);
        return std::array{sysfs_pci_identity_domain(&id), sysfs_pci_identity_bus(&id),
                          sysfs_pci_identity_slot(&id), sysfs_pci_identity_function(&id),
                          sysfs_pci_identity_devfn(&id)};
    };
    EXPECT_EQ(numbers_of("0000:00:03.1"), (std::array{0, 0, 3, 1, 25}));
    EXPECT_EQ(numbers_of("0000:1f:1f.3"), (std::array{0, 11, 11, 3, 91}));
    EXPECT_EQ(numbers_of("0001:0a:0A.7"), (std::array{1, -10, -10, 7, 0xb7}));
    EXPECT_EQ(numbers_of("ffff:ff:ff.0"), (std::array{-5 * 0x1111, -85, -85, 0, 0x58}));
    EXPECT_EQ(numbers_of("1234:99:19.5"), (std::array{0x1234, 0x99, 0x19, 5, 0xcd}));
    for (const auto &[start, end, value] : std::vector<std::array<int, 3>>{
             {6, 7, 3}, {5, 5, 0}, {7, 5, 0}, {INT_MIN, 1, 0}, {12, INT_MAX, -107}, {4, 5, -49}})
        EXPECT_EQ(sysfs_pci_identity_atox(start, end, &ident), value) << start;
    EXPECT_EQ(sysfs_pci_identity_atox(0, 12, nobody), 0);
    const sysfs_pci_identity_t hostile = identity(std::string(13, '\xff'));
    EXPECT_NE(sysfs_pci_identity_atox(INT_MIN, INT_MAX, &hostile), 0) << "wraps around";
}

//--- attributes -----------------------------------------------------------------------------------

TEST_F(pci_sysfs, builds_paths_that_fit_and_opens_them)
{
    const sysfs_pci_identity_t unterminated = identity(std::string(13, 'x'));
    const auto path = [](size_t max, const char *attr_name, const sysfs_pci_identity_t *id) {
        std::string buffer(max + 1, '#');
        errno = EXDEV;
        const char *result = sysfs_pci_abspath(buffer.data(), max, attr_name, id);
        return buffer[max] != '#' ? "overrun" : result ? result : std::to_string(errno);
    };
    const std::string too_long = std::to_string(ENAMETOOLONG);
    EXPECT_EQ(path(34, no_name, &ident), dir);
    EXPECT_EQ(path(33, no_name, &ident) + path(0, no_name, &ident), too_long + too_long);
    EXPECT_EQ(path(41, "config", &ident), dir + "/config");
    EXPECT_EQ(path(40, "config", &ident), too_long);
    EXPECT_EQ(path(35, "", &ident), dir + "/");
    EXPECT_EQ(path(99, no_name, &unterminated), bus + "/xxxxxxxxxxxxx");
    EXPECT_EQ(path(99, "config", nobody), "-22");
    const std::string attr(500, 'a');
    char *block = sysfs_pci_abspath(nullptr, 10, attr.c_str(), &ident);
    EXPECT_EQ(std::strcat(block, "/12345678"), dir + "/" + attr + "/12345678") << "there is room";
    std::free(block);
    EXPECT_OUTCOME(sysfs_pci_abspath(nullptr, SIZE_MAX - 50, "config", &ident),
                   {.value = nullptr, .error = ENOMEM});

    write_file(dir + "/enable", "1\n");
    EXPECT_OUTCOME(sysfs_pci_access("enable", W_OK, &ident), {});
    EXPECT_OUTCOME(sysfs_pci_access("absent", F_OK, &ident), {.value = -1, .error = ENOENT});
    EXPECT_OUTCOME(sysfs_pci_open("enable", O_RDONLY, nobody), {.value = -1, .error = -22});
    const int fd = sysfs_pci_open("enable", O_RDWR, &ident);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDWR);
    for (const char *name : {no_name, ""}) {
        EXPECT_OUTCOME(sysfs_pci_access(name, F_OK, &ident), {.value = -1, .error = EINVAL});
        EXPECT_OUTCOME(sysfs_pci_open(name, O_RDONLY, nobody), {.value = -1, .error = EINVAL});
    }
}

TEST_F(pci_sysfs, shows_an_attribute_as_text_or_numbers)
{
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    write_file(dir + "/text", "hello\n");
    write_file(dir + "/long", std::string(page + 100, 'x'));
    write_file(dir + "/empty", "");
    char text[8] = "#######";
    size_t count = 99;
    EXPECT_OUTCOME(sysfs_pci_show(text, sizeof text, &count, "text", &ident) == text,
                   {.value = true});
    EXPECT_STREQ(text, "hello\n");
    EXPECT_EQ(count, 6u);
    EXPECT_STREQ(sysfs_pci_show(text, 4, nullptr, "text", &ident), "hel");
    char *block = sysfs_pci_show(nullptr, 3, &count, "long", &ident);
    EXPECT_EQ(block, std::string(page - 1, 'x'));
    EXPECT_EQ(count, page - 1);
    std::free(block);
    const int fd = sysfs_pci_open("text", O_RDONLY, &ident);
    lseek(fd, 3, SEEK_SET); // does not matter
    EXPECT_STREQ(sysfs_pci_fshow(text, 2, nullptr, fd), "h");
    EXPECT_OUTCOME(sysfs_pci_fshow(text, 1, nullptr, fd), {.value = nullptr, .error = EINVAL});
    EXPECT_OUTCOME(sysfs_pci_fshow(nullptr, SIZE_MAX, nullptr, fd),
                   {.value = nullptr, .error = ENOMEM});
    for (char *buffer : {text, static_cast<char *>(nullptr)}) {
        EXPECT_OUTCOME(sysfs_pci_show(buffer, 8, &count, "empty", &ident), {.value = nullptr});
        EXPECT_OUTCOME(sysfs_pci_show(buffer, 8, &count, "absent", &ident),
                       {.value = nullptr, .error = ENOENT});
        EXPECT_OUTCOME(sysfs_pci_show(buffer, 8, &count, "", &ident),
                       {.value = nullptr, .error = EINVAL});
    }
    EXPECT_EQ(count, page - 1);

    using numbers = std::vector<int64_t>;
    const auto numbers_in = [](const std::string &contents, size_t limit) {
        write_file(dir + "/numbers", contents);
        numbers found(4, -77);
        const ssize_t stored = sysfs_pci_show_nums(found.data(), limit, "numbers", &ident);
        while (!found.empty() && found.back() == -77)
            found.pop_back();
        EXPECT_EQ(stored, static_cast<ssize_t>(found.size())) << contents;
        return found;
    };
    EXPECT_EQ(numbers_in("0x8086\n", 1), numbers{0x8086});
    EXPECT_EQ(numbers_in("12abc", 1), numbers{});
    EXPECT_EQ(numbers_in(" \t-0x10\n010 +9", 3), (numbers{-16, 8, 9}));
    EXPECT_EQ(numbers_in("1 2 3 4", 3), (numbers{1, 2, 3}));
    EXPECT_EQ(numbers_in("7 8", 0), numbers{7});
    EXPECT_EQ(numbers_in("5 x 6", 3), numbers{5});
    EXPECT_EQ(numbers_in("0x", 1), numbers{});
    EXPECT_EQ(numbers_in("   \n", 2), numbers{});
    EXPECT_EQ(numbers_in(std::string("1\0002", 3), 2), numbers{1});
    EXPECT_EQ(numbers_in("9223372036854775808 -9223372036854775809", 2),
              (numbers{INT64_MAX, INT64_MIN}));
    EXPECT_EQ(numbers_in(std::string(31, ' ') + "1", 1), numbers{}) << "behind the 31 bytes read";
    EXPECT_EQ(numbers_in(std::string(31, ' ') + "1", 2), numbers{1});
    EXPECT_EQ(numbers_in(std::string(29, ' ') + "12345", 1), numbers{12});
    int64_t value;
    EXPECT_OUTCOME(sysfs_pci_show_nums(&value, 1, "empty", &ident), {.value = -1});
    EXPECT_OUTCOME(sysfs_pci_show_nums(&value, 2, "empty", &ident), {.value = -1});
    EXPECT_OUTCOME(sysfs_pci_show_nums(nullptr, 1, "numbers", &ident),
                   {.value = -1, .error = EINVAL});
    EXPECT_OUTCOME(sysfs_pci_fshow_nums(&value, 1, -1), {.value = -1, .error = EBADF});
}

TEST_F(pci_sysfs, stores_a_text_or_a_number)
{
    const auto stored = [](int64_t value) {
        write_file(dir + "/number", "");
        EXPECT_OUTCOME(sysfs_pci_store_num(value, "number", &ident), {});
        return read_file(dir + "/number");
    };
    EXPECT_EQ(stored(0) + stored(9) + stored(10), "0\n9\n0xa\n");
    EXPECT_EQ(stored(-1) + stored(INT64_MAX), "0xffffffffffffffff\n0x7fffffffffffffff\n");
    write_file(dir + "/text", "12345");
    EXPECT_OUTCOME(sysfs_pci_store("abc", "text", &ident), {});
    EXPECT_EQ(read_file(dir + "/text"), "abc45") << "at position 0, no terminator";
    EXPECT_OUTCOME(sysfs_pci_store(nullptr, "text", &ident), {.value = -1, .error = EINVAL});
    EXPECT_OUTCOME(sysfs_pci_store("", "text", &ident), {.value = -1, .error = EINVAL});
    EXPECT_OUTCOME(sysfs_pci_store("1", "absent", &ident), {.value = -1, .error = ENOENT});
    EXPECT_FALSE(fs::exists(dir + "/absent"));

    // A file that may grow to eight bytes takes a part of a text.
    const int fd = sysfs_pci_open("text", O_RDWR, &ident);
    lseek(fd, 3, SEEK_SET); // does not matter
    const auto store_a_part = [fd] {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit eight = {8, 8};
        setrlimit(RLIMIT_FSIZE, &eight);
        errno = EXDEV;
        const int result = sysfs_pci_fstore("1234567890", fd);
        _exit(result == -1 && errno == EXDEV ? 0 : 1);
    };
    EXPECT_EXIT(store_a_part(), testing::ExitedWithCode(0), "");
    EXPECT_OUTCOME(sysfs_pci_fstore_num(7, fd), {});
    EXPECT_EQ(read_file(dir + "/text"), "7\n345678");
}

//--- device memory --------------------------------------------------------------------------------

constexpr uint64_t memory = 0x40200;
constexpr uint64_t memory64 = 0x140204;
constexpr uint64_t prefetchable64 = 0x14220c;
constexpr uint64_t io = 0x40101;

bool is_mapped(void *address)
{
    return address && msync(address, 1, MS_ASYNC) == 0;
}

TEST_F(pci_sysfs, maps_memory_by_size_and_kind)
{
    struct {
        uint64_t size, flags;
        bool mapped;
    } cases[] = {{128, memory64, true}, {256, prefetchable64, true},
                 {127, memory, false},  {128, memory, true},
                 {128, io, false},      {256, memory, true},
                 {256, io, false},      {257, io, true},
                 {4096, io, true}};
    for (const size_t n : {0, 5})
        for (const auto &c : cases) {
            windows all(n);
            all.push_back({0xe0000000, c.size, c.flags});
            const function_on_bus function(all);
            std::array<void *, 7> bars, expected = {};
            bars.fill(&bars);
            EXPECT_OUTCOME(sysfs_pci_mmap(bars.data(), 0, &ident), {.error = any_error});
            void *const window = expected[n] = bars[n];
            expected[6] = &bars;
            EXPECT_EQ(bars, expected);
            EXPECT_EQ(is_mapped(window), c.mapped) << c.size << " " << c.flags;
            if (window)
                std::memcpy(window, "written", 8);
            sysfs_pci_munmap(bars.data(), &ident);
            EXPECT_EQ(bars[n], nullptr);
            EXPECT_FALSE(is_mapped(window)) << c.size;
            EXPECT_EQ(read_file(dir + "/resource" + std::to_string(n)).substr(0, 7),
                      window ? "written" : std::string(7, '\0'));
        }
}

TEST_F(pci_sysfs, leaves_out_what_is_masked_and_unmaps_all_when_one_fails)
{
    const function_on_bus function(windows{{0, 0x1000}, {0, 0x2000}, {}, {0, 0x1000}});
    void *bars[6];
    EXPECT_OUTCOME(sysfs_pci_mmap(bars, 0x3e, &ident), {});
    EXPECT_TRUE(is_mapped(bars[0]) && !bars[1]);
    sysfs_pci_munmap(bars, &ident);
    EXPECT_OUTCOME(sysfs_pci_mmap(bars, 0, nobody), {.value = -1, .error = -22});

    fs::remove(dir + "/resource3");
    fs::create_directory(dir + "/resource3");
    EXPECT_OUTCOME(sysfs_pci_mmap(bars, 0, &ident), {.value = -1, .error = EISDIR});
    EXPECT_TRUE(bars[0] && bars[1]) << "not reset";
    EXPECT_FALSE(is_mapped(bars[0]) || is_mapped(bars[1]));
    EXPECT_OUTCOME(sysfs_pci_mmap(bars, 0x08, &ident), {.error = any_error});
    sysfs_pci_munmap(bars, &ident);

    // More than any address space.
    const off_t size = sizeof(void *) == 8 ? off_t{1} << 48 : off_t{0x1'0000'1000};
    ASSERT_EQ(truncate((dir + "/resource1").c_str(), size), 0);
    EXPECT_OUTCOME(sysfs_pci_mmap(bars, 0, &ident), {.value = -1, .error = ENOMEM});
    EXPECT_EQ(bars[1], MAP_FAILED);
    EXPECT_FALSE(is_mapped(bars[0]));
}

TEST_F(pci_sysfs, takes_what_cannot_be_asked_for_memory_and_leaves_it_mapped)
{
    void *bars[6];
    {
        const function_on_bus function(windows{{0x2000, 0x100, io}});
        fs::remove(dir + "/config");
        EXPECT_OUTCOME(sysfs_pci_mmap(bars, 0, &ident), {.error = any_error});
        void *const window = bars[0];
        sysfs_pci_munmap(bars, &ident);
        EXPECT_TRUE(is_mapped(window) && !bars[0]);
        EXPECT_OUTCOME(sysfs_pci_mmap(bars, 0, &ident), {.error = any_error});
    }
    void *const window_of_a_vanished_device = bars[0];
    sysfs_pci_munmap(bars, &ident);
    EXPECT_TRUE(is_mapped(window_of_a_vanished_device) && !bars[0]);
    EXPECT_OUTCOME(sysfs_pci_mmap(bars, 0, &ident), {.error = any_error});
    EXPECT_EQ(bars[0], nullptr);
}

//--- scan -----------------------------------------------------------------------------------------

// What a scan prints that finds so many entries, and these lines about them.
std::string log_of(int entries, const std::string &lines = "")
{
    const std::string count = std::to_string(entries);
    return "7 sysfs_pci_arraylist_create: # of elements is " + count + "\n\n" + lines +
           "7 sysfs_pci_info_init: info_set has " + count + " entries\n\n";
}

const std::string absent = "3 sysfs_fill_attribute: Error opening the file_entry, ";
const std::string unreadable = "3 sysfs_fill_attribute: Read failed on the attribute ";
const std::string invalid = "3 sysfs_fill_attribute: Read returned invalid value ";
const std::string early_end = "3 sysfs_fetch_resource_attr: Unexpected EOF at line ";
const std::string empty_set = "7 sysfs_pci_info_fetch_init: Empty info set\n\n";
const std::string no_path = "3 sysfs_pci_scan_dir_path: PATH invalidi\n\n";
const char *const attributes[] = {"device", "vendor", "subsystem_device", "subsystem_vendor",
                                  "resource"};

const sysfs_pci_info_set_t *last_scan()
{
    static auto &all = *new std::vector<const void *>; // no result is ever freed
    sysfs_pci_get_next_element_t handle;
    sysfs_pci_info_fetch_init(&handle);
    all.push_back(handle.seed);
    return static_cast<const sysfs_pci_info_set_t *>(handle.seed);
}

std::string text_of(const com_pci_dev_t &id)
{
    std::ostringstream text;
    text << std::hex << id.vendor << " " << id.device << " " << id.subsystem_vendor << " "
         << id.subsystem_device << " " << int{id.devfn} << " " << id.sys_fs;
    return text.str();
}

// The first base address registers, each as BASE+SIZE:FLAGS.
std::string text_of(const sysfs_pci_bar_t *bar, int count)
{
    std::ostringstream text;
    for (; count > 0; --count, ++bar)
        text << std::hex << " " << bar->base << "+" << bar->size << ":" << bar->flags;
    return text.str();
}

TEST_F(pci_sysfs, finds_devices_between_holes_in_sorted_order)
{
    add("0000:00:1c.0");
    chassis_sim::pci_function device;
    device.id = ident.str;
    device.device = 0xabcd;
    device.subsystem_vendor = 0x1234;
    device.windows = {{0x1000, 0x100, io},
                      {0x70000000, 0x10000000}, // ends at 2 GiB: a negative end
                      {0xf0000000, 0x01000000, 0x42208},
                      {0x4'0000'0000, 0x200000, prefetchable64}};
    chassis_sim::add_pci(device);
    write_file(bus + "/0000:01:00.0", "a file");
    make_symlink(bus + "/0000:02:00.0", "gone");
    // Names that no kernel gives are cut: of more than 99 and 255 characters with the directory.
    add(std::string(90, 'a'));
    make_directory(bus + "/" + std::string(250, 'b'));
    EXPECT_OUTCOME(sysfs_pci_info_init(), {.error = any_error, .out = log_of(8)});
    sysfs_pci_get_next_element_t handle;
    sysfs_pci_info_fetch_init(&handle);
    std::string found;
    while (const sysfs_pci_info_t *info = sysfs_pci_info_fetch_next(&handle))
        found += std::to_string(handle.key) + " " + text_of(info->id) + "\n";
    EXPECT_EQ(found, "3 f0ca 1 f0ca 1 0 " + bus + "/0000:00:1c.0\n6 f0ca abcd 1234 1 0 " + dir +
                         "\n7 f0ca 1 f0ca 1 0 " + bus + "/" + std::string(78, 'a') + "\n");
    EXPECT_EQ(text_of(last_scan()->element[5].resource_bar, 6),
              " 1000+100:40101 70000000+ffffffff10000000:40200 f0000000+ffffffff01000000:42208"
              " 400000000+fffffffc00200000:14220c 0+1:0 0+1:0");
}

TEST_F(pci_sysfs, iterates_and_reports_unusable_iterators_to_syslog)
{
    syslog_socket syslog;
    sysfs_pci_get_next_element_t handle = {7, &handle};
    EXPECT_OUTCOME((sysfs_pci_info_fetch_init(&handle), handle.key), {.out = empty_set});
    EXPECT_OUTCOME(sysfs_pci_info_fetch_next(&handle), {.value = nullptr, .opens = 1});
    EXPECT_OUTCOME(sysfs_pci_info_fetch_init(nullptr), {});
    EXPECT_OUTCOME(sysfs_pci_info_fetch_next(nullptr), {.value = nullptr});
    EXPECT_EQ(syslog.take(), "<11>The Received handle is corrupted \n<11>Pci Info Init failed \n"
                             "<11>Received Null Handle for next element fetch \n");
    add("0000:00:01.0");
    write_file(bus + "/zz", "a hole behind the last device");
    EXPECT_OUTCOME(sysfs_pci_info_init(), {.error = any_error, .out = log_of(4)});
    sysfs_pci_info_fetch_init(&handle);
    EXPECT_OUTCOME(sysfs_pci_info_fetch_next(&handle), {.value = a_pointer});
    EXPECT_OUTCOME(sysfs_pci_info_fetch_next(&handle), {.value = nullptr});
    EXPECT_OUTCOME(sysfs_pci_info_fetch_next(&handle), {.value = nullptr});
    EXPECT_EQ(handle.key++, 4u);
    EXPECT_EQ(syslog.take(), "");
    EXPECT_OUTCOME(sysfs_pci_info_fetch_next(&handle), {.value = nullptr});
    EXPECT_EQ(syslog.take(), "<11>The Received handle key count is invalid\n");
}

TEST_F(pci_sysfs, goes_on_behind_bad_attributes)
{
    const std::string zeros(126, '0');
    const std::string good = "f0ca 1 f0ca 1";
    struct {
        const char *attribute;
        std::string contents; // "": absent; "/": a directory
        std::string log;      // %: the attribute's path and the end of the line
        std::string ids;
        std::string bars = " 0+1:0 0+1:0";
    } cases[] = {
        {"vendor", "ffff\n", invalid + "ffff\n\n\n", "0 1 f0ca 1"},
        {"vendor", ":9\n", invalid + ":9\n\n\n", "0 1 f0ca 1"},
        {"vendor", "9:\n", "", "9 1 f0ca 1"},
        {"vendor", "0x12345678\n", "", "5678 1 f0ca 1"},
        {"vendor", zeros + "12", "", "1 1 f0ca 1"}, // of 127 characters
        {"device", std::string(1, '\0'), invalid + "\n\n", "f0ca 0 f0ca 1"},
        {"subsystem_device", "", absent + "%", "f0ca 1 f0ca 0"},
        {"subsystem_vendor", "/", unreadable + "%", "f0ca 1 0 1"},
        {"resource", "/", unreadable + "%", good, " 0+0:0 0+0:0"},
        {"resource", " 0x1\n", invalid + " 0x1\n\n\n", good, " 0+0:0 0+0:0"},
        {"resource", "0x10 0x1f 2\n0x20 0x2f 1", early_end + "2 of %", good, " 10+10:2 20+10:1"},
        {"resource", "0x10 0x1f 2\n5", early_end + "2 of %", good, " 10+10:2 5+fffffffffffffffc:0"},
        {"resource", "0x10\n1 0x1f\n\n\n0\n2", "", good, " 10+fffffffffffffff1:0 1+1f:0"},
        {"resource", "0xfffffffffffffffff 0xffffffffffffffff 0x123456789abcdef01\n",
         early_end + "1 of %", good, " ffffffffffffffff+1:ffffffff 0+0:0"},
        // The rest of a line that is too long is the next one.
        {"resource", zeros + "12 0x1f 2\n", early_end + "2 of %", good, " 1+0:0 2+1e:2"},
    };
    for (auto &c : cases) {
        const function_on_bus function;
        const std::string file = dir + "/" + c.attribute;
        fs::remove(file);
        if (c.contents == "/")
            fs::create_directory(file);
        else if (!c.contents.empty())
            write_file(file, c.contents);
        if (c.log.ends_with('%'))
            c.log.replace(c.log.size() - 1, 1, file + "\n\n");
        EXPECT_OUTCOME(sysfs_pci_info_init(), {.error = any_error, .out = log_of(3, c.log)});
        const sysfs_pci_info_t &info = last_scan()->element[2];
        EXPECT_EQ(text_of(info.id) + text_of(info.resource_bar, 2), c.ids + " 0 " + dir + c.bars);
    }
}

// Scans and counts the devices it finds; -1 for no result, which else is released.
int scan_and_count()
{
    const int result = sysfs_pci_info_init();
    sysfs_pci_get_next_element_t handle;
    sysfs_pci_info_fetch_init(&handle);
    int found = handle.seed ? 0 : -1;
    while (handle.seed && sysfs_pci_info_fetch_next(&handle))
        ++found;
    std::free(const_cast<void *>(handle.seed));
    return result == (handle.seed ? 0 : 1) ? found : -2;
}

TEST_F(pci_sysfs, scans_in_part_or_not_at_all_when_a_call_fails)
{
    add(ident.str);
    const std::string no_list = "-1 3 sysfs_pci_scan_dir_path: scandir failed\n" + empty_set;
    std::string no_files, by_file;
    for (const std::string attribute : attributes) {
        const std::string path = dir + "/" + attribute + "\n\n";
        no_files += absent + path;
        by_file +=
            "open: 1 " + log_of(3, absent + path) + "read: 1 " + log_of(3, unreadable + path);
    }
    const std::string by_call =
        "stat: -1 3 is_sysfs_path_dir: Stats failed for path " + bus + "\n\n" + no_path +
        empty_set + "open: " + no_list + "stat: " + no_list + "getdents64: " + no_list +
        "close: 1 " + log_of(3) + "open: 1 " + log_of(3, no_files) + by_file + "open: 1 " +
        log_of(3, "3 sysfs_fetch_resource_attr: Failed to open " + dir + "/resource\n\n") +
        "read: 1 " + log_of(3, early_end + "0 of " + dir + "/resource\n\n");
    const std::string by_allocation =
        "allocation: " + no_list +
        "allocation: -1 7 sysfs_pci_arraylist_create: # of elements is 3\n\n"
        "3 sysfs_pci_arraylist_create: Unable to allocate memory \n\n" +
        empty_set;
    EXPECT_EQ(by_call + (heap_can_fail ? by_allocation : ""), failures_of(EXDEV, scan_and_count));
    fs::rename(bus, "/sys/elsewhere");
    make_symlink(bus, "/sys/elsewhere"); // a link is no directory here
    EXPECT_OUTCOME(scan_and_count(), {.value = -1, .out = no_path + empty_set});
}

// The n-th of the functions that a full bus 0, bus 1, ... have.
std::string function_id(int n)
{
    char id[16];
    std::snprintf(id, sizeof id, "0000:%02x:%02x.%d", n >> 8 & 0xff, n >> 3 & 0x1f, n & 7);
    return id;
}

TEST_F(pci_sysfs, copes_with_4096_devices_in_20_system_calls_each)
{
    int calls[2] = {};
    for (int n = 0; n < 4096; ++n) {
        if (n == 1 || n == 301)
            for (const auto &[name, count] : system_calls_of([] { sysfs_pci_info_init(); }))
                calls[n / 300] += count;
        if (n < 301)
            add(function_id(n));
        else
            make_directory(bus + "/" + function_id(n));
    }
    EXPECT_LE(calls[1] - calls[0], 300 * 20 + 10);
    const std::string last = bus + "/0000:0f:1f.7";
    std::string first_lines = "7 sysfs_pci_arraylist_create: # of elements is 4098\n\n";
    for (const std::string attribute : attributes)
        first_lines += absent + last + "/" + attribute + "\n\n";
    const std::string log = output_of([] { sysfs_pci_info_init(); }).out;
    EXPECT_EQ(log.substr(0, first_lines.size()), first_lines) << "from the last to the first";
    EXPECT_EQ(last_scan()->count, 4098u);
    EXPECT_EQ(last_scan()->element[4097].id.sys_fs, last);
    const std::string list = taken(sysfs_pci_list());
    EXPECT_EQ(list.size(), 4096u * 13);
    EXPECT_EQ(list.substr(4095 * 13), "0000:0f:1f.7 ");
}

//--- lists and records ----------------------------------------------------------------------------

TEST_F(pci_sysfs, lists_what_is_named_like_an_identity_and_a_bridges_own_children)
{
    EXPECT_OUTCOME(sysfs_pci_list(), {.value = nullptr, .error = ENOENT});
    for (const char *name :
         {"0000:00:1f.3", "fFfF:aB:Cd.7", "000a:00:00.0", "0000:00:1f.8", "0000:00:1f.a",
          "0000:00:1f", "0000:00:1f.3x", "00000:00:1f.3", "0000-00:1f.3", "0000:00-1f.3",
          "0000:00:1f:3", "000g:00:1f.3", "0000:0g:1f.3", "0000:00:g0.3", "0000:00:1 .3"})
        make_directory(bus + "/" + name);
    EXPECT_EQ(taken(sysfs_pci_list()), "0000:00:1f.3 000a:00:00.0 fFfF:aB:Cd.7 ");
    add(ident.str);
    add("0000:04:00.0", ident.str);
    add("0000:04:00.1", ident.str);
    add("0000:05:00.0", "0000:04:00.1");
    EXPECT_EQ(taken(sysfs_pci_children_list(&ident)), "0000:04:00.0 0000:04:00.1 ");
    const auto children_of = [](const char *id) {
        const sysfs_pci_identity_t bridge = identity(id);
        return sysfs_pci_children_list(&bridge);
    };
    EXPECT_EQ(taken(children_of("0000:05:00.0")), "");
    EXPECT_OUTCOME(children_of("0000:06:00.0"), {.value = nullptr, .error = ENOENT});
    EXPECT_OUTCOME(children_of("0000:04:00.0x"), {.value = nullptr, .error = ENAMETOOLONG});
    EXPECT_OUTCOME(sysfs_pci_children_list(nobody), {.value = nullptr, .error = -22});
}

TEST_F(pci_sysfs, fills_what_it_can_of_a_record)
{
    static com_pci_dev_t dev;
    const auto fill = [](const sysfs_pci_identity_t *id) {
        std::memset(&dev, 0xee, sizeof dev);
        sysfs_pci_dev_fill(&dev, id);
        return (dev.vendor == 0xffff) + (dev.device == 0xffff) + (dev.subsystem_vendor == 0xffff) +
               (dev.subsystem_device == 0xffff);
    };
    const sysfs_pci_identity_t id = identity("0000:00:1f.3");
    const std::string path = bus + "/" + id.str;
    add(id.str);
    EXPECT_OUTCOME(fill(&id), {});
    EXPECT_EQ(text_of(dev), "f0ca 1 f0ca 1 5b " + path);
    const auto fill_it = [&] { return fill(&id); };
    fail_each_call(EXDEV, fill_it, [](const run &run) {
        EXPECT_EQ(run.failed == "close", run.seen.value == 0) << run;
        EXPECT_EQ(run.seen.err + run.seen.out, "") << run;
        EXPECT_EQ(run.seen.opens + run.blocks, 0) << run;
    });
    write_file(path + "/device", "0xffff\n");
    write_file(path + "/subsystem_device", "-2\n"); // below 0x10000
    fill(&id);
    EXPECT_EQ(text_of(dev), "f0ca ffff f0ca fffe 5b " + path);
    write_file(path + "/vendor", "0x10000\n");
    write_file(path + "/device", "12abc\n");
    EXPECT_OUTCOME(fill(&id), {.value = 2});
    EXPECT_OUTCOME(fill(nobody), {.value = 4, .error = any_error});
    EXPECT_EQ(text_of(dev), "ffff ffff ffff ffff 0 ");
    EXPECT_EQ(sysfs_pci_dev_fill(&dev, nobody), 0);
}

//--- hot swap -------------------------------------------------------------------------------------

TEST_F(qel_pci_hotswap, installs_its_module_and_logs_what_fails)
{
    syslog_socket log;
    const std::string program = fs::read_symlink("/proc/self/exe");
    const std::string command = ": /sbin/modprobe -s qel_pci_hotswap";
    const auto install = [](int opts) {
        return qel_pci_hotswap_install(static_cast<qel_pci_hotswap_options_t>(opts));
    };
    // A shell that still waits for the loader reports a killed one as an exit: kill it too.
    const char *const killed = "[ $(cat /proc/$PPID/comm) = sh ] && kill -9 $PPID; kill -9 $$";
    struct {
        int opts;
        std::string option;
        std::string ending = "exit 0";
        std::string failure = "";
    } cases[] = {{0, ""},
                 {1, "][pcie_only"},
                 {2, "][pciehp_only"},
                 {3, ""},
                 {-1, ""}, // all run
                 {1, "][pcie_only", killed},
                 {0, "", "exit 255", " exited with status 255\n"},
                 {2, "][pciehp_only", "exit 1", " exited with status 1\n"}};
    for (auto &c : cases) {
        fs::remove(chassis_sim::modprobe_log);
        chassis_sim::replace_modprobe(c.ending);
        // The first opens the log.
        EXPECT_OUTCOME(
            install(c.opts),
            {.value = c.failure.empty() ? 0 : -1, .error = any_error, .opens = &c == cases});
        EXPECT_EQ(read_file(chassis_sim::modprobe_log),
                  "[/sbin/modprobe][-s][qel_pci_hotswap" + c.option + "]\n");
        const std::string option = c.option.empty() ? "" : c.option.replace(0, 2, " ");
        const std::string line = "<29>" + program + command + option;
        EXPECT_EQ(log.take(), line + "\n" + (c.failure.empty() ? "" : line + c.failure));
    }
    chassis_sim::replace_modprobe();
    const auto plain = [&] { return install(0); };
    fail_each_call(EXDEV, plain, [&](const run &run) {
        const std::string told = log.take();
        const bool tells = told.ends_with(command + " exited with status 127\n") ||
                           told.ends_with("-s failed to spawn: Invalid cross-device link\n");
        EXPECT_EQ(tells, run.seen.value == -1) << run << told;
        EXPECT_EQ(run.seen.opens + run.blocks, 0) << run;
    });
    log.take();
    ASSERT_EQ(mount("none", "/proc", "tmpfs", 0, nullptr), 0);
    for (const size_t length : {0, 254, 255, 300}) {
        const std::string name = length ? std::string(length, 'p') : "<unknown>";
        fs::remove_all("/proc/self");
        if (length > 0)
            make_symlink("/proc/self/exe", name);
        EXPECT_EQ(install(0), 0);
        EXPECT_EQ(log.take(), "<29>" + name.substr(0, 255) + command + "\n");
    }
    umount("/proc");
}

TEST_F(qel_pci_hotswap, enables_a_bridge_waits_for_what_is_behind_and_disables)
{
    chassis_sim::pci_function card;
    card.id = "0000:04:00.0";
    chassis_sim::add_hotswap_bridge(ident.str, card, 60);
    EXPECT_OUTCOME(qel_pci_hotswap_bridge_usable(&ident), {});
    const auto start = steady_clock::now();
    EXPECT_EQ(taken(qel_pci_hotswap_bridge_enable(&ident)), "0000:04:00.0 ");
    EXPECT_GE(steady_clock::now() - start, milliseconds(60));
    EXPECT_OUTCOME(qel_pci_hotswap_bridge_disable(&ident), {});
    EXPECT_EQ(read_file(dir + "/bridge_enable"), "0\n");
}

TEST_F(qel_pci_hotswap, looks_101_times_and_passes_on_what_fails)
{
    const auto all_fail = [](const sysfs_pci_identity_t *id, int error) {
        EXPECT_OUTCOME(qel_pci_hotswap_bridge_usable(id), {.value = -1, .error = error});
        EXPECT_OUTCOME(qel_pci_hotswap_bridge_enable(id), {.value = nullptr, .error = error});
        EXPECT_OUTCOME(qel_pci_hotswap_bridge_disable(id), {.value = -1, .error = error});
    };
    const auto enable = [] { return qel_pci_hotswap_bridge_enable(&ident); };
    all_fail(nobody, -22);
    make_directory(dir);
    all_fail(&ident, ENOENT);
    EXPECT_EQ(system_calls_of(enable)["open"], 1);

    const std::string attribute = dir + "/bridge_enable";
    write_file(attribute, "0\n");
    const auto start = steady_clock::now();
    EXPECT_OUTCOME(enable(), {.value = nullptr, .error = ENODEV});
    EXPECT_GE(steady_clock::now() - start, milliseconds(500));
    auto calls = system_calls_of(enable);
    EXPECT_EQ(calls["open"], 1 + 101);
    EXPECT_EQ(calls["nanosleep"], 100);
    EXPECT_EQ(read_file(attribute), "1\n");

    chassis_sim::bind_mount(attribute, attribute);
    ASSERT_EQ(mount("", attribute.c_str(), "", MS_REMOUNT | MS_BIND | MS_RDONLY, ""), 0);
    all_fail(&ident, EROFS);
    umount(attribute.c_str());
    chassis_sim::background([] { // a bridge that leaves while it is watched
        std::this_thread::sleep_for(milliseconds(40));
        fs::rename(dir, "/sys/gone");
    });
    EXPECT_OUTCOME(enable(), {.value = nullptr, .error = ENOENT});
}

//--- failing system calls -------------------------------------------------------------------------

TEST_F(pci_sysfs, passes_on_the_error_of_any_call_that_fails)
{
    const function_on_bus bridge(windows{{0, 0x1000}, {0, 0x2000}, {0, 0x80}});
    add("0000:04:00.0", ident.str);
    write_file(dir + "/bridge_enable", "0\n");
    make_directory(dir + "/directory");
    static int64_t nums[2];
    static char text[8];
    static void *bars[6];
    const std::vector<std::string> of_kind = {"open " + dir + "/config", "pread", "allocation"};
    const auto freed = [](void *block) { return std::free(block), block != nullptr; };
    const promise promises[] = {
        {"path", [=] { return freed(sysfs_pci_abspath(nullptr, 9, "enable", &ident)); }, false},
        {"access", [] { return sysfs_pci_access("enable", W_OK, &ident); }, -1},
        {"open", [] { return sysfs_pci_open("enable", O_RDWR, &ident); }, -1},
        {"text", [] { return sysfs_pci_show(text, 8, nullptr, "enable", &ident); }, nullptr},
        {"none", [] { return sysfs_pci_show(text, 8, nullptr, "directory", &ident); }, nullptr},
        {"block", [=] { return freed(sysfs_pci_show(nullptr, 0, nullptr, "enable", &ident)); }, 0},
        {"number", [] { return sysfs_pci_show_nums(nums, 1, "enable", &ident); }, -1},
        {"numbers", [] { return sysfs_pci_show_nums(nums, 2, "enable", &ident); }, -1},
        {"store", [] { return sysfs_pci_store("1", "enable", &ident); }, -1},
        {"store a number", [] { return sysfs_pci_store_num(1, "enable", &ident); }, -1},
        {"list", [=] { return freed(sysfs_pci_list()); }, false},
        {"children", [=] { return freed(sysfs_pci_children_list(&ident)); }, false},
        {"map", [] { return sysfs_pci_mmap(bars, 0, &ident); }, -1, of_kind},
        {"usable", [] { return qel_pci_hotswap_bridge_usable(&ident); }, -1},
        {"enable", [=] { return freed(qel_pci_hotswap_bridge_enable(&ident)); }, false},
        {"disable", [] { return qel_pci_hotswap_bridge_disable(&ident); }, -1},
    };
    for (const promise &promised : promises)
        hold(promised);
}

} // namespace

// What the three storages of the POD log have in common: each case runs on each of them.
#include "sim/chassis.h"
#include "support/captured_output.h"
#include "support/pod_image.h"
#include "support/pod_log_calls.h"
#include "support/system_calls.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <sstream>
#include <vector>

#include <dlfcn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

//--- the world around the library -----------------------------------------------------------------

namespace
{

time_t now = 1700000000;

// After so many writes the storage refuses, or the process dies.
int writes_left = -1;
bool dies = false;
bool was_cut = false;

bool cut()
{
    if (writes_left < 0 || writes_left-- > 0)
        return false;
    writes_left = 0;
    was_cut = true;
    if (dies)
        ::raise(SIGKILL);
    return true;
}

} // namespace

// The library's calls come here first.
extern "C" time_t time(time_t *) noexcept
{
    return now;
}

extern "C" ssize_t pwrite(int fd, const void *data, size_t size, off_t position)
{
    static const auto real = reinterpret_cast<ssize_t (*)(int, const void *, size_t, off64_t)>(
        ::dlsym(RTLD_NEXT, "pwrite64"));
    if (!cut())
        return real(fd, data, size, position);
    errno = EIO;
    return -1;
}

namespace
{

using test_support::captured_output;
using test_support::difference;
using test_support::little_endian;
using test_support::pod_entry;
using test_support::pod_header;
using test_support::words;

std::string cat(std::initializer_list<std::string_view> parts)
{
    std::string text;
    for (std::string_view part : parts)
        text += part;
    return text;
}

//--- the storages ---------------------------------------------------------------------------------

constexpr size_t eeprom_size = 8300;
uint8_t *eeprom; // shared with children
int eeprom_reads;
int eeprom_writes;

int read_eeprom(uint32_t offset, uint8_t *buffer, uint32_t size)
{
    ++eeprom_reads;
    if (offset >= eeprom_size)
        return 0;
    size = std::min(size, static_cast<uint32_t>(eeprom_size) - offset);
    std::memcpy(buffer, eeprom + offset, size);
    return static_cast<int>(size);
}

int write_eeprom(uint32_t offset, uint8_t *buffer, uint32_t size)
{
    ++eeprom_writes;
    if (cut() || offset >= eeprom_size)
        return 0;
    std::memcpy(eeprom + offset, buffer, std::min<size_t>(size, eeprom_size - offset));
    return static_cast<int>(size);
}

struct backend : test_support::pod_log_calls {
    const char *name;
    const char *path; // NULL: the EEPROM
    uint32_t magic;
    uint32_t first_header;
    uint32_t history_size;
    int histories;
};

void PrintTo(const backend &b, std::ostream *stream)
{
    *stream << b.name;
}

const backend backends[] = {
    {POD_LOG_CALLS(nvram, nullptr), "nvram", "/dev/nvlog-pod", 0x1FE2C365, 48, 1600, 10},
    {POD_LOG_CALLS(file, podlog_file_read_raw_log), "file", "/var/pod/pod_alsw1.hex", 0x1FE2C363,
     44, 1635, 10},
    {POD_LOG_CALLS(eeprom, podlog_eeprom_read_raw_log), "eeprom", nullptr, 0x1FE2C363, 44, 4080, 2},
};

class pod_log_storage : public testing::TestWithParam<backend>
{
protected:
    const backend &b = GetParam();
    const bool is_nvram = b.first_header == 48;
    const std::string prefix = std::string("podlog_") + b.name + "_";

    void SetUp() override
    {
        chassis_sim::enter_private_root();
        eeprom = static_cast<uint8_t *>(::mmap(nullptr, eeprom_size, PROT_READ | PROT_WRITE,
                                               MAP_SHARED | MAP_ANONYMOUS, -1, 0));
        podlog_bind_eeprom_access_func(0, read_eeprom, write_eeprom);
        set_contents("");
    }

    void set_contents(std::string bytes) const
    {
        bytes.resize(b.path ? 16384 : eeprom_size);
        if (b.path)
            chassis_sim::write_file(b.path, bytes);
        else
            std::memcpy(eeprom, bytes.data(), bytes.size());
    }

    std::string contents() const
    {
        if (!b.path)
            return std::string(reinterpret_cast<char *>(eeprom), eeprom_size);
        std::ostringstream bytes;
        bytes << std::ifstream(b.path).rdbuf();
        return bytes.str();
    }

    uint32_t header_at(int history) const
    {
        return b.first_header + static_cast<uint32_t>(history) * b.history_size;
    }
    uint32_t entry_at(int history, int number) const
    {
        return header_at(history) + 20 + static_cast<uint32_t>(number) * 80;
    }

    std::string index_record(uint32_t current) const
    {
        return index_record(current, b.history_size);
    }
    std::string index_record(uint32_t current, uint32_t size) const
    {
        return is_nvram ? test_support::checked_pod_index(b.magic, current, size)
                        : words({b.magic, current, size});
    }

    // What a reset makes of zeros.
    std::string formatted() const
    {
        std::string image(b.path ? 16384 : eeprom_size, '\0');
        put(image, 32, index_record(0));
        for (int i = 0; i < b.histories; ++i)
            put(image, header_at(i), empty_header(i));
        for (uint32_t i = 0; is_nvram && i < 8; ++i)
            put(image, 16312 + 4 * i, words({0x80000000}));
        return image;
    }

    std::string empty_header(int history) const { return header_with(history, 0); }
    std::string header_with(int history, int entries) const
    {
        return pod_header(b.history_size, static_cast<uint32_t>(entries) * 80,
                          entry_at(history, 0));
    }

    static void put(std::string &image, size_t position, const std::string &record)
    {
        if (image.size() < position + record.size())
            image.resize(position + record.size());
        image.replace(position, record.size(), record);
    }

    int add(const char *level, const char *diag, const char *ret, const char *fmt, ...) const
    {
        va_list args;
        va_start(args, fmt);
        const int result =
            b.add(0, const_cast<char *>(level), const_cast<char *>(diag), ret, fmt, args);
        va_end(args);
        return result;
    }
    int add(const char *text) const { return add(text, nullptr, nullptr, ""); }

    // Does the work in a child on this image; true if it needed no more than so many writes.
    bool do_cut(const std::string &image, const std::function<int()> &work, int writes,
                bool killed) const
    {
        set_contents(image);
        const pid_t pid = ::fork();
        if (pid == 0) {
            if (!image.empty())
                b.init(0, 0);
            writes_left = writes;
            dies = killed;
            work();
            ::_exit(was_cut);
        }
        int status;
        ::waitpid(pid, &status, 0);
        return WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }

    // All entries of all histories, newest history first: "HISTORY@TIME: MESSAGE MESSAGE, ".
    std::string read_all() const
    {
        std::string all;
        time_t ts = -1;
        std::vector<int> histories;
        for (int history = b.open_dir(0); history >= 0; history = b.read_dir(0, history, &ts))
            histories.push_back(history);
        if (!histories.empty())
            b.close_dir(0);
        for (int history : histories) {
            all += std::to_string(history) + ":";
            int position = b.open_log(0, history);
            for (int limit = 1000; position > 0 && limit > 0; --limit) {
                char msg[65] = "";
                position = b.read_log(0, position, &ts, msg, 64);
                all += std::string(" ") + msg;
            }
            b.close(0);
            all += position == -2 ? ", " : " failed, ";
        }
        return all;
    }
};

INSTANTIATE_TEST_SUITE_P(on, pod_log_storage, testing::ValuesIn(backends),
                         [](const auto &kind) { return std::string(kind.param.name); });

//--- what is written ------------------------------------------------------------------------------

TEST_P(pod_log_storage, formats_adds_and_moves_on_byte_for_byte)
{
    ASSERT_EQ(b.init(0, 0), 1);
    std::string image = formatted();
    ASSERT_EQ(difference(contents(), image), "");

    now = 1700000001;
    EXPECT_EQ(add("INFO ", "memtest", "ok", "%d%% of %llx, %s", 50, 0x123456789ULL, "done"), 1);
    now = static_cast<time_t>(0x80000002); // beyond 32 signed bits
    EXPECT_EQ(add("second"), 1);
    put(image, header_at(0), header_with(0, 2));
    put(image, entry_at(0, 0), pod_entry(1700000001, 64));
    put(image, entry_at(0, 0) + 16, "INFO memtest  ok  50% of 123456789, done");
    put(image, entry_at(0, 1), pod_entry(0xFFFFFFFF80000002, 64));
    put(image, entry_at(0, 1) + 16, "second");
    EXPECT_EQ(difference(contents(), image), "");

    // Messages are not cleared, only entry headers, at the fixed distance.
    EXPECT_EQ(b.set_curr_log_status(0, 1), 1);
    for (int i = 0; i < b.histories; ++i)
        EXPECT_EQ(b.use_nxt_log(0), 1);
    put(image, header_at(0), empty_header(0));
    put(image, entry_at(0, 0), std::string(16, '\0'));
    put(image, entry_at(0, 1), std::string(16, '\0'));
    if (b.name == std::string("file"))
        put(image, 0, index_record(0));
    EXPECT_EQ(difference(contents(), image), "");
    EXPECT_EQ(b.use_nxt_log(0), 1);
    put(image, 32, index_record(1));
    EXPECT_EQ(difference(contents(), image), "");
}

TEST_P(pod_log_storage, formatting_clears_an_entry_header_every_80_bytes)
{
    // 276 has its last one exactly at the end, 275 does not; 30 has its first one beyond it.
    const size_t overhead = is_nvram ? 100 : 32;
    std::string path = b.path ? b.path : "";
    for (size_t size : {276u, 275u, 30u}) {
        const size_t mem_size = overhead + 2 * size;
        std::string image(b.path ? 16384 : eeprom_size, '\xFF');
        set_contents(image);
        b.set_pod_info(0, path.data(), static_cast<int>(mem_size), 2, 64, ~0u);
        {
            const captured_output output;
            ASSERT_EQ(b.init(0, 0), 1);
            b.close(0);
        }
        if (is_nvram) {
            for (size_t i = 0; i < 8; ++i)
                put(image, mem_size - 72 + 4 * i, words({0x80000000}));
            put(image, mem_size - 40, words({0}));
        }
        put(image, 32, index_record(0, static_cast<uint32_t>(size)));
        for (size_t header : {size_t{b.first_header}, b.first_header + size}) {
            const size_t end = header + size;
            for (size_t p = header + 20; p == header + 20 || p + 16 <= end; p += 80)
                put(image, p, std::string(16, '\0'));
            put(image, header,
                pod_header(static_cast<uint32_t>(size), 0, static_cast<uint32_t>(header) + 20));
        }
        EXPECT_EQ(difference(contents(), image), "") << size;
    }
}

TEST_P(pod_log_storage, composes_the_message_within_64_bytes)
{
    const auto of = [](char c, size_t count) { return std::string(count, c); };
    const struct {
        std::string level, diag, ret, text;
        std::string message; // what is stored, with a NUL behind it
    } cases[] = {
        {"", "", "", "", ""},
        {"L", "", "r", "t", "Lr  t"},
        {"L", of('d', 100), "r", "t", cat({"L", of('d', 61), " "})},
        {"L", of('d', 59), "r", "t", cat({"L", of('d', 59), "  t"})},
        {"L", of('d', 58), "rr", "t", cat({"L", of('d', 58), "  r "})},
        {of('x', 61), "dd", "r", "t", of('x', 61) + "d "},
        {of('x', 62), "d", "r", "tu", of('x', 62) + "t"},
        {of('x', 63), "d", "r", "t", of('x', 63)},
        {of('x', 64), "d", "r", "t", of('x', 63)},
        {"ab", "", "", of('t', 64), cat({"ab", of('t', 61)})},
        {"", "", "", of('t', 64), of('t', 63)},
    };
    ASSERT_EQ(b.init(0, 0), 1);
    for (const auto &c : cases) {
        std::string image = formatted();
        std::string area(64, '#'); // what an earlier entry left
        put(image, entry_at(0, 0) + 16, area);
        set_contents(image);
        EXPECT_EQ(add(c.level.c_str(), c.diag.c_str(), c.ret.c_str(), "%s", c.text.c_str()), 1);
        put(area, 0, c.message + '\0');
        EXPECT_EQ(contents().substr(entry_at(0, 0) + 16, 64), area) << c.message;
    }
}

TEST_P(pod_log_storage, overwrites_the_last_entry_of_a_full_history)
{
    ASSERT_EQ(b.init(0, 0), 1);
    const int room = static_cast<int>((b.history_size - 20 - 1) / 80);
    for (int i = 1; i < room; ++i)
        ASSERT_EQ(add("entry"), 1) << i;
    std::string image = contents();
    for (const char *text : {"last", "late"}) {
        EXPECT_EQ(add(text), 0);
        put(image, entry_at(0, room - 1), pod_entry(static_cast<uint64_t>(now), 64));
        put(image, entry_at(0, room - 1) + 16, std::string(text) + '\0');
        EXPECT_EQ(difference(contents(), image), ""); // the header still counts one less
    }
    const uint32_t end = header_at(0) + b.history_size;
    EXPECT_LE(entry_at(0, room), end) << "the last entry fits";
    EXPECT_GE(entry_at(0, room + 1), end) << "no further one would";
}

//--- what is read ---------------------------------------------------------------------------------

TEST_P(pod_log_storage, walks_histories_newest_first_and_entries_oldest_first)
{
    ASSERT_EQ(b.init(0, 0), 1);
    now = 1000;
    EXPECT_EQ(add("old"), 1);
    for (int i = 1; i < b.histories; ++i)
        b.use_nxt_log(0);
    now = static_cast<time_t>(0x90000000);
    EXPECT_EQ(add("new"), 1);
    EXPECT_EQ(add("newer"), 1);
    b.close(0);

    const int last = b.histories - 1;
    time_t ts = -1;
    EXPECT_EQ(b.open_dir(0), last);
    EXPECT_EQ(b.read_dir(0, last, &ts), 0);
    EXPECT_EQ(ts, static_cast<time_t>(0x90000000u)) << "32 bits without sign";
    EXPECT_EQ(b.read_dir(0, 0, &ts), -2);
    EXPECT_EQ(ts, 1000);
    EXPECT_EQ(b.close_dir(0), 1);
    EXPECT_EQ(read_all(), std::to_string(last) + ": new newer, 0: old, ");

    char msg[4] = "###";
    const int first = b.open_log(0, last);
    EXPECT_EQ(first, static_cast<int>(entry_at(last, 0)));
    EXPECT_EQ(b.read_log(0, first, &ts, msg, 2), static_cast<int>(entry_at(last, 1)));
    EXPECT_STREQ(msg, "ne#");
    EXPECT_EQ(b.read_log(0, first, &ts, msg, 0), -1);
    if (b.read_raw_log) {
        const auto raw = std::make_unique<uint8_t[]>(80);
        EXPECT_EQ(b.read_raw_log(0, first + 80, raw.get()), -2);
        EXPECT_EQ(std::string(reinterpret_cast<char *>(raw.get()), 80),
                  contents().substr(entry_at(last, 1), 80));
    }
    b.close(0);
    EXPECT_EQ(b.open_log(0, last + 1), -1);
    EXPECT_EQ(b.open_log(0, -2), -1);

    // Entering a history empties it; an empty one is passed over, and 0 is its time.
    ASSERT_EQ(b.init(0, 0), 1);
    b.use_nxt_log(0);
    b.close(0);
    EXPECT_EQ(read_all(), std::to_string(last) + ": new newer, ");
    EXPECT_EQ(b.open_log(0, 0), -1);
    ASSERT_EQ(b.open_dir(0), last);
    EXPECT_EQ(b.read_dir(0, 0, &ts), b.histories == 2 ? -2 : last);
    EXPECT_EQ(ts, 0);
    b.close_dir(0);

    // A bad header of the current history ends the search.
    std::string image = contents();
    image[header_at(0)] ^= 1;
    set_contents(image);
    EXPECT_EQ(b.open_dir(0), is_nvram ? -1 : -2);
    set_contents(formatted());
    EXPECT_EQ(b.open_dir(0), -2);
}

TEST_P(pod_log_storage, looks_at_checksums_and_nothing_else)
{
    std::string image = formatted();
    std::string header = words({b.history_size, 80, 0x9999, entry_at(0, 0)}); // another version
    put(image, header_at(0), words({test_support::cksum(header)}) + header);
    put(image, entry_at(0, 0), pod_entry(5, 64));
    put(image, entry_at(0, 0) + 16, "changed");
    put(image, entry_at(1, 0), pod_entry(6, 64)); // in a history that says it is empty
    set_contents(image);
    EXPECT_EQ(read_all(), "0: changed, ");
    image[entry_at(0, 0) + 12] ^= 1;
    set_contents(image);
    EXPECT_EQ(read_all(), "");
}

TEST_P(pod_log_storage, dumps_histories_newest_first)
{
    ASSERT_EQ(b.init(0, 0), 1);
    now = 86400 * 200;
    add("one");
    add("two");
    b.use_nxt_log(0);
    now += 60;
    add("three");
    const std::string epoch = is_nvram ? "" : "    timestamp: epoch time ";
    const auto line = [&](long time, const std::string &message) {
        char date[26];
        const time_t t = time;
        return (is_nvram ? "" : epoch + std::to_string(time) + ": ") +
               "    timestamp: " + ctime_r(&t, date) + ": msg = " + message + "\n";
    };
    const std::string first = line(17280000, "one") + line(17280000, "two");
    const std::string second = line(17280060, "three");

    captured_output output;
    EXPECT_EQ(b.dump_log_msgs(0, 0), 1);
    EXPECT_EQ(output.take_stdout(), first);
    EXPECT_EQ(b.dump_curr_log_msgs(0), 1);
    EXPECT_EQ(output.take_stdout(), prefix + "dump_curr_log_msgs: curr log =1 \n" + second);
    b.close(0);
    EXPECT_EQ(b.dump_all_log_msgs(0), 1);
    const auto title = [](int n) {
        return cat({"-------- history/subblock = ", std::to_string(n), " --------\n"});
    };
    std::string all = is_nvram ? "-------- starting history/subblock = 1 --------\n" : "";
    all += title(1) + second + title(0) + first;
    for (int i = b.histories - 1; i > 1; --i)
        all += title(i);
    EXPECT_EQ(output.take_stdout(), all);

    // A message without NUL, longer than the pieces it is read in, and a chain that then leaves
    // the storage.
    std::string image = formatted();
    put(image, header_at(0), header_with(0, 1));
    put(image, entry_at(0, 0), pod_entry(5, 0x7FFFFFFF));
    put(image, entry_at(0, 0) + 16, std::string(700, 'm') + '\0');
    set_contents(image);
    ASSERT_EQ(b.init(0, 1), 1);
    output.take_stdout();
    EXPECT_EQ(b.dump_log_msgs(0, 0), -1);
    EXPECT_EQ(output.take_stdout(), line(5, std::string(700, 'm')));
    EXPECT_EQ(b.dump_log_msgs(0, 1), 1) << "nothing there";
    b.close(0);
    EXPECT_EQ(b.dump_all_log_msgs(0), is_nvram ? -1 : 1);
    EXPECT_EQ(b.init(0, 1), 1) << "closed by the dump";
}

//--- what is said ---------------------------------------------------------------------------------

TEST_P(pod_log_storage, reports_a_bad_index)
{
    const std::string invalid = cat({"ERROR: ", b.name, "_get_curr_log_hdr_pos: invalid index!\n"});
    const std::string limit = std::to_string(b.histories);
    ASSERT_EQ(b.init(0, 0), 1);
    captured_output output;
    std::string image = formatted();
    put(image, 32, index_record(static_cast<uint32_t>(b.histories)));
    set_contents(image);
    EXPECT_EQ(add("x"), -1);
    EXPECT_EQ(output.take_stderr(),
              is_nvram ? "ERROR: get_curr_log_hdr_pos: index 10 out of range!\n" : invalid);
    EXPECT_EQ(b.dump_log_msgs(0, b.histories), -1);
    EXPECT_EQ(output.take_stderr(), cat({"ERROR: ", b.name, "_get_log_hdr_pos: invalid index ",
                                         limit, "; must less than ", limit, "!\n"}));

    put(image, 32, words({0x12345678, 0}));
    set_contents(image);
    EXPECT_EQ(add("x"), -1);
    EXPECT_EQ(output.take_stderr(), is_nvram ? "" : invalid);
    EXPECT_EQ(b.set_curr_log_status(0, 0), -1);
    EXPECT_EQ(b.use_nxt_log(0), 1);
    EXPECT_EQ(difference(contents(), image), "") << "nothing changed";
    EXPECT_EQ(b.dump_log_msgs(0, 0), -1);
    EXPECT_EQ(output.take_stderr(),
              is_nvram ? "nvram_get_log_hdr_pos: unexpected magic number 0x12345678. canot not get "
                         "the index from the structure!"
                       : "");

    put(image, 32, index_record(0, b.history_size + 16));
    set_contents(image);
    EXPECT_EQ(add("x"), is_nvram ? -1 : 1);
    EXPECT_EQ(output.take_stderr(),
              is_nvram ? "get_curr_log_hdr_pos: corrupted log size 0x650 in the structure!\n" : "");
    EXPECT_EQ(output.take_stdout(), "");
}

TEST_P(pod_log_storage, ids_without_a_device_fail_and_change_nothing)
{
    for (int id : {-1, 6 + 11 * (b.path != nullptr), 1000000, INT_MIN, INT_MAX}) {
        char name[] = "/var/pod/none";
        time_t ts = 7;
        char msg[8];
        va_list none = {};
        b.set_pod_info(id, name, 100, 1, 64, 0);
        EXPECT_EQ(b.init(id, 0), -1);
        EXPECT_EQ(b.reset(id), -1);
        EXPECT_EQ(b.add(id, nullptr, nullptr, nullptr, "", none), -1);
        EXPECT_EQ(b.use_nxt_log(id), -1);
        EXPECT_EQ(b.set_curr_log_status(id, 1), -1);
        EXPECT_EQ(b.open_dir(id), -1);
        EXPECT_EQ(b.read_dir(id, 0, &ts), -1);
        EXPECT_EQ(b.open_log(id, 0), -1);
        EXPECT_EQ(b.read_log(id, 0, &ts, msg, sizeof msg), -1);
        EXPECT_EQ(b.dump_log_msgs(id, 0), -1);
        EXPECT_EQ(b.dump_all_log_msgs(id), -1);
        b.close(id);
    }
    podlog_bind_eeprom_access_func(6, read_eeprom, write_eeprom);
    EXPECT_EQ(podlog_eeprom_init(6, 0), -1);
    EXPECT_EQ(difference(contents(), std::string(b.path ? 16384 : eeprom_size, '\0')), "");
}

//--- what it costs --------------------------------------------------------------------------------

TEST_P(pod_log_storage, an_add_is_3_reads_and_3_writes_and_a_read_3_reads)
{
    ASSERT_EQ(b.init(0, 0), 1);
    add("one");
    const int position = static_cast<int>(entry_at(0, 0));
    time_t ts;
    char msg[64];
    const auto one_add = [&] { add("INFO ", "memtest", "ok", "%d", 5); };
    const auto one_read = [&] { b.read_log(0, position, &ts, msg, sizeof msg); };
    const auto adding = test_support::count_system_calls(one_add);
    const auto reading = test_support::count_system_calls(one_read);
    if (b.path) {
        EXPECT_EQ(test_support::text(adding), "pread:3 pwrite:3 ");
        EXPECT_EQ(test_support::text(reading), "pread:3 ");
        return;
    }
    EXPECT_EQ(test_support::text(adding) + test_support::text(reading), "");
    eeprom_reads = eeprom_writes = 0;
    one_add();
    EXPECT_EQ(eeprom_reads, 3);
    EXPECT_EQ(eeprom_writes, 3);
    one_read();
    EXPECT_EQ(eeprom_reads, 6);
}

//--- what a crash leaves --------------------------------------------------------------------------

TEST_P(pod_log_storage, survives_being_cut_between_any_two_writes)
{
    // Three small histories; the oldest is the one after the current one.
    std::string path = b.path ? b.path : "";
    b.set_pod_info(0, path.data(), (is_nvram ? 100 : 32) + 3 * 416, 3, 64, ~0u);
    const std::string older = "1: older, ";
    const std::string oldest = "0: oldest, ";
    ASSERT_EQ(b.init(0, 0), 1);
    const std::string empty = contents();
    for (const char *text : {"oldest", "older"}) {
        add(text);
        b.use_nxt_log(0);
    }
    add("one");
    b.close(0);
    const std::string filled = contents();
    const std::string untouched = cat({"2: one, ", older, oldest});
    ASSERT_EQ(read_all(), untouched);

    const struct {
        const char *name;
        std::string before;
        std::function<int()> work;
        std::vector<std::string> left; // after 0, 1, ... writes; the last for all further ones
    } operations[] = {
        {"add",
         filled,
         [&] { return add("two"); },
         {untouched, cat({"2: one , ", older, oldest}), cat({"2: one two, ", older, oldest})}},
        {"first add", empty, [&] { return add("one"); }, {"", "", "", "0: one, "}},
        {"use_nxt_log",
         filled,
         [&] { return b.use_nxt_log(0); },
         {untouched, cat({oldest, "2: one, ", older}), cat({"2: one, ", older})}},
        {"reset", filled, [&] { return b.reset(0); }, {}},
        {"format", "", [&] { return b.init(0, 0); }, {}},
    };
    for (const auto &operation : operations) {
        bool finished = false;
        for (size_t writes = 0; !finished; ++writes) {
            ASSERT_LT(writes, 100u);
            for (bool killed : {false, true}) {
                const std::string where =
                    cat({operation.name, " cut after ", std::to_string(writes)});
                std::optional<captured_output> output(std::in_place);
                finished =
                    do_cut(operation.before, operation.work, static_cast<int>(writes), killed);
                const std::string found = read_all();
                const int opened = b.init(0, 0);
                const bool half_formatted = operation.before.empty() && writes > 0 && !finished;
                if (half_formatted)
                    b.use_nxt_log(0); // makes a good header
                const int added = add("again");
                b.close(0);
                output.reset();

                EXPECT_EQ(found.find("failed"), std::string::npos) << where << found;
                if (!operation.left.empty()) {
                    EXPECT_EQ(found, operation.left[std::min(writes, operation.left.size() - 1)])
                        << where;
                }
                EXPECT_EQ(opened, half_formatted && is_nvram ? -1 : 1) << where;
                EXPECT_EQ(added, opened) << where;
            }
        }
    }
}

//--- hostile contents -----------------------------------------------------------------------------

TEST_P(pod_log_storage, bears_any_numbers_behind_right_checksums)
{
    const uint32_t numbers[] = {0,          1,          16,         31,         64,
                                0x3FFF,     0x7FFFFFC0, 0x7FFFFFFF, 0x80000000, 0xFFFFF800,
                                0xFFFFFFB0, 0xFFFFFFF0, 0xFFFFFFFF};
    const auto use_everything = [this] {
        read_all();
        b.dump_all_log_msgs(0);
        if (b.init(0, 0) != 1)
            return;
        time_t ts;
        const auto raw = std::make_unique<uint8_t[]>(80);
        const auto msg = std::make_unique<char[]>(5);
        for (uint32_t position : {entry_at(0, 0), 0u, 16380u, 0x7FFFFFFFu, 0x80000000u, ~0u}) {
            b.read_log(0, static_cast<int>(position), &ts, msg.get(), 5);
            if (b.read_raw_log)
                b.read_raw_log(0, static_cast<int>(position), raw.get());
        }
        if (!b.path)
            podlog_eeprom_add_raw_log(0, raw.get());
        for (int i = 0; i < 3; ++i) {
            add("INFO ", "memtest", "ok", "%d", i);
            b.use_nxt_log(0);
        }
        b.close(0);
    };
    std::string good = formatted();
    put(good, header_at(0), header_with(0, 1));
    put(good, entry_at(0, 0), pod_entry(5, 64));
    const captured_output output;
    for (uint32_t number : numbers) {
        const auto bear = [&](size_t position, const std::string &record) {
            std::string image = good;
            put(image, position, record);
            set_contents(image);
            use_everything();
        };
        bear(32, index_record(number));
        bear(32, index_record(1, number));
        bear(header_at(0), pod_header(number, 80, entry_at(0, 0)));
        bear(header_at(0), pod_header(b.history_size, number, entry_at(0, 0)));
        bear(header_at(0), pod_header(b.history_size, 80, number));
        bear(header_at(0), pod_header(number, number, number));
        bear(entry_at(0, 0), pod_entry(number * uint64_t{0x100000001}, number));
    }

    // An entry that leads back to itself ends the chain as one that cannot be read.
    put(good, entry_at(0, 0), pod_entry(5, 0xFFFFFFF0));
    set_contents(good);
    EXPECT_EQ(read_all(), "0:  failed, ");
    // The bytes in use are signed where the first entry is looked up.
    put(good, header_at(0), pod_header(b.history_size, 0x80000000, entry_at(0, 0)));
    set_contents(good);
    EXPECT_EQ(b.open_log(0, 0), -1);
    put(good, header_at(0), header_with(0, 1));
    // Of a message longer than the message area, a raw read takes what the area has.
    put(good, entry_at(0, 0), pod_entry(5, 1000));
    set_contents(good);
    if (!b.read_raw_log)
        return;
    const auto raw = std::make_unique<uint8_t[]>(80);
    ASSERT_GT(b.open_log(0, 0), 0);
    EXPECT_EQ(b.read_raw_log(0, static_cast<int>(entry_at(0, 0)), raw.get()), -2);
    b.close(0);
}

TEST_P(pod_log_storage, bears_any_configuration)
{
    const captured_output output;
    std::string path = b.path ? b.path : "";
    for (int histories : {0, -1, INT_MIN, 1}) {
        for (int mem_size : {16384, 0, 40, 120, -1, INT_MIN}) {
            for (int msg_size : {64, 0, -1, INT_MIN, INT_MAX}) {
                set_contents("");
                b.set_pod_info(0, path.data(), mem_size, histories, msg_size, ~0u);
                b.init(0, 0);
                add("INFO ", "memtest", "ok", "%d", 1);
                b.use_nxt_log(0);
                b.close(0);
                EXPECT_EQ(read_all().find("failed"), std::string::npos);
            }
        }
    }
}

} // namespace

// The three storages of the POD log: what they have in common, each case on each of them; what a
// failing call, a cut and a flipped bit leave; then what only one of them has.
#include "support/pod_log.h"
#include "support/sweep.h"
#include "support/test.h"

#include <device_access/pod_log_crc_tmp.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <filesystem>
#include <map>
#include <memory>
#include <sstream>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

using namespace test;
namespace fs = std::filesystem;
using chassis_sim::pod_entry;
using chassis_sim::pod_header;
using chassis_sim::write_file;

constexpr size_t index_position = chassis_sim::pod_index_position;
const std::string unknown_magic =
    "nvram_get_log_hdr_pos: unexpected magic number 0x7. canot not get the index from the structure!";

class storage : public testing::TestWithParam<pod_storage>
{
protected:
    pod_storage s = GetParam();
    const bool is_file = s.name == "file";
    const bool is_eeprom = s.path.empty();

    void SetUp() override
    {
        chassis_sim::enter_private_root();
        ::setenv("TZ", "UTC0", 1);
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
    DOES(s.add_parts("INFO ", "memtest", "ok", "%d%% of %llx, %s", 50, 0x123456789ULL, "done"), 1);
    now = static_cast<time_t>(0x80000002); // beyond 32 signed bits
    DOES(s.add_text("second"), 1);
    image = s.image(0, {{{1700000001, "INFO memtest  ok  50% of 123456789, done"},
                         {0xFFFFFFFF80000002, "second"}}});
    EXPECT_EQ(difference(read_file(s.path), image), "");

    // Messages are not cleared, only entry headers, at the fixed distance.
    DOES(s.set_curr_log_status(0, 1), 1);
    for (uint32_t i = 0; i < s.layout.histories; ++i)
        DOES(s.use_nxt_log(0), 1);
    put(image, s.header_at(0), s.image().substr(s.header_at(0), 36));
    put(image, s.entry_at(0, 1), std::string(16, '\0'));
    put(image, 0, is_file ? s.index(0) : "");
    EXPECT_EQ(difference(read_file(s.path), image), "");
    DOES(s.use_nxt_log(0), 1);
    put(image, index_position, s.index(1));
    EXPECT_EQ(difference(read_file(s.path), image), "");
}

TEST_P(storage, formatting_clears_an_entry_header_every_80_bytes)
{
    // 276 has its last one exactly at the end, 275 does not; 30 has its first one beyond it.
    for (const auto &[size, slots] : {std::pair{276u, 4u}, {275u, 3u}, {30u, 1u}}) {
        s.describe(2, size);
        std::string image(s.layout.size, '\xFF');
        open(image);
        s.close(0);
        put(image, index_position, s.index(0));
        put(image, s.layout.status_position,
            s.is_nvram() ? s.image().substr(s.layout.status_position, 36) : "");
        for (uint32_t history : {0u, 1u}) {
            for (uint32_t slot = 0; slot < slots; ++slot)
                put(image, s.entry_at(history, slot), std::string(16, '\0'));
            put(image, s.header_at(history), pod_header(size, 0, s.entry_at(history, 0)));
        }
        EXPECT_EQ(difference(read_file(s.path), image), "") << size;
    }
}

TEST_P(storage, composes_the_message_within_64_bytes)
{
    const auto of = [](char c, size_t count) { return std::string(count, c); };
    const std::array<std::string, 5> cases[] = {
        {"", "", "", "", ""},
        {"L", "", "r", "t", "Lr  t"},
        {"L", of('d', 100), "r", "t", 'L' + of('d', 61) + ' '},
        {"L", of('d', 58), "rr", "t", 'L' + of('d', 58) + "  r "},
        {of('x', 61), "dd", "r", "t", of('x', 61) + "d "},
        {of('x', 62), "d", "r", "tu", of('x', 62) + "t"},
        {of('x', 64), "d", "r", "t", of('x', 63)},
        {"ab", "", "", of('t', 64), "ab" + of('t', 61)},
    };
    std::string image = s.image();
    put(image, s.entry_at(0, 0) + 16, of('#', 64)); // what an earlier entry left
    for (const auto &[level, diag, ret, text, message] : cases) {
        open(image);
        DOES(s.add_parts(level.c_str(), diag.c_str(), ret.c_str(), "%s", text.c_str()), 1);
        s.close(0);
        std::string area = of('#', 64);
        put(area, 0, message + '\0');
        EXPECT_EQ(read_file(s.path).substr(s.entry_at(0, 0) + 16, 64), area) << message;
    }
}

TEST_P(storage, overwrites_the_last_entry_of_a_full_history)
{
    // The last entry must leave a byte of its history: 260 bytes have no room for three.
    for (const auto &[size, room] : {std::pair{260u, 2u}, {261u, 3u}, {1600u, 19u}}) {
        s.describe(2, size);
        open(s.image());
        for (uint32_t i = 1; i < room; ++i)
            DOES(s.add_text("entry"), 1);
        std::string image = read_file(s.path);
        for (const char *text : {"last", "late"}) {
            DOES(s.add_text(text), 0);
            put(image, s.entry_at(0, room - 1), pod_entry(static_cast<uint64_t>(now), 64) + text);
            EXPECT_EQ(difference(read_file(s.path), image), ""); // the header still counts one less
        }
        s.close(0);
    }
}

//--- what is read ---------------------------------------------------------------------------------

TEST_P(storage, walks_histories_newest_first_and_entries_oldest_first)
{
    s.describe(3, 416);
    write_file(s.path,
               s.image(1, {{{1000, "old"}}, {{0x90000000, "new"}, {0x90000001, "newer"}}, {}}));
    EXPECT_EQ(s.text(), "1: new|newer, 0: old, ");

    const long held = is_eeprom ? 0 : 1; // descriptors while it is open
    time_t ts = -1;
    DOES(s.open_dir(0), 1, "", "", any_error, held);
    DOES(s.read_dir(0, 1, &ts), 0);
    EXPECT_EQ(ts, static_cast<time_t>(0x90000000u)) << "32 bits without sign";
    DOES(s.read_dir(0, 0, &ts), -2); // the empty history 2 is passed over
    EXPECT_EQ(ts, 1000);
    DOES(s.read_dir(0, 2, &ts), -2);
    EXPECT_EQ(ts, 0);
    DOES(s.close_dir(0), 1, "", "", 0, -held);

    char msg[4] = "###";
    const auto raw = std::make_unique<uint8_t[]>(80);
    const int first = static_cast<int>(s.entry_at(1, 0));
    DOES(s.open_log(0, 1), first, "", "", any_error, held);
    DOES(s.read_log(0, first, &ts, msg, 2), first + 80);
    EXPECT_STREQ(msg, "ne#");
    EXPECT_EQ(s.read_log(0, first, &ts, msg, 0), -1);
    DOES(s.read_log(0, first + 80, &ts, msg, 1), -2);
    EXPECT_EQ(ts, static_cast<time_t>(0x90000001u));
    if (s.read_raw_log) {
        DOES(s.read_raw_log(0, first + 80, raw.get()), -2);
        EXPECT_EQ(std::string(raw.get(), raw.get() + 80),
                  read_file(s.path).substr(s.entry_at(1, 1), 80));
    }
    s.close(0);
    for (int none : {2, 3, -2})
        EXPECT_EQ(s.open_log(0, none), -1);

    write_file(s.path, s.image());
    DOES(s.open_dir(0), -2);

    // Checksums count, and nothing else: neither the version nor entries that are not in use.
    std::string image = s.image();
    const std::string header = words({416, 80, 0x9999, s.entry_at(0, 0)});
    put(image, s.header_at(0), words({chassis_sim::cksum(header)}) + header);
    put(image, s.entry_at(0, 0), pod_entry(5, 64) + "changed");
    put(image, s.entry_at(1, 0), pod_entry(6, 64));
    write_file(s.path, image);
    EXPECT_EQ(s.text(), "0: changed, ");
}

TEST_P(storage, dumps_histories_newest_first)
{
    s.describe(3, 416);
    const auto line = [&](int minute, const std::string &message) {
        return (s.is_nvram() ? "" : printed("    timestamp: epoch time 1728%04d: ", 60 * minute)) +
               printed("    timestamp: Mon Jul 20 00:%02d:00 1970\n: msg = %s\n", minute,
                       message.c_str());
    };
    const auto title = [](const char *what, int history) {
        return printed("-------- %shistory/subblock = %d --------\n", what, history);
    };
    const std::string first = line(0, "one") + line(10, "two");
    const std::string second = line(20, "three");
    open(s.image(1, {{{17280000, "one"}, {17280600, "two"}}, {{17281200, "three"}}}));
    DOES(s.dump_log_msgs(0, 0), 1, "", first);
    DOES(s.dump_curr_log_msgs(0), 1, "",
         printed("podlog_%s_dump_curr_log_msgs: curr log =1 \n", s.name.c_str()) + second);
    s.close(0);
    DOES(s.dump_all_log_msgs(0), 1, "",
         (s.is_nvram() ? title("starting ", 1) : "") + title("", 1) + second + title("", 0) +
             first + title("", 2));

    // A message without NUL, longer than the pieces it is read in, and a chain that then leaves
    // the storage.
    std::string image = s.image(0, {{{17280000, "x"}}});
    put(image, s.entry_at(0, 0), pod_entry(17280000, 0x7FFFFFFF) + std::string(300, 'm') + '\0');
    open(image);
    const outcome seen = outcome_of([&] { return s.dump_log_msgs(0, 0); });
    EXPECT_EQ(seen.value, -1);
    EXPECT_EQ(seen.out, line(0, std::string(300, 'm')));
    s.close(0);
    EXPECT_EQ(outcome_of([&] { return s.dump_all_log_msgs(0); }).value, s.is_nvram() ? -1 : 1);
    open(s.image());
    DOES(s.dump_log_msgs(0, 0), 1);
}

//--- what is said ---------------------------------------------------------------------------------

TEST_P(storage, ids_without_a_device_fail_and_change_nothing)
{
    write_file(s.path, "");
    bind_eeprom<0>(6);
    for (int id : {-1, is_file ? 17 : s.is_nvram() ? 2 : 6, 1000000, INT_MIN, INT_MAX}) {
        time_t ts;
        char msg[8];
        va_list none = {};
        const auto sum_of_all = [&] {
            s.set_pod_info(id, msg, 100, 1, 64, 0);
            s.close(id);
            return s.init(id, 0) + s.reset(id) + s.add(id, nullptr, nullptr, nullptr, "", none) +
                   s.use_nxt_log(id) + s.set_curr_log_status(id, 1) + s.open_dir(id) +
                   s.read_dir(id, 0, &ts) + s.open_log(id, 0) +
                   s.read_log(id, 0, &ts, msg, sizeof msg) + s.dump_log_msgs(id, 0) +
                   s.dump_all_log_msgs(id);
        };
        EXPECT_EQ(outcome_of(sum_of_all).value, -11) << id;
    }
    EXPECT_EQ(read_file(s.path), "");
}

TEST_P(storage, bears_and_reports_numbers_that_make_no_sense)
{
    s.describe(3, 416);
    const uint32_t start = s.entry_at(0, 0);
    const std::string invalid =
        s.is_nvram() ? "ERROR: get_curr_log_hdr_pos: index 3 out of range!\n"
                     : "ERROR: " + s.name + "_get_curr_log_hdr_pos: invalid index!\n";
    pod_storage resized = s;
    resized.layout.history_size = 432;
    const std::tuple<size_t, std::string, std::string, int, std::string> cases[] = {
        {index_position, words({7}), "!", -1, s.is_nvram() ? "" : invalid},
        {index_position, s.index(3), "!", -1, invalid},
        {index_position, resized.index(0), "0: x, ", s.is_nvram() ? -1 : 1,
         s.is_nvram() ? "get_curr_log_hdr_pos: corrupted log size 0x1b0 in the structure!\n" : ""},
        {s.header_at(0), pod_header(0, 80, start), "0: x, ", 0, ""},
        {s.header_at(0), pod_header(0xFFFFFFF0, 80, start), "0: x, ", 0, ""},
        {s.header_at(0), pod_header(416, 0x80000000, start), "!", -1, ""},
        {s.header_at(0), pod_header(416, 80, 0x80000000), "!", -1, ""},
        {start, pod_entry(5, 0x7FFFFFC0) + "x", "0:!, ", 1, ""},
        {start, pod_entry(5, 0xFFFFFFF0) + "x", "0:!, ", 1, ""}, // leads back to itself
        {start, pod_entry(5, 1000) + "x", "0: x, ", 1, ""},
    };
    std::string image = s.image();
    open(image);
    put(image, index_position, words({7}));
    write_file(s.path, image);
    DOES(s.set_curr_log_status(0, 0), -1);
    DOES(s.use_nxt_log(0), 1);
    EXPECT_EQ(difference(read_file(s.path), image), "") << "nothing changed";
    DOES(s.dump_log_msgs(0, 0), -1, s.is_nvram() ? unknown_magic : "");
    DOES(s.dump_log_msgs(0, 3), -1,
         "ERROR: " + s.name + "_get_log_hdr_pos: invalid index 3; must less than 3!\n");
    s.close(0);
    for (const auto &[position, record, found, added, err_of_add] : cases) {
        image = s.image(0, {{{5, "x"}}});
        put(image, position, record);
        write_file(s.path, image);
        EXPECT_EQ(s.text(), found);
        open(s.image());
        write_file(s.path, image);
        DOES(s.add_text("y"), added, err_of_add);
        s.close(0);
    }
}

TEST_P(storage, shows_no_record_that_its_end_cuts_off)
{
    s.describe(1, 196);
    const std::string image = s.image(0, {{{5, "a"}, {6, "b"}}});
    std::string seen;
    std::string last;
    for (uint32_t size = index_position; size <= s.entry_at(0, 2) + 16; ++size) {
        write_file(s.path, image); // what has been read before must not be seen again
        s.text();
        write_file(s.path, image.substr(0, size));
        const std::string found = s.text();
        if (found != last)
            seen += printed("%u %s\n", size, found.c_str());
        last = found;
    }
    // What is cut off counts as 0, as the upper bytes of small numbers are.
    EXPECT_EQ(seen, s.is_nvram() ? "32 !\n69 \n81 0:!, \n149 0: a, \n161 0: a!, \n229 0: a|b, \n"
                                 : "32 !\n45 \n61 !\n65 \n77 0:!, \n145 0: a, \n157 0: a!, \n"
                                   "225 0: a|b, \n");
}

TEST_P(storage, bears_any_configuration)
{
    for (int histories : {0, -1, INT_MIN, 1})
        for (int mem_size : {16384, 0, 40, 120, -1, INT_MIN})
            for (int msg_size : {64, 0, -1, INT_MIN, INT_MAX}) {
                write_file(s.path, std::string(16384, '\0'));
                s.set_pod_info(0, s.path.data(), mem_size, histories, msg_size, ~0u);
                s.init(0, 0);
                s.add_text("x");
                s.use_nxt_log(0);
                s.close(0);
                EXPECT_EQ(s.text().find(": !"), std::string::npos);
            }
}

//--- what a failing call, a cut and a flipped bit leave ------------------------------------------

TEST_P(storage, each_failing_call_gives_the_documented_result)
{
    s.describe(2, 196);
    const std::string filled = s.image(1, {{{5, "a"}}, {{6, "b"}}});
    const std::string blank(s.layout.size, '\0');
    const int first = static_cast<int>(s.entry_at(1, 0));
    time_t ts;
    char msg[26];
    ::ctime_r(&now, msg); // reads the time zone's file before the calls count
    enum { opening, dumping, opened, walking };
    const struct {
        const char *name;
        std::function<result()> call;
        const std::string &before;
        int kind;
        std::string of_nvram; // R, W: reads and writes whose failure gives -1, r, w: the others
        std::string of_others = of_nvram;
    } cases[] = {
        {"init", [&] { return s.init(0, 0); }, filled, opening, "RRR", "R"},
        {"format", [&] { return s.init(0, 0); }, blank, opening, "Rwwwrr4r4", "Rwrr4r4"},
        {"reset", [&] { return s.reset(0); }, filled, opened, "WWWRr4r4", "WRr4r4"},
        {"add", [&] { return s.add_text("x"); }, filled, opened, "RRRWWW"},
        {"next", [&] { return s.use_nxt_log(0); }, filled, opened, "RWRr4"},
        {"status", [&] { return s.set_curr_log_status(0, 0); }, filled, opened, "RW"},
        {"open_dir", [&] { return s.open_dir(0); }, filled, opening, "RRRRrRR", "RRrRR"},
        {"read_dir", [&] { return s.read_dir(0, 1, &ts); }, filled, walking, "RRRRRR"},
        {"open_log", [&] { return s.open_log(0, 1); }, filled, opening, "RRRRRR", "RRRR"},
        {"read_log", [&] { return s.read_log(0, first, &ts, msg, 8); }, filled, opened, "RRR"},
        {"dump", [&] { return s.dump_log_msgs(0, 1); }, filled, opened, "RRRRR"},
        {"curr", [&] { return s.dump_curr_log_msgs(0); }, filled, opened, "RRRRRR"},
        {"all", [&] { return s.dump_all_log_msgs(0); }, filled, dumping, "RRRRRRRRRRRR",
         "Rrrrrrrrrr"},
    };
    for (const auto &c : cases) {
        write_file(s.path, c.before);
        if (c.kind >= opened)
            c.kind == opened ? s.init(0, 0) : s.open_dir(0);
        std::string seen;
        std::string told;
        fail_each_call(EIO, c.call, [&](const run &one) {
            write_file(s.path, c.before);
            const auto &[value, error, err, out, opens] = one.seen;
            const char letter = one.failed[1]; // of pread, pwrite, open, mkdir, close
            const bool fails = value.number < 0;
            if (letter == 'r' || letter == 'w')
                seen += static_cast<char>(fails ? std::toupper(letter) : letter);
            else
                EXPECT_EQ(fails, is_file && letter != 'l') << one;
            EXPECT_EQ(one.blocks, 0) << one;
            EXPECT_EQ(opens, c.kind == opening && !fails && !is_eeprom) << one;
            EXPECT_TRUE(!fails || error == EIO || error == EINVAL) << one;
            // Who has a descriptor of its own says what failed.
            const char *const said = letter == 'r'   ? "_mem_rd: cannot read or reach eof!!"
                                     : letter == 'w' ? "_mem_wr: cannot write"
                                                     : "";
            EXPECT_EQ(err.find(said) == err.npos, is_eeprom) << one;
            told += replaced(err, "ERROR: pod_\\w+_mem_rd: .*\n", "");
        });
        s.close(0);
        const std::string failed = "ERROR: podlog_" + s.name + "_read_dir: failed to ";
        const std::string no_position = failed + "get lg position!\n";
        EXPECT_TRUE(c.kind != walking || told == no_position + no_position + no_position + failed +
                                                     "read log position!\n")
            << told;
        EXPECT_EQ(replaced(seen, "wwww", "4"), s.is_nvram() ? c.of_nvram : c.of_others) << c.name;
    }
}

// Where a storage whose writing was cut differs from one cut a byte earlier: the number of bytes
// that it has got, on NVRAM and on the others (-: not there), then what is found in it, and what
// when one more, "+", is added. The oldest history is the one after the current one.
const char survivors[] = R"(
  0   0 add: 2: c, 1: b, 0: a, -> 2: c|+, 1: b, 0: a, ;
 13  13 add: 2: c|, 1: b, 0: a, -> 2: c|+, 1: b, 0: a, ;
 17  17 add: 2: c|2, 1: b, 0: a, -> 2: c|+, 1: b, 0: a, ;
 19  19 add: damaged
 27  27 add: 2: c|2, 1: b, 0: a, -> 2: c|2|+, 1: b, 0: a, ;
  0   0 first add: -> 0: +, ;
 19  19 first add: damaged
 27  27 first add: 0: 2, -> 0: 2|+, ;
  0   0 next: 2: c, 1: b, 0: a, -> 2: c|+, 1: b, 0: a, ;
  5   - next: damaged
 16   5 next: 0: a, 2: c, 1: b, -> 0: a|+, 2: c, 1: b, ;
 17  13 next: 2: c, 1: b, -> 2: c, 1: b, ;
 97  93 next: damaged
105 101 next: 2: c, 1: b, -> 0: +, 2: c, 1: b, ;
  0   0 reset: 2: c, 1: b, 0: a, -> 2: c|+, 1: b, 0: a, ;
  5   - reset: damaged
 16   5 reset: 0: a, 2: c, 1: b, -> 0: a|+, 2: c, 1: b, ;
 53  13 reset: 2: c, 1: b, -> 2: c, 1: b, ;
133  93 reset: damaged
141 101 reset: 2: c, 1: b, -> 0: +, 2: c, 1: b, ;
153 113 reset: 2: c, -> 0: +, 2: c, ;
233   - reset: damaged
241   - reset: 2: c, -> 0: +, 2: c, ;
253 213 reset: -> 0: +, ;
333   - reset: damaged
341   - reset: -> 0: +, ;
  0   0 format: !-> 0: +, ;
  4   4 format: damaged
350 109 format: -> 0: +, ;
)";

class damaged_storage : public storage
{
protected:
    std::string added; // what state_of() has found after one more add

    std::string state_of(const std::string &image)
    {
        write_file(s.path, image);
        const std::string found = s.text();
        const bool opens = outcome_of([&] { return s.init(0, 0); }).value == 1;
        const bool adds = outcome_of([&] { return s.add_text("+"); }).value.number >= 0;
        output_of([&] { s.close(0); });
        added = adds ? s.text() : "";
        EXPECT_EQ(opens, adds || !s.is_nvram()) << found;
        EXPECT_TRUE(adds || found == (s.is_nvram() ? "!" : "")) << found;
        return adds ? found + "-> " + added + ";" : "damaged";
    }

    // Does the work on this image until it has written so many bytes, in a process of its own if
    // that dies then; whether it was through.
    bool cut(const std::string &image, const std::function<int()> &work, long bytes) const
    {
        write_file(s.path, image);
        const pid_t pid = dies_then ? ::fork() : 0;
        int status = 0;
        if (pid != 0) {
            ::waitpid(pid, &status, 0);
            return status == 0;
        }
        output_of([&] {
            if (image.find_first_not_of('\0') != image.npos)
                s.init(0, 0);
            bytes_left = bytes;
            work();
            status = bytes_left == 0;
            bytes_left = LONG_MAX;
            s.close(0);
        });
        if (dies_then)
            ::_exit(status);
        return status == 0;
    }

    // One more add, cut after each of its bytes, has come, has not come, or has damaged the log.
    void cut_once_more(const std::string &image, const std::string &once)
    {
        const std::string twice = replaced(once, "\\+", "+|+");
        bool through = false;
        for (long bytes = 0; !through; ++bytes) {
            through = cut(
                image, [this] { return s.add_text("+"); }, bytes);
            state_of(read_file(s.path));
            EXPECT_TRUE(added == once || added == twice || added.empty()) << once << added;
        }
    }

    // The rows of an operation.
    std::string cut_everywhere(const char *name, const std::string &before,
                               const std::function<int()> &work)
    {
        std::string rows;
        std::string last;
        bool through = false;
        for (long bytes = 0; !through; ++bytes) {
            through = cut(before, work, bytes);
            const std::string image = read_file(s.path);
            const std::string state = state_of(image);
            if (state != last)
                rows += std::to_string(bytes) + name + state + "\n";
            if (!dies_then && (state != last || bytes % 16 == 0))
                cut_once_more(image, std::string(added));
            last = state;
        }
        return rows;
    }
};

INSTANTIATE_TEST_SUITE_P(on, damaged_storage, testing::ValuesIn(pod_storages), name_of);

TEST_P(damaged_storage, keeps_what_the_table_says_when_it_is_cut_after_any_byte)
{
    s.describe(3, 416);
    const std::string filled = s.image(2, {{{5, "a"}}, {{6, "b"}}, {{7, "c"}}});
    const std::string blank(s.layout.size, '\0');
    std::string expected;
    std::istringstream rows(survivors);
    std::string state;
    for (std::string nvram, others; rows >> nvram >> others && std::getline(rows, state);)
        if (const std::string &from = s.is_nvram() ? nvram : others; from != "-")
            expected += from + state + "\n";
    for (bool dies : {false, true}) {
        dies_then = dies;
        EXPECT_EQ(cut_everywhere(" add: ", filled, [&] { return s.add_text("2"); }) +
                      cut_everywhere(" first add: ", s.image(), [&] { return s.add_text("2"); }) +
                      cut_everywhere(" next: ", filled, [&] { return s.use_nxt_log(0); }) +
                      cut_everywhere(" reset: ", filled, [&] { return s.reset(0); }) +
                      cut_everywhere(" format: ", blank, [&] { return s.init(0, 0); }),
                  expected);
    }
}

TEST_P(storage, shows_nothing_with_a_wrong_checksum)
{
    s.describe(3, 196);
    const std::string image = s.image(2, {{{5, "a"}}, {{6, "b"}}, {{7, "c"}, {8, "d"}}});
    // What is found when a bit is flipped; NVRAM whose index or headers are damaged is not opened.
    const std::tuple<size_t, size_t, std::string> records[] = {
        {s.header_at(0), 20, s.is_nvram() ? "!" : "2: c|d, 1: b, "},
        {s.entry_at(0, 0), 16, "2: c|d, 1: b, "},
        {s.header_at(1), 20, s.is_nvram() ? "!" : "2: c|d, 0: a, "},
        {s.entry_at(1, 0), 16, "2: c|d, 0: a, "},
        {s.header_at(2), 20, s.is_nvram() ? "!" : ""},
        {s.entry_at(2, 0), 16, "1: b, 0: a, "},
        {s.entry_at(2, 1), 16, "2: c, 1: b, 0: a, "},
        {s.entry_at(2, 1) + 80, 16, "2: c|d, 1: b, 0: a, "}, // not in use
    };
    const auto flip = [&](size_t bit) {
        std::string other = image;
        other[bit / 8] = static_cast<char>(other[bit / 8] ^ 1 << bit % 8);
        write_file(s.path, other);
        return s.text();
    };
    for (const auto &[position, size, found] : records)
        for (size_t bit = 8 * position; bit < 8 * (position + size); ++bit)
            EXPECT_EQ(flip(bit), found) << bit;
    std::map<std::string, int> of_index;
    for (size_t bit = 8 * index_position; bit < 8 * (index_position + s.index(0).size()); ++bit)
        ++of_index[flip(bit)];
    for (size_t bit = 8 * (s.entry_at(0, 0) + 16); bit < 8 * s.entry_at(0, 1); ++bit)
        EXPECT_TRUE(flip(bit).starts_with("2: c|d, 1: b, 0: ")) << "no checksum covers a message";
    const std::map<std::string, int> closed = {{"!", 128}};
    const std::map<std::string, int> elsewhere = {{"", 10}, {"!", 85}, {"0: a, 2: c|d, 1: b, ", 1}};
    EXPECT_EQ(of_index, s.is_nvram() ? closed : elsewhere);
}

//--- NVRAM ----------------------------------------------------------------------------------------

class pod_nvram : public testing::Test
{
protected:
    pod_storage s = pod_storages[0];
    std::string good = s.image();

    void SetUp() override
    {
        chassis_sim::enter_private_root();
        s.layout.magic = 7;
    }

    // "instance(ADDRESS)", as what is said of a log that is not open begins.
    std::string instance() const
    {
        const std::string said = output_of([&] { s.close(0); }).out;
        const size_t name = said.find("instance(");
        return said.substr(name, said.find(' ', name) - name);
    }
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
    DOES(s.init(0, 1), 1, "", "", any_error, 1);
    const int held = std::exchange(_nvram_dev_info[0].fd, -1);
    DOES(s.init(0, 0), -1); // a busy device is no news
    ::close(held);
}

TEST_F(pod_nvram, says_why_there_is_no_device)
{
    const std::string no_number = " ERROR: fail to find major/minor number\n";
    int fd = 5;
    const auto open = [&] { return podlog_nvram_open_dev_file(0, &fd, 1); };
    DOES(open(), 0, no_number, " No nvram0 dev file!\n");
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(pauses, 20) << "one after each attempt";
    EXPECT_GE(shortest_pause, 500u);
    EXPECT_LE(longest_pause, 1499u);

    write_file(s.path, "");
    const auto open_as_0 = [&] { // the lowest descriptor is not taken, nor left open
        ::close(0);
        const int result = open();
        return ::open("/dev/null", O_RDONLY) == 0 ? result : -1;
    };
    DOES(open_as_0(), 0, no_number, " No nvram0 dev file!\n");
    fs::remove(s.path);

    for (unsigned int n = 0; n < 21; ++n)
        write_file(chassis_sim::nvram_class_dir(n) + "/name", n == 20 ? "nvlog-pod\n" : "other\n");
    DOES(open(), 0, no_number);
    write_file(chassis_sim::nvram_class_dir(19) + "/name", "nvlog-pod\n");
    DOES(s.init(0, 0), -1, no_number); // no dev attribute
    write_file(chassis_sim::nvram_class_dir(19) + "/dev", "1:3\n");
    const auto configure = [&](std::string node) {
        s.set_pod_info(0, node.data(), 16384, 10, 64, 0xFFFFFFE0);
    };
    configure("/dev/missing/node");
    DOES(s.init(0, 0), -1, "mknod(/dev/missing/node) failed: No such file or directory\n");
    chassis_sim::make_symlink("/dev/dangling", "/dev/missing/node");
    configure("/dev/dangling");
    for (int rdonly : {0, 1})
        DOES(s.init(0, rdonly), -1,
             printed("ERROR: %s cannot open newly created dev file /dev/dangling for %s!\n",
                     instance().c_str(), rdonly ? "read-only" : "read-write"));

    const std::string path = "/dev/" + std::string(35, 'n'); // 40 bytes of a name are kept
    write_file(path, good);
    configure(path + "more");
    DOES(s.init(0, 1), 1, "", "", any_error, 1);
    EXPECT_EQ(std::string(_nvram_dev_info[0].name, 41), path + '\2');
}

TEST_F(pod_nvram, opens_repairs_or_refuses_by_the_state_of_the_index)
{
    const std::string zeros(16384, '\0');
    const std::string other_magic = s.image();
    std::string bad_header = good;
    bad_header[s.header_at(3)] ^= 1;
    std::string bad_checksum = good;
    bad_checksum[36] = 7;
    const std::string dump = "nvram_dump_block_index: \t  magic number = ";
    const std::string zero_dump =
        dump + "0x0 \n\t header index = 0x0\t size = 0x0 \n\t checksum = 0x0\n";
    const std::string zero_crc = "CRC: read = 0x0 expect = 0xcaf3649b\n";
    const std::string warning =
        "WARNING: podlog_nvram_init: Block index structure CRC not matched!\n";
    const std::string reset = "podlog_nvram_reset: reset POD status & fault injection\n";
    const std::tuple<std::string, int, int, std::string, std::string> cases[] = {
        {good, 1, 1, "", ""},
        {zeros, 1, -1, zero_dump,
         "ERROR: podlog_nvram_init: checksum incorrect! cannot open for reading!!\n" + zero_crc +
             "Can not perform best guess for read-only NVRAM region!\n"},
        {zeros, 0, 1, zero_dump + warning + zero_crc + reset, ""},
        {bad_checksum, 0, -1,
         dump + "0x1fe2c365 \n\t header index = 0x7\t size = 0x640 \n\t checksum = 0x7708c70f\n" +
             warning + "CRC: read = 0x7708c70f expect = 0xa089ab53\n",
         ""},
        {bad_header, 0, -1, "", ""},
        {other_magic, 0, -1, "nvram_check_hdr failed to get_log_hdr_pos, nvram_id 0, subblock_id 0",
         unknown_magic},
        {"", 0, -1, "",
         "ERROR: pod_nvram_mem_rd: cannot read or reach eof!! range=0x20-0x2f\n"
         "ERROR: canot read magic number for NVRAM!\n"},
    };
    for (const auto &[image, rdonly, result, out, err] : cases) {
        write_file(s.path, image);
        pauses = 0;
        DOES(s.init(0, rdonly), result, err, out, any_error, result == 1);
        EXPECT_EQ(pauses, image == good ? 9 : pauses) << "between two headers";
        EXPECT_EQ(_nvram_dev_info[0].fd == -1, result == -1);
        EXPECT_EQ(difference(read_file(s.path), image == zeros && result == 1 ? good : image), "");
        output_of([&] { s.close(0); });
    }

    // An explicit reset brings back what init refuses.
    write_file(s.path, bad_checksum);
    ASSERT_EQ(podlog_nvram_open_dev_file(0, &_nvram_dev_info[0].fd, 0), 1);
    DOES(s.reset(0), 1, "", reset);
    EXPECT_EQ(difference(read_file(s.path), good), "");
    podlog_nvram_set_magic_number(7);
    DOES(s.reset(0), 1, "", reset);
    EXPECT_EQ(difference(read_file(s.path), other_magic), "");
    s.close(0);
    DOES(s.init(0, 0), 1, "", "", any_error, 1);
}

TEST_F(pod_nvram, reports_misuse_and_refused_transfers)
{
    uint8_t data[8] = {};
    write_file(s.path, good);
    DOES(pod_nvram_mem_rd(1, 0, data, 4), 0,
         "ERROR: pod_nvram_mem_rd: nvram 1: cannot access device!\n");
    DOES(pod_nvram_mem_wr(2, 0, data, 4), 0, "ERROR: pod_nvram_mem_wr: cannot access device 2!\n");
    DOES((s.close(0), 0), 0, "",
         "podlog_nvram_close: " + instance() + " already closed previously! \n");
    DOES(s.init(0, 1), 1, "", "", any_error, 1);
    DOES(s.init(0, 1), -1,
         "ERROR: podlog_nvram_init: nvram 0 current device is currently opened already!\n");
    DOES(pod_nvram_mem_rd(0, 16380, data, 8), 4); // a short transfer is one
    DOES(s.reset(0), -1,
         "ERROR: pod_nvram_mem_wr: cannot write 16 bytes to 0x20!!\n"
         "Failed to write NVRAM index structure!\n");

    // The current history is that of a verified index.
    put(good, 36, words({1}));
    write_file(s.path, good);
    DOES(s.dump_curr_log_msgs(0), -1,
         "ERROR: pod_nvram_mem_rd: cannot read or reach eof!! range=0xfffff9f0-0xfffffa03\n",
         "nvram_verify_blk_index: incorrect CRC 0x7708c70f! expected 0x85086d69 "
         "podlog_nvram_dump_curr_log_msgs: curr log =-1 \n");
    write_file(s.path, s.image());
    DOES(s.dump_curr_log_msgs(0), -1, unknown_magic,
         "nvram_verify_blk_index: unexpected magic number 0x7! expected 0x1fe2c365 "
         "podlog_nvram_dump_curr_log_msgs: curr log =-1 \n");
    DOES(podlog_nvram_close_log(0, 0), 1, "", "", any_error, -1);
}

TEST_F(pod_nvram, has_its_tables_and_takes_over_others)
{
    EXPECT_EQ(crc32_cksum(_nvram_dev_info, sizeof _nvram_dev_info), 3307906557u)
        << "as it is exported";
    int ids[9] = {5, 6, 7, 8, 9, 10, 11, 12, 13};
    std::string names[9] = {"a", "b", std::string(50, 'c')};
    char *pointers[9];
    std::transform(names, names + 9, pointers, [](std::string &name) { return name.data(); });
    podlog_nvram_set_podstatus_info(1, 3, ids, pointers);
    pod_nvram_inst_map_t map;
    podlog_nvram_get_inst_mapping(1, &map);
    map.index1[0] = 6; // also on index 1: the lower one wins
    std::strcpy(map.name1[0], "twin");
    podlog_nvram_config_inst_mapping(1, &map);
    DOES(nvram_get_podstatus_inst_mapped_index(1, 6), 0);
    // The last name is the first one's; 40 bytes of it are kept.
    EXPECT_EQ(output_of([] { nvram_dump_podstatus_inst_mapping(1); }).out,
              "nvram_dump_podstatus_inst_mapping: nvram 1 # of inst =3 \n"
              " inst index =  0 mapped to index0 = 5 for " +
                  std::string(40, 'c') +
                  "\n              mapped to index1 = 6 for twin\n"
                  " inst index =  1 mapped to index0 = 6 for \n"
                  " inst index =  2 mapped to index0 = 7 for \n");
    podlog_nvram_set_podstatus_info(1, 9, ids, pointers); // there are 8 words
    EXPECT_EQ(nvram_get_podstatus_inst_mapped_index(1, 12), 7);
    EXPECT_EQ(nvram_get_podstatus_inst_mapped_index(1, 13), -1);
    podlog_nvram_set_podstatus_info(1, 0, ids, pointers);
    EXPECT_EQ(nvram_get_podstatus_inst_mapped_index(1, 5), -1);
    podlog_nvram_config_inst_mapping(2, &map);
    podlog_nvram_get_inst_mapping(2, &map);
    EXPECT_EQ(map.num_inst, 0);
    EXPECT_EQ(podlog_nvram_get_faultinject_pos(2), -1);
}

//--- files and EEPROMs ----------------------------------------------------------------------------

TEST(pod_file, makes_directory_and_file_only_for_writing)
{
    chassis_sim::enter_private_root();
    ::umask(027);
    DOES(podlog_file_init(16, 1), -1, "ERROR: file /var/pod/pod_rpsw_mate.hex does not exist!\n",
         "", ENOENT);
    std::string missing;
    for (int id = 0; id < 16; ++id)
        missing += output_of([&] { podlog_file_init(id, 1); }).err;
    EXPECT_EQ(crc32_cksum(missing.data(), missing.size()), 733490613u) << missing;
    EXPECT_EQ(fs::status("/var/pod").permissions(), fs::perms{0777});
    EXPECT_TRUE(fs::is_empty("/var/pod"));
    podlog_file_set_pod_info(3, std::string("/var/pod/small").data(), 1000, 2, 64, ~0u);
    for (const auto &[id, path] :
         {std::pair{3, "/var/pod/small"}, {16, "/var/pod/pod_rpsw_mate.hex"}}) {
        DOES(podlog_file_init(id, 0), 1, "", "", any_error, 1);
        EXPECT_EQ(fs::status(path).permissions(), fs::perms{0750});
        EXPECT_EQ(fs::file_size(path), 16384u) << "whatever the log's size";
    }

    // Open is open, for reading too; the report goes to both streams.
    const std::string twice =
        "ERROR: podlog_file_init: file 16 current device is currently  opened already!\n";
    DOES(podlog_file_init(16, 1), -1, twice, twice);
    podlog_file_close(16);
    DOES(podlog_file_init(16, 1), 1, "", "", any_error, 1);
    DOES(podlog_file_reset(16), -1, "ERROR: pod_file_mem_wr: cannot write!!\n");
    podlog_file_close(16);
    podlog_file_close(16);
    int fd = 5;
    DOES(podlog_file_open_dev_file(17, &fd, 0), 0);
    EXPECT_EQ(fd, -1);
    DOES(podlog_file_open_dev_file(16, &fd, 1), 1, "", "", any_error, 1);
    EXPECT_EQ(::write(fd, "x", 1), -1) << "for reading only";
    DOES(podlog_file_reset(16), -1,
         "ERROR: pod_file_mem_wr: cannot access device for file instance 16 !\n");
    DOES(podlog_file_use_nxt_log(16), -1, "ERROR: pod_file_mem_rd: cannot access device!\n");
}

TEST(pod_file, says_why_there_is_no_log)
{
    chassis_sim::enter_private_root();
    const std::string other(100, 'x');
    write_file("/var/pod/pod_ft1.hex", other);
    DOES(podlog_file_init(6, 1), -1,
         "ERROR: podlog_file_init: magic number not initialized! cannot open for reading!!\n"
         "magic number: read = 0x78787878 expect = 0x1fe2c363\n");
    EXPECT_EQ(read_file("/var/pod/pod_ft1.hex"), other);
    write_file("/var/pod/pod_ft2.hex", "");
    DOES(podlog_file_init(7, 0), -1,
         "ERROR: pod_file_mem_rd: cannot read or reach eof!! range=0x20-0x2b\n");

    podlog_file_set_pod_info(1, std::string("/var/missing/pod.hex").data(), 16384, 10, 64, ~0u);
    DOES(podlog_file_init(1, 0), -1, "ERROR: pod_file_mem_rd: cannot access device!\n");
    bytes_left = 16383;
    DOES(podlog_file_init(0, 0), -1, "ERROR: cannot write to file /var/pod/pod_alsw1.hex!\n", "",
         EIO);
    ::umask(022);
    chassis_sim::bind_mount("/proc", "/var"); // where no directory can be made
    DOES(podlog_file_init(0, 0), -1, "Unable to create POD directory: No such file or directory\n",
         "", ENOENT);
    EXPECT_EQ(::umask(022), 0u) << "left so";
}

TEST(pod_eeprom, is_reached_through_bound_functions_only)
{
    const std::string no_read = "ERROR(pod_eeprom_mem_rd): No binded EEPROM 5 read function!\n";
    const std::string no_write = "ERROR: No binded EEPROM write function!\n";
    DOES(podlog_eeprom_init(5, 0), -1, no_read);
    write_file(eeprom_path(0), std::string(8300, '\0'));
    podlog_bind_eeprom_access_func(5, eeprom_reader<0>, nullptr);
    DOES(podlog_eeprom_init(5, 1), -1,
         "ERROR: podlog_eeprom_init: magic number not initialized! cannot open for reading!!\n"
         "magic number: read = 0x0 expect = 0x1fe2c363\n");
    DOES(podlog_eeprom_init(5, 0), 1, no_write); // the result of formatting does not count
    DOES(podlog_eeprom_reset(5), -1, no_write);
    bind_eeprom<0>(5);
    DOES(podlog_eeprom_init(5, 0), 1);
    DOES(podlog_eeprom_init(5, 1), 1); // there is no open state
    podlog_unbind_eeprom_access_func(5);
    DOES(podlog_eeprom_init(5, 1), -1, no_read);
    DOES(podlog_eeprom_close_dir(5), 1);
}

TEST(pod_eeprom, takes_raw_entries_as_they_are)
{
    pod_storage s = pod_storages[2];
    s.path = eeprom_path(0);
    bind_eeprom<0>(0);
    s.describe(2, 260);
    write_file(s.path, s.image());
    DOES(s.init(0, 0), 1);
    std::string image = s.image(0, {{{77, ""}}});
    const std::string warning =
        "WARNING:\n  hdr pos =0x2c log size =0x104\n  lg pos =0x90\n  NVLOG POD LOG (EEPROM) reached log area limit:\n  Subsequent entries will overide the last entry\n";
    // Exactly the size that is asked for: a text that is too long is cut, one that fits is not.
    const auto raw = std::make_unique<uint8_t[]>(81);
    const auto add = [&](const std::string &text) {
        const std::string entry = pod_entry(77, 1234) + text + std::string(65, '\0');
        std::copy_n(entry.begin(), 81, raw.get());
        return podlog_eeprom_add_raw_log(0, raw.get());
    };
    const std::string longest(64, 'm');
    DOES(add(longest + "m"), 1);
    put(image, s.entry_at(0, 0), pod_entry(77, 1234) + longest.substr(1) + '\0');
    EXPECT_EQ(difference(read_file(s.path), image), "");
    for (const std::string &text : {longest, std::string("last")}) {
        DOES(add(text), 0, "", warning);
        put(image, s.entry_at(0, 1),
            pod_entry(77, 1234) + text + std::string(64 - text.size(), '\0'));
        EXPECT_EQ(difference(read_file(s.path), image), "");
    }

    image[s.header_at(0)] ^= 1;
    write_file(s.path, image);
    DOES(add("x"), -1,
         "ERROR: podlog_eeprom_add_raw_log: failed to get next available log position!\n");
    put(image, index_position, words({0}));
    write_file(s.path, image);
    DOES(add("x"), -1, "ERROR: eeprom_get_curr_log_hdr_pos: invalid index!\n");
}

} // namespace

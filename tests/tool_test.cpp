// The programs devaccess and chassis-sim, as people and scripts run them.
#include "support/log_text.h"
#include "support/tool.h"

#include "tools/podlog/image.h"
#include "tools/postlog/image.h"

#include <device_access/pod_log.h>
#include <device_access/post_log.hpp>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <thread>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

// Of all that is written from now on, so many bytes reach their file; negative: all do.
static long power_left = -1;

extern "C" ssize_t pwrite(int file, const void *bytes, size_t size, off_t position)
{
    const size_t lasting = std::min(size, static_cast<size_t>(power_left)); // -1 is the largest
    power_left -= power_left < 0 ? 0 : static_cast<long>(lasting);
    const iovec part = {const_cast<void *>(bytes), lasting};
    return lasting > 0 && ::pwritev(file, &part, 1, position) < 0 ? -1 : static_cast<ssize_t>(size);
}

// All entries are of one moment, so that images of repeated runs are alike.
extern "C" time_t time(time_t *)
{
    return 1700000000;
}

namespace
{

namespace fs = std::filesystem;
using chassis_sim::write_file;
using devaccess::log_image;
using std::string;
using namespace tool;

//--- devaccess ------------------------------------------------------------------------------------

TEST(devaccess, does_what_it_is_told_and_prints_the_documented_json)
{
    start_chassis("n10");
    for (const auto &log : chassis_sim::sample_post_logs())
        write_file("/var/tmp/saved/" + log.name, log.image(chassis_sim::byte_order::big));
    follow("devaccess/commands.txt");
    expect_documented();
}

TEST(devaccess, says_in_one_line_what_is_wrong)
{
    const bool is_root = ::getuid() == 0;
    start_chassis();
    std::fstream window(chassis_sim::pci_link("0000:03:00.0") + "/resource0",
                        std::ios::in | std::ios::out | std::ios::binary);
    window.seekp(0xF008).write("\x10\x6f\x11\xe5", 4).flush(); // each word that it gives
    follow("devaccess/errors.txt");
    // On a terminal, in colour; an ordinary user is told what is missing, whichever the command.
    follow("devaccess/terminal.txt");
    follow("devaccess/errors_of_the_environment.txt");
    if (is_root)
        follow("devaccess/errors_of_an_ordinary_user.txt");
}

TEST(devaccess, walks_capability_lists_that_are_extended_broken_or_circular)
{
    start_chassis();
    const auto expect_ids = [](chassis_sim::config_builder &config, const string &ids) {
        chassis_sim::pci_function function;
        function.id = "0000:00:10.0";
        function.config = config.bytes();
        chassis_sim::add_pci(function);
        const result seen = run("devaccess pci caps 0:10.0 --json | "
                                "jq -c '[.complete, (.capabilities | map(.capability))]'");
        EXPECT_EQ(seen.out, ids + "\n");
        chassis_sim::remove_pci(function.id);
    };
    chassis_sim::config_builder extended(0, 4096);
    extended.msi();
    extended.put32(0x100, 0x14010001).put32(0x140, 0x00010003);
    expect_ids(extended, "[true,[5,1,3]]");
    extended.put32(0x140, 0x10010003); // back to 0x100
    expect_ids(extended, "[false,[5,1,3]]");
    extended.put32(0x100, 0xffffffff);
    expect_ids(extended, "[true,[5]]");
    chassis_sim::config_builder circular(0x80); // of a device with several functions
    const uint8_t first = circular.power_management();
    const uint8_t second = circular.msi();
    for (const uint8_t next : {first, uint8_t{0x10}}) { // the second leads into the header
        circular.put8(second + 1u, next);
        expect_ids(circular, "[false,[1,5]]");
    }
}

//--- POD logs -------------------------------------------------------------------------------------

TEST(devaccess, writes_to_no_card_of_an_unknown_chassis)
{
    start_chassis("");
    follow("devaccess/podlog_of_an_unknown_chassis.txt");
    EXPECT_FALSE(fs::exists("/var/pod/pod_sw1.hex"));
}

TEST(devaccess, keeps_shows_copies_and_follows_logs)
{
    start_chassis();
    write_file("/var/tmp/notes", "my precious notes");
    for (const char *directory : {"/var/tmp/small", "/flash/diags"}) {
        fs::create_directory(directory);
        ASSERT_EQ(::mount("small", directory, "tmpfs", 0, "size=4k"), 0);
    }
    follow("devaccess/podlog_prepare.txt");
    for (const char *card : {"RPSW1", "RPSW2", "ALSW1", "SW1", "PM8"}) {
        ::setenv("CARD", card, 1);
        follow("devaccess/podlog_of_each_storage.txt");
    }
    follow("devaccess/podlog_limits_and_status.txt");
    ASSERT_EQ(::mount("small", "/var/pod", "tmpfs", 0, "size=8k"), 0);
    follow("devaccess/podlog_full_disk.txt");
    EXPECT_TRUE(fs::is_empty("/var/pod"));
    ASSERT_EQ(::umount("/var/pod"), 0);
    const pid_t follower =
        start("exec devaccess podlog show SW1 --follow", "/var/tmp/seen", "/dev/null");
    const auto wait_for = [](const string &text) {
        for (int look = 0; look < 400 && read_file("/var/tmp/seen").find(text) == text.npos; ++look)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
    };
    wait_for("later\n");
    // And on, before it looks again.
    run("devaccess podlog add SW1 three; devaccess podlog next SW1; devaccess podlog add SW1 four");
    wait_for("four\n");
    ::kill(follower, SIGKILL);
    ::waitpid(follower, nullptr, 0);
    const string seen = test::replaced(read_file("/var/tmp/seen"), ".*Z  ", "");
    EXPECT_EQ(seen, "E: later\nthree\nfour\n");
    follow("devaccess/podlog_follow.txt");
    expect_documented();
}

//--- damaged logs ---------------------------------------------------------------------------------

// A card's log, reached through the library's front end and through the tool.
struct storage {
    const devaccess::log_layout &layout;
    int id;
    string path;
    string card;
};

const storage storages[] = {
    {devaccess::nvram_layout, 20, "/dev/nvlog-pod", "RPSW1"},
    {devaccess::file_layout, 24, "/var/pod/pod_sw1.hex", "SW1"},
    {devaccess::eeprom_layout, 25, "/var/tmp/eeprom", "SW2 --eeprom /var/tmp/eeprom"},
};

int eeprom = -1;

// Also of a device, which keeps its node.
void put_bytes(const string &path, const string &bytes)
{
    const int file = ::open(path.c_str(), O_RDWR | O_CREAT, 0666);
    EXPECT_EQ(::ftruncate(file, 0), 0) << path;
    EXPECT_EQ(::pwrite(file, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    ::close(file);
}

// Three histories (the EEPROM has two) of two entries; the last is the current one.
string make_log(const storage &where)
{
    if (where.id == 25) {
        eeprom = ::open(where.path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
        podlog_bind_secondary_log_access_func(
            where.id,
            [](uint32_t at, uint8_t *to, uint32_t n) {
                return ::pread(eeprom, to, n, at) < 0 ? -1 : int(n);
            },
            [](uint32_t at, uint8_t *from, uint32_t n) {
                return int(::pwrite(eeprom, from, n, at));
            });
        podlog_select_primary_secondary_storage(where.id, 0);
    }
    EXPECT_EQ(podlog_init(where.id, 0), 1);
    for (int history = 0; history < 3; ++history) {
        for (const char *text : {"first", "second"})
            EXPECT_EQ(podlog_add(where.id, nullptr, nullptr, nullptr, "%s %d", text, history), 1);
        EXPECT_EQ(history == 2 ? 1 : podlog_use_nxt_log(where.id), 1);
    }
    podlog_close(where.id);
    return read_file(where.path);
}

// Every entry is found whose head is still that of one of the images, and only those.
void expect_salvaged(const log_image &log, const std::vector<string> &images, const string &what)
{
    std::set<size_t> found, surviving;
    for (const auto &slot : log.good_entries())
        found.insert(slot.position);
    for (const string &image : images)
        for (const auto &slot : log_image(log.layout(), image).good_entries())
            if (image.compare(slot.position, 16, log.bytes(), slot.position, 16) == 0)
                surviving.insert(slot.position);
    EXPECT_EQ(found, surviving) << what;
    const log_image repaired(log.layout(), log.repaired());
    EXPECT_TRUE(repaired.is_good()) << what;
    EXPECT_EQ(repaired.good_entries().size(), found.size()) << what;
}

int count_torn_images(const storage &where, const string &before, bool is_next)
{
    string after = before;
    int images = 0;
    for (long power = 4096; power >= 0; ++images) {
        put_bytes(where.path, before);
        EXPECT_EQ(podlog_init(where.id, 0), 1);
        power_left = power;
        is_next ? podlog_use_nxt_log(where.id)
                : podlog_add(where.id, nullptr, nullptr, nullptr, "torn");
        power = (images == 0 ? power - power_left : power) - 1; // each time one byte less
        power_left = -1;
        podlog_close(where.id);
        const log_image torn(where.layout, read_file(where.path));
        after = images == 0 ? torn.bytes() : after;
        expect_salvaged(torn, {before, after}, std::to_string(power + 1));
        put_bytes(where.path, torn.repaired());
        EXPECT_EQ(podlog_init(where.id, 1), 1);
        podlog_close(where.id);
    }
    return images;
}

TEST(devaccess, salvages_and_repairs_every_torn_write_and_flipped_bit)
{
    start_chassis();
    for (const storage &where : storages) {
        const string before = make_log(where);
        const int added = count_torn_images(where, before, false);
        const int entered = count_torn_images(where, before, true);
        int flipped = 0;
        for (const auto &record : log_image(where.layout, before).records())
            for (size_t bit = 0; bit < 8 * (record.kind[0] == 'h' ? 20 : 16); ++bit, ++flipped) {
                string image = before;
                image[record.position + bit / 8] ^= static_cast<char>(1 << bit % 8);
                const log_image log(where.layout, image);
                expect_salvaged(log, {before}, record.name() + std::to_string(bit));
                // What has no checksum may name another history; behind it nothing is kept.
                const bool is_unsealed =
                    !where.layout.sealed_index && record.kind[0] == 'i' && bit >= 32;
                EXPECT_TRUE(!log.is_good() || is_unsealed) << record.name() << bit;
            }
        std::printf("%s: %d adds and %d next histories torn, %d bits flipped\n", where.layout.name,
                    added, entered, flipped);
        EXPECT_GT(added, 36);
        EXPECT_GT(entered, 250);
    }
}

TEST(devaccess, takes_a_history_of_after_january_2038_for_the_newest)
{
    constexpr chassis_sim::pod_layout layout = {0x1FE2C365, 48, 1600, 10, 16384, 16312};
    string image = chassis_sim::log_image(layout, 0, {{{1, ""}}, {{0x80000001, ""}}, {{2, ""}}});
    image.replace(32, 16, 16, '\0'); // the index
    EXPECT_EQ(log_image(devaccess::nvram_layout, image).current(), 1);
}

// Follows the last command that each error names until the first one works.
void expect_led_out(const string &first, const string &what)
{
    string trail = what;
    string line = first;
    for (int step = 0; step < 7; ++step) {
        const result r = run(line);
        if (r.status == 0 && line == first)
            return;
        trail += "\n  " + line + " -> " + r.error;
        const size_t end = r.error.rfind('\''), hint = r.error.rfind("'devaccess");
        line = r.status == 0 || hint == r.error.npos ? first
                                                     : r.error.substr(hint + 1, end - hint - 1);
    }
    ADD_FAILURE() << trail;
}

TEST(devaccess, leads_by_its_hints_out_of_every_damage)
{
    start_chassis();
    run("devaccess podlog prepare SW2 && devaccess podlog add SW2 x"); // for its EEPROM
    for (const storage &where : storages) {
        const string good = make_log(where);
        const auto with = [&](size_t position, const string &bytes) {
            return string(good).replace(position, bytes.size(), bytes);
        };
        std::map<string, string> images = {
            {"blank", string(good.size(), '\0')},
            {"truncated", where.layout.sealed_index ? good : good.substr(0, 100)}, // no device
            {"no log", string(good.size(), 'a')},
            {"foreign magic",
             with(32,
                  chassis_sim::pod_index(
                      {0x12345678, 48, static_cast<uint32_t>(where.layout.stride), 10, 16384, 0}, 2)
                      .substr(0, where.layout.sealed_index ? 16 : 12))}};
        const log_image log(where.layout, good);
        for (const auto &record : log.records())
            images[record.name()] = with(record.position, "\x5a");
        for (const auto &[name, image] : images)
            for (const string &verb : {"show " + where.card, "add " + where.card + " x"}) {
                if (where.id == 25 && verb[0] == 'a')
                    continue; // nothing writes EEPROMs but copies
                put_bytes(where.path, image);
                expect_led_out("devaccess podlog " + verb, name);
                expect_led_out("devaccess podlog check " + where.card, name);
            }
    }
}

TEST(devaccess, says_where_a_log_is_damaged_and_keeps_what_is_good)
{
    start_chassis();
    run("devaccess podlog prepare");
    make_log(storages[0]);
    run("devaccess podlog status ALSW1 failed && devaccess podlog faults set SW1");
    string damaged = read_file("/dev/nvlog-pod");
    const string words = damaged.substr(16384 - 72);
    damaged[48 + 1600 + 9] ^= 1;           // header of history 1
    damaged[48 + 3200 + 20 + 80 + 1] ^= 1; // entry 1 of history 2
    put_bytes("/dev/nvlog-pod", damaged);
    fs::resize_file("/var/pod/pod_sw2.hex", 100);
    follow("devaccess/podlog_damage.txt");
    EXPECT_EQ(read_file("/dev/nvlog-pod").substr(16384 - 72), words);
    follow("devaccess/podlog_reset.txt");
    expect_documented();
}

TEST(devaccess, tells_and_keeps_a_log_of_another_kind)
{
    start_chassis();
    run("devaccess podlog prepare");
    make_log(storages[2]);
    put_bytes("/var/pod/pod_ft2.hex", chassis_sim::log_image({0x1FE2C363, 44, 8160, 2, 16384, 0}, 1,
                                                             {{{1, "a"}}, {{2, "b"}, {3, "c"}}}));
    follow("devaccess/podlog_foreign.txt");
    expect_documented();
}

TEST(devaccess, finds_entries_at_any_position)
{
    start_chassis();
    run("devaccess podlog prepare");
    string log = make_log(storages[1]);
    log.insert(50, 7, '\0'); // in the first header: all entries are 7 bytes further on
    log.resize(devaccess::file_layout.size);
    log[40] = 99; // and the index has part of a size
    log[41] = 0;
    put_bytes(storages[1].path, log);
    const uint64_t after_2038 = 0xffffffff90000000; // as it is made of 32 bits with a sign
    std::vector<chassis_sim::pod_run> runs(10, chassis_sim::pod_run(3, {after_2038, "late"}));
    runs[1].resize(1);
    runs[2].resize(1);
    runs[5][1].seconds = runs[9][1].seconds = 1ull << 32; // no entry: what is around it is two runs
    put_bytes("/var/pod/pod_sw2.hex",
              chassis_sim::log_image({0x1FE2C363, 44 + 7, 1635, 10, 16384, 0}, 0, runs));
    follow("devaccess/podlog_strays.txt");
    expect_documented();
}

TEST(devaccess, watches_a_device_until_it_is_removed)
{
    follow("devaccess/watch_of_a_removed_device.txt");
}

#if !defined __SANITIZE_ADDRESS__ // whose runtime needs more than its libraries
TEST(devaccess, needs_no_library_but_those_that_it_is_linked_with)
{
    start_chassis();
    follow("devaccess/libraries.txt");
}
#endif

//--- texts ----------------------------------------------------------------------------------------

TEST(devaccess, describes_every_command)
{
    ::setenv("NOTES", SOURCE "/docs/devaccess.in.md", 1);
    ::setenv("SCHEMA", SCHEMA, 1);
    follow("devaccess/pages.txt");
}

TEST(devaccess, traces_a_driver_and_plays_its_trace_back)
{
    ::setenv("SAMPLER", SAMPLER, 1);
    ::setenv("ASAN_OPTIONS", "verify_asan_link_order=0:detect_leaks=0", 1);
    fs::create_directories("/tmp/traces");
    fs::current_path(SOURCE "/examples/sampler");
    follow("devaccess/trace.txt");
    fs::remove_all("/tmp/traces");
}

//--- POST logs ------------------------------------------------------------------------------------

// A block that is read from memory, and what the library and the tool make of its bytes.
struct post_sample {
    const chassis_sim::post_block log = {
        "", 1024, 32, 1, {{{1, 5, "a"}, {2, 6, "b"}}, {{4, 7, "c"}}, {}, {{3, 8, "d"}}}};
    const string good = log.image(chassis_sim::byte_order::little);
    std::vector<std::pair<size_t, size_t>> records = {{0, 12}}; // position and size
    std::vector<size_t> entries;                                // their positions
    postlog::nvram_dev_info_t table[3] = {};
    string now = good;

    post_sample()
    {
        for (size_t history = 0; history < log.histories.size(); ++history) {
            records.emplace_back(log.header_position(history), 24);
            for (size_t entry = 0; entry < log.histories[history].size(); ++entry) {
                entries.push_back(log.entry_position(history, entry));
                records.emplace_back(entries.back(), 40);
            }
        }
        table[1] = {"", "", 0, 1024, 4, 32, ~31u, 0, ::memfd_create("block", 0), 0};
        postlog_map_nvram_access(
            table, [](log_type_t) { return 1; }, post_dev_file_nvram_mem_rd, [](log_type_t) {},
            postlog_dev_rd_log_index, postlog_dev_rd_log_header, postlog_dev_rd_log,
            postlog_dev_validate_log_header, postlog_dev_validate_log_entry);
        check("all of it");
    }

    void set(size_t position, int byte) { now[position] = static_cast<char>(byte); }

    bool names_another_history() const
    {
        return now[4] != good[4] && now[4] >= 0 && now[4] < 4 && now.compare(5, 3, good, 5, 3) == 0;
    }

    bool is_damaged() const
    {
        return std::any_of(records.begin(), records.end(), [&](const auto &one) {
            const auto [position, size] = one;
            const bool is_same = now.compare(position, size, good, position, size) == 0;
            return !is_same && (position > 0 || !names_another_history());
        });
    }

    // No checksum covers messages.
    bool is_written(const string &text) const
    {
        return std::any_of(entries.begin(), entries.end(),
                           [&](size_t at) { return now.substr(at + 40, 32).c_str() == text; });
    }

    void check(const string &what)
    {
        ASSERT_EQ(::pwrite(table[1].fd, now.data(), now.size(), 0), 1024);
        const string seen = test::log_text(device_access::post_log(device_access::post_block(1)));
        std::istringstream parts(test::replaced(seen, "[0-9]+: ?|!|, ", "|"));
        for (string part; std::getline(parts, part, '|');)
            EXPECT_TRUE(part.empty() || is_written(part)) << what << ": " << seen;
        const devaccess::post_image image(4, now);
        string shown;
        for (const auto *history : image.written()) {
            shown += std::to_string(history->number) + ":";
            for (const auto &slot : history->chain())
                shown.append(shown.back() == ':' ? " " : "|")
                    .append(image.entry(slot).message.c_str());
            shown += ", ";
        }
        for (const auto &slot : image.good_entries())
            EXPECT_EQ(std::count(entries.begin(), entries.end(), slot.position), 1) << what;
        const bool is_newest = shown.starts_with("1: c");
        EXPECT_TRUE(is_newest || names_another_history() ||
                    now.compare(12, now.npos, good, 12) != 0)
            << what << ": " << shown;
        EXPECT_TRUE(!image.wrong().empty() || seen == shown) << what << ": " << seen << shown;
        EXPECT_EQ(image.wrong().empty(), !is_damaged()) << what;
    }
};

TEST(devaccess, names_every_damage_of_a_post_log_and_shows_what_was_written_alone)
{
    post_sample sample;
    for (size_t at = 0; at < sample.good.size(); ++at)
        for (const int byte : {0, 0x7f, 0xff, sample.good[at] ^ 1, sample.good[at] ^ 0x80,
                               sample.good[at] + 1, sample.good[at] - 1}) {
            sample.set(at, byte);
            sample.check("byte " + std::to_string(at));
            sample.set(at, sample.good[at]);
        }
    for (const auto &[first, size] : sample.records)
        for (const auto &[second, other_size] : sample.records)
            for (size_t at = first; first < second && at < first + size; ++at)
                for (const size_t other : {second, second + other_size / 2}) {
                    sample.now[at] ^= 0x20;
                    sample.now[other] ^= 0x04;
                    sample.check("bytes " + std::to_string(at) + ", " + std::to_string(other));
                    sample.now = sample.good;
                }
}

//--- chassis-sim ----------------------------------------------------------------------------------

TEST(chassis_sim, shows_in_what_the_command_sees)
{
    const string images = fs::temp_directory_path() / ("images" + std::to_string(::getpid()));
    ::setenv("IMAGES", images.c_str(), 1);
    for (const char *file : {"pod", "nvlog-ofw-event", "nvlog-diag-test", "nvlog-diag-error"})
        write_file(images + "/" + file, string("contents of ") + file);
    // Makes the node of an NVRAM, as the library does.
    ::setenv("NODE", "node() { mknod /dev/$1 c $(tr : ' ' </sys/class/zmt_nvram/nvram$2/dev); }",
             1);
    ::setenv("LINK", "od -An -tx2 -j 90 -N 2 /sys/bus/pci/devices/0000:00:1c.0/config", 1);
    follow("chassis_sim/options.txt");
    if (::getuid() == 0) // to whom a device in the chassis is one
        follow("chassis_sim/truncated_nvram.txt");
    fs::remove_all(images);
}

TEST(chassis_sim, answers_what_is_wrong_with_one_line)
{
    follow("chassis_sim/errors.txt");
}

struct chassis_sim_files : testing::Test {
    chassis_sim_files()
    {
        fs::create_directory(dir);
        ::setenv("DIR", dir.c_str(), 1);
    }
    ~chassis_sim_files() override { fs::remove_all(dir); }

    const string dir = fs::temp_directory_path() / ("files" + std::to_string(::getpid()));
};

TEST_F(chassis_sim_files, that_are_wrong_descriptions_lead_nowhere)
{
    follow("chassis_sim/descriptions.txt");
}

TEST_F(chassis_sim_files, that_are_recordings_show_the_machine)
{
    ::setenv("LOOK",
             "devaccess pci list; for f in $(ls /sys/bus/pci/devices); do devaccess pci caps $f; "
             "devaccess pci show $f; done; devaccess uio list; "
             "for c in RPSW1 ALSW2 SW1; do devaccess podlog --chassis n20 show $c; done; "
             "for b in event test error; do devaccess postlog show $b; done; "
             "for s in RPSW SW1; do devaccess inventory show $s; done",
             1);
    follow("chassis_sim/recordings.txt");
}

TEST(chassis_sim, takes_what_happens_from_control_lines)
{
    follow("chassis_sim/control.txt");
}

TEST(chassis_sim, lives_as_long_as_what_runs_in_it_and_no_longer)
{
    ::setenv("SLEEPER", ("sleep 77." + std::to_string(::getpid())).c_str(), 1);
    follow("chassis_sim/lifetime.txt");
}

TEST(chassis_sim, runs_foreign_programs_without_a_complaint)
{
    follow("chassis_sim/foreign_programs.txt");
}

TEST(chassis_sim, is_what_its_description_says_and_prints_it_in_the_same_format)
{
    const string file = fs::temp_directory_path() / ("chassis" + std::to_string(::getpid()));
    ::setenv("DESCRIPTION", file.c_str(), 1);
    ::setenv("SCHEMA", CHASSIS_SCHEMA, 1);
    fs::copy_file(SOURCE "/tests/expected/chassis_sim/description.json", file);
    follow("chassis_sim/description.txt");
    fs::remove(file);
    fs::remove(file + ".own");
}

} // namespace

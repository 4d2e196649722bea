// The command-line tool: the real program, run in the simulated chassis.
#include "sim/chassis.h"

#include <device_access/pod_log.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

using chassis_sim::config_builder;
using nlohmann::json;
using words = std::vector<std::string>;

void start_chassis()
{
    chassis_sim::enter_private_root();
    chassis_sim::device_server devices;
    chassis_sim::uio_description block;
    block.maps = {{"map0", "0x1000\n"}, {"map1", "0x2000\n"}};
    block.irq_delay_ms = 20;
    chassis_sim::add_uio(devices, block);
    chassis_sim::add_post_logs(devices, chassis_sim::sample_post_logs(), 0);
    chassis_sim::nvram_description pod;
    pod.number = 3;
    chassis_sim::add_nvram(devices, pod);
    devices.start();
    chassis_sim::add_chassis_pci();
    chassis_sim::add_chassis_hotswap();
}

words split(const std::string &text)
{
    std::istringstream stream(text);
    words result;
    for (std::string word; stream >> word;)
        result.push_back(word);
    return result;
}

std::string contents_of(int file)
{
    std::string text(static_cast<size_t>(::lseek(file, 0, SEEK_END)), '\0');
    EXPECT_EQ(::pread(file, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    ::close(file);
    return text;
}

pid_t start(words arguments, int out, int error)
{
    const pid_t pid = ::fork();
    if (pid != 0)
        return pid;
    arguments.insert(arguments.begin(), DEVACCESS);
    std::vector<char *> argv;
    for (std::string &word : arguments)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    ::dup2(out, STDOUT_FILENO);
    ::dup2(error, STDERR_FILENO);
    ::execv(DEVACCESS, argv.data());
    ::_exit(127);
}

struct result {
    int status;
    std::string out;
    std::string error;
};

result run(const words &arguments)
{
    const int out = ::memfd_create("out", 0);
    const int error = ::memfd_create("error", 0);
    int status = 0;
    ::waitpid(start(arguments, out, error), &status, 0);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, contents_of(out), contents_of(error)};
}

result run(const std::string &line)
{
    return run(split(line));
}

// Times are taken out, after a look at their form, from what a command prints as JSON.
json without_times(json value)
{
    if (value.is_object() && value.contains("time_raw")) {
        EXPECT_TRUE(value["time_raw"].is_number_integer());
        EXPECT_EQ(value["time"].get<std::string>().size(), sizeof "2026-01-01T00:00:00Z" - 1);
        value.erase("time_raw");
        value.erase("time");
    }
    if (value.is_structured())
        for (json &part : value)
            part = without_times(part);
    return value;
}

json json_of(const std::string &line)
{
    const result r = run(line + " --json");
    EXPECT_EQ(r.status, 0) << line << ": " << r.error;
    EXPECT_EQ(r.error, "") << line;
    const json parsed = json::parse(r.out, nullptr, false);
    EXPECT_FALSE(parsed.is_discarded()) << line << ": " << r.out;
    return without_times(parsed);
}

void expect_done(const std::string &line)
{
    const result r = run(line);
    EXPECT_EQ(r.status, 0) << line << ": " << r.error;
    EXPECT_EQ(r.out, "") << line;
    EXPECT_EQ(r.error, "") << line;
}

void expect_one_line(const std::string &line, int status, const std::string &text)
{
    const result r = run(line);
    EXPECT_EQ(r.status, status) << line;
    EXPECT_EQ(r.out, "") << line;
    EXPECT_EQ(std::count(r.error.begin(), r.error.end(), '\n'), 1) << r.error;
    EXPECT_EQ(r.error.rfind("devaccess: ", 0), 0u) << r.error;
    EXPECT_NE(r.error.find(text), std::string::npos) << line << ": " << r.error;
}

//--- every command's output -----------------------------------------------------------------------

TEST(devaccess, prints_the_documented_json_and_nothing_else)
{
    start_chassis();
    for (const char *line :
         {"uio write /dev/uio0 1 0x18 0x1122334455667788 --width 64",
          "pci write 03:00.0 0x3c 0x5a --width 8", "inventory --chassis n10 store PM4 S1 PC",
          "podlog prepare --chassis n20"}) {
        chassis_sim::make_directory("/flash/diags");
        expect_done(line);
    }
    const struct {
        const char *line;
        const char *expected;
    } cases[] = {
        {"pci read 0000:03:00.0 0",
         R"({"id":"0000:03:00.0","offset":0,"width":32,"value":2104591})"},
        {"pci read 03:00.0 0x3c --width 8",
         R"({"id":"0000:03:00.0","offset":60,"width":8,"value":90})"},
        {"pci children 00:1c.0",
         R"({"devices":[{"id":"0000:03:00.0","vendor":7439,"device":32,"class":360448,
             "path":"/sys/bus/pci/devices/0000:03:00.0"}]})"},
        {"pci show 00:19.0",
         R"({"id":"0000:00:19.0","vendor":7439,"device":2,"class":131072,
             "path":"/sys/bus/pci/devices/0000:00:19.0","subsystem_vendor":7439,
             "subsystem_device":1,"enabled":false,
             "resources":[{"bar":0,"base":4043309056,"size":131072,"flags":262656}]})"},
        {"pci caps 00:19.0",
         R"({"id":"0000:00:19.0","complete":true,"capabilities":[
             {"kind":"standard","offset":64,"capability":1,"name":"Power Management"},
             {"kind":"standard","offset":72,"capability":5,"name":"MSI"}]})"},
        {"pci link-wait 00:1c.0", R"({"id":"0000:00:1c.0","link":"up"})"},
        {"pci bridge usable 00:1e.0", R"({"id":"0000:00:1e.0","usable":true})"},
        {"uio list",
         R"({"devices":[{"node":"/dev/uio0","name":"","number":"243:0","maps":2,
             "device":"/sys/devices/platform/regblock.0"}]})"},
        {"uio info /dev/uio0",
         R"({"node":"/dev/uio0","emulated":false,"class_directory":"/sys/class/uio/uio0",
             "device_directory":"/sys/devices/platform/regblock.0","removal_notice":true,
             "maps":[{"map":0,"size":4096,"bar":0,"offset":0},
                     {"map":1,"size":8192,"bar":0,"offset":0}]})"},
        {"uio read /dev/uio0 1 0x18 --width 64",
         R"({"node":"/dev/uio0","map":1,"offset":24,"width":64,"value":1234605616436508552})"},
        {"uio read /dev/uio0 1 0x1a --width 16",
         R"({"node":"/dev/uio0","map":1,"offset":26,"width":16,"value":21862})"},
        {"uio wait /dev/uio0 --timeout 20", R"({"node":"/dev/uio0","event_count":1})"},
        {"podlog list SW3 --chassis n20", R"({"card":"SW3","histories":[]})"},
        {"podlog show SW3 --chassis n20", R"({"card":"SW3","history":null,"entries":[]})"},
        {"postlog list error", R"({"histories":[{"block":"error","history":1}]})"},
        {"postlog show test",
         R"({"block":"test","history":2,"entries":[{"message":"DRAM march: pass"},
             {"message":"PCIe link: pass"}]})"},
        {"inventory show PM4", R"({"slot":"PM4","serial_number":"S1","product_code":"PC"})"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(json_of(c.line), json::parse(c.expected)) << c.line;

    const json appeared = json_of("pci bridge enable 00:1e.0");
    EXPECT_EQ(appeared, json_of("pci children 00:1e.0"));
    EXPECT_EQ(appeared["devices"][0]["id"], "0000:06:00.0");
    expect_done("pci bridge disable 00:1e.0");
    expect_done("inventory clear PM4");
    EXPECT_EQ(json_of("pci children 00:1e.0")["devices"], json::array());
    EXPECT_EQ(json_of("uio info sysfs_pci:uio_cma.alsw1")["emulated"], true);
}

TEST(devaccess, aligns_tables)
{
    start_chassis();
    EXPECT_EQ(run("pci children 00:1c.0").out,
              "ID            VENDOR  DEVICE  CLASS     PATH\n"
              "0000:03:00.0  0x1d0f  0x0020  0x058000  /sys/bus/pci/devices/0000:03:00.0\n");
    EXPECT_EQ(run("postlog show error").out,
              "block:    error\n"
              "history:  1\n"
              "TIME                  MESSAGE\n"
              "2023-11-15T22:13:26Z  PCIe link: slot SW2 trained to x1, expected x4\n");
    EXPECT_EQ(run("pci read 03:00.0 2 --width 16").out,
              "id:      0000:03:00.0\noffset:  0x02\nwidth:   16\nvalue:   0x0020\n");
}

TEST(devaccess, is_in_colour_on_a_terminal_only)
{
    int terminal = -1, end = -1;
    ASSERT_EQ(::openpty(&terminal, &end, nullptr, nullptr, nullptr), 0);
    start_chassis();
    ::waitpid(start({"pci", "children", "00:1c.0"}, end, end), nullptr, 0);
    ::waitpid(start({"pci", "children", "99:00.0"}, end, end), nullptr, 0);
    std::string text;
    pollfd arriving = {terminal, POLLIN, 0};
    while (::poll(&arriving, 1, 500) > 0) {
        char block[512];
        text.append(block, static_cast<size_t>(::read(terminal, block, sizeof block)));
    }
    EXPECT_EQ(text.rfind("\x1b[1mID  ", 0), 0u) << text;
    EXPECT_NE(text.find("\x1b[31mdevaccess:\x1b[0m cannot "), std::string::npos) << text;
    EXPECT_EQ(run("pci children 00:1c.0").out.rfind("ID  ", 0), 0u);
}

//--- mistakes and failures ------------------------------------------------------------------------

TEST(devaccess, says_in_one_line_what_is_wrong)
{
    start_chassis();
    const struct {
        const char *line;
        int status;
        const char *text;
    } cases[] = {
        {"", 2, "subcommand is required; see devaccess --help"},
        {"pci raed 03:00.0 0", 2, "'raed' is no command; see devaccess pci --help"},
        {"pci read 03:00.0", 2, "OFFSET is required; see devaccess pci read --help"},
        {"pci read 3:0.0 0", 2, "'3:0.0' names no PCI function; write 0000:03:00.0"},
        {"pci read 03:00.0 12h", 2, "the offset '12h' is no number; write 26 or 0x1a"},
        {"pci read 03:00.0 0x", 2, "the offset '0x' is no number"},
        {"pci read 03:00.0 -1", 2, "-1"},
        {"pci read 03:00.0 0x100000000", 2, "0x100000000 is too large; at most 0xffffffff"},
        {"pci write 03:00.0 0 256 --width 8", 2, "the value 256 is too large; at most 0xff"},
        {"uio read /dev/uio0 0 0 --width 24", 2, "--width"},
        {"podlog show RPSW1 --chassis n30", 2, "--chassis"},
        {"inventory store SW1 123456789012345 P", 2, "is longer than 14 characters"},
        {"podlog status RPSW1 good", 2, "'good' is no number"},
        {"uio read /dev/uio0 0 2", 2, "must be a multiple of 4 bytes"},

        {"pci read 03:00.0 2", 1, "register 0x2 of 0000:03:00.0: Invalid argument; offsets are"},
        {"pci read 03:00.0 0x1000", 1, "beyond the end of the configuration space"},
        {"pci show 99:00.0", 1, "0000:99:00.0: No such file or directory; 'devaccess pci list'"},
        {"pci link-wait 00:19.0", 1, "00:19.0 up: No such file or directory; it must be a PCI Ex"},
        {"pci bridge enable 00:1c.0", 1, "enable the bridge 00:1c.0: No such file or directory"},
        {"uio info /dev/uio7", 1, "open /dev/uio7: No such file or directory; 'devaccess uio"},
        {"uio read /dev/uio0 1 0x2000", 1, "the window has 0x2000 bytes"},
        {"uio read /dev/uio0 1 0xfffffffc", 1, "the window has 0x2000 bytes"},
        {"uio read /dev/uio0 63 0", 1, "map window 63 of /dev/uio0: there is none"},
        {"uio wait sysfs_pci:uio_cma.alsw1", 1, "Bad file descriptor; emulated devices have no"},
        {"podlog list SW1", 1, "pod_sw1.hex does not exist!: No such file or directory; 'dev"},
        {"podlog show EXT1", 1, "find the card EXT1: this chassis has none of that name"},
        {"podlog copy FT1 --eeprom /tmp/e", 1, "the card has no secondary storage"},
        {"podlog list SW1 --eeprom /none", 1, "open /none: No such file or directory"},
        {"podlog status PEM1", 1, "the NVRAM has no word for it"},
        {"postlog show event 3", 1, "history 3 of the POST event log: "},
        {"postlog list --pcie 03:00.0:1", 1, "there is no window of 0xf00c bytes"},
        {"inventory show SW2", 1, "cannot open inventory /flash/diags/SW2.div: No such file"},
        {"inventory store sw1 1 P", 1, "/flash/diags/SW1.div!: No such file or directory; the"},
        {"inventory clear SW9", 1, "find the slot SW9"},
    };
    for (const auto &c : cases)
        expect_one_line(c.line, c.status, c.text);
    EXPECT_EQ(run("pci read --help").status, 0);
    // A width of nothing is none.
    for (words line :
         {split("uio read /dev/uio0 0 0 --width"), split("pci read 03:00.0 0 --width")}) {
        line.push_back("");
        EXPECT_EQ(run(line).status, 2);
    }
}

TEST(devaccess, passes_what_the_library_prints_to_standard_error_when_asked)
{
    start_chassis();
    const result r = run("podlog list SW1 -v");
    EXPECT_EQ(r.out, "");
    EXPECT_NE(
        r.error.find("devaccess: library: ERROR: file /var/pod/pod_sw1.hex does not exist!\n"),
        std::string::npos)
        << r.error;
    const result missing = run("--verbose uio read /dev/uio0 5 0 --json");
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.out, "");
    EXPECT_NE(missing.error.find("libuio_get_mapinfo(): map[5] not found\n"), std::string::npos)
        << missing.error;
}

TEST(devaccess, fails_when_its_output_is_lost)
{
    start_chassis();
    expect_done("podlog prepare --chassis n20");
    expect_done("podlog add SW1 entry");
    for (const char *line : {"pci list", "podlog show SW1 --follow"}) {
        const int error = ::memfd_create("error", 0);
        int status = 0;
        ::waitpid(start(split(line), ::open("/dev/full", O_WRONLY), error), &status, 0);
        EXPECT_EQ(WEXITSTATUS(status), 1);
        EXPECT_EQ(contents_of(error), "devaccess: cannot write standard output\n");
    }
}

//--- PCI ------------------------------------------------------------------------------------------

json capabilities_of(config_builder &config)
{
    chassis_sim::pci_function function;
    function.id = "0000:00:10.0";
    function.config = config.bytes();
    chassis_sim::add_pci(function);
    const json found = json_of("pci caps 00:10.0");
    chassis_sim::remove_pci(function.id);
    json ids = {found["complete"]};
    for (const json &row : found["capabilities"])
        ids.push_back(row["capability"]);
    return ids;
}

TEST(devaccess, walks_capability_lists_that_are_extended_broken_or_circular)
{
    start_chassis();
    config_builder extended(0, 4096);
    extended.msi();
    extended.put32(0x100, 0x14010001).put32(0x140, 0x00010003);
    EXPECT_EQ(capabilities_of(extended), json({true, 5, 1, 3}));
    extended.put32(0x140, 0x10010003); // back to 0x100
    EXPECT_EQ(capabilities_of(extended), json({false, 5, 1, 3}));
    extended.put32(0x100, 0xffffffff);
    EXPECT_EQ(capabilities_of(extended), json({true, 5}));

    config_builder circular(0x80); // of a device with several functions
    const uint8_t first = circular.power_management();
    const uint8_t second = circular.msi();
    circular.put8(second + 1u, first);
    EXPECT_EQ(capabilities_of(circular), json({false, 1, 5}));
    circular.put8(second + 1u, 0x10); // into the header
    EXPECT_EQ(capabilities_of(circular), json({false, 1, 5}));

    config_builder none;
    EXPECT_EQ(capabilities_of(none), json({true}));
}

//--- POD log --------------------------------------------------------------------------------------

TEST(devaccess, finds_the_cards_where_the_library_has_them)
{
    start_chassis();
    const struct {
        const char *options;
        int chassis;
        int is_rp2;
        size_t count;
    } cases[] = {{"", -1, 0, 22},
                 {" --chassis n20", ChassisType_N20, 0, 18},
                 {" --chassis n20 --rp2", ChassisType_N20, 1, 18},
                 {" --chassis n10", ChassisType_N10, 0, 12},
                 {" --chassis n4", ChassisType_N4, 0, 13}};
    for (const auto &c : cases) {
        if (c.chassis >= 0)
            podlog_config_pod_storage_n20_n10(c.chassis, c.is_rp2);
        const json cards = json_of("podlog cards" + std::string(c.options))["cards"];
        EXPECT_EQ(cards.size(), c.count) << c.options;
        std::vector<std::string> places;
        for (const json &card : cards) {
            places.push_back(card["storage"].get<std::string>() + card["storage_id"].dump());
            if (card["id"].is_null())
                continue;
            EXPECT_GE(card["id"], 0);
            pod_storage_type_t type;
            pod_secondary_storage_type_t second_type;
            int id, second_id, row;
            ASSERT_EQ(
                podlog_get_pod_storage_info(card["id"], &type, &id, &second_type, &second_id, &row),
                1);
            EXPECT_EQ(card["storage"], type == PODSTORAGE_NVRAM ? "nvram" : "file");
            EXPECT_EQ(card["storage_id"], id);
            EXPECT_EQ(card["secondary_eeprom"], second_id < 0 ? json() : json(second_id));
        }
        std::sort(places.begin(), places.end());
        const bool shared = std::adjacent_find(places.begin(), places.end()) != places.end();
        EXPECT_EQ(shared, c.chassis < 0) << c.options; // only the built-in table's cards share logs
    }
}

TEST(devaccess, keeps_and_shows_logs_of_cards_that_share_an_id)
{
    start_chassis();
    expect_done("podlog prepare --chassis n20");
    EXPECT_EQ(run("podlog check --chassis n20").status, 0);
    const words cards = {"RPSW1", "RPSW2", "ALSW1", "ALSW2", "SW1", "SW2", "PM8"};
    for (const std::string &card : cards) {
        EXPECT_EQ(run({"podlog", "add", card, "text of " + card, "--level", "I: ", "--diag", "mem",
                       "--result", "OK", "--chassis", "n20"})
                      .error,
                  "");
        expect_done("podlog add --chassis n20 -- " + card + " \x1b[31mred");
    }
    for (const std::string &card : cards) {
        const json expected = {{{"message", "I: mem  OK  text of " + card}},
                               {{"message", "\\x1b[31mred"}}};
        EXPECT_EQ(json_of("podlog show --chassis n20 " + card)["entries"], expected) << card;
        expect_done("podlog next --chassis n20 " + card);
        expect_done("podlog add --chassis n20 " + card + " later");
        EXPECT_EQ(json_of("podlog list --chassis n20 " + card)["histories"],
                  json({{{"history", 1}}, {{"history", 0}}}));
        EXPECT_EQ(json_of("podlog show --chassis n20 " + card + " 0")["entries"], expected);
    }

    EXPECT_EQ(json_of("podlog copy ALSW2 --chassis n20 --eeprom /tmp/eeprom"),
              json({{"card", "ALSW2"}, {"history", 1}, {"copied", 1}}));
    EXPECT_EQ(json_of("podlog show ALSW2 --eeprom /tmp/eeprom")["entries"],
              json({{{"message", "later"}}}));
    expect_one_line("podlog list FT1 --eeprom /tmp/eeprom", 1, "no secondary storage");
}

TEST(devaccess, shows_the_entries_before_a_bad_one)
{
    start_chassis();
    expect_done("podlog prepare --chassis n20");
    for (const char *text : {"first", "second", "third"})
        expect_done(std::string("podlog add SW1 ") + text);
    std::fstream file("/var/pod/pod_sw1.hex", std::ios::in | std::ios::out | std::ios::binary);
    const std::string image((std::istreambuf_iterator<char>(file)), {});
    const auto break_checksum_of = [&](const char *text) {
        file.clear();
        file.seekp(static_cast<std::streamoff>(image.find(text)) - 8);
        file.write("bad!", 4).flush();
    };
    break_checksum_of("second");
    EXPECT_EQ(json_of("podlog show SW1")["entries"], json({{{"message", "first"}}}));
    break_checksum_of("first");
    expect_one_line("podlog show SW1 0", 1, "history 0 of SW1: ");
    expect_one_line("podlog show SW1 1", 1, "history 1 of SW1: it holds no good entry; 'dev");
}

uint32_t nvram_word(off_t position)
{
    uint8_t bytes[4] = {};
    const int file = ::open("/dev/nvlog-pod", O_RDONLY);
    EXPECT_EQ(::pread(file, bytes, 4, position), 4);
    ::close(file);
    return static_cast<uint32_t>(bytes[0] | bytes[1] << 8 | bytes[2] << 16) |
           static_cast<uint32_t>(bytes[3]) << 24;
}

TEST(devaccess, sets_the_status_and_fault_flag_of_the_card_it_is_told)
{
    start_chassis();
    expect_done("podlog prepare --chassis n20");
    constexpr off_t words_at = 16384 - 72;
    constexpr off_t mask_at = 16384 - 40;
    expect_done("podlog status ALSW1 passed --chassis n20");
    expect_done("podlog status SW4 failed --chassis n20");
    expect_done("podlog status RPSW2 0x12 --chassis n20");
    expect_done("podlog faults set ALSW2 --chassis n20");
    expect_done("podlog faults set SW4 --chassis n20");
    const uint32_t expected[] = {0x80000000, 0x12,       0,          0x80000000,
                                 0x80000000, 0x80000000, 0x80000000, 0x0fffffff};
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(nvram_word(words_at + 4 * i), expected[i]) << i;
    EXPECT_EQ(nvram_word(mask_at), 0x88u);

    EXPECT_EQ(json_of("podlog status ALSW1 --chassis n20"), json::parse(R"({"statuses":[
                  {"card":"ALSW1","index":2,"status":"Passed","value":0}]})"));
    EXPECT_EQ(json_of("podlog status --chassis n20")["statuses"].size(), 8u);
    const json faults = json_of("podlog faults --chassis n20");
    EXPECT_EQ(faults["mask"], 0x88);
    EXPECT_EQ(faults["faults"][3], json({{"card", "ALSW2"}, {"index", 3}, {"injected", true}}));
    expect_done("podlog faults clear SW4 --chassis n20");
    EXPECT_EQ(nvram_word(mask_at), 0x08u);
    expect_done("podlog faults clear-all");
    EXPECT_EQ(nvram_word(mask_at), 0u);
}

TEST(devaccess, follows_a_log)
{
    start_chassis();
    expect_done("podlog prepare --chassis n20");
    expect_done("podlog add SW1 one");
    const int out = ::memfd_create("out", 0);
    const pid_t follower = start(split("podlog show SW1 --follow --json"), out, STDERR_FILENO);
    const auto wait_for_lines = [&](int wanted) {
        std::string text;
        for (int look = 0; look < 200 && std::count(text.begin(), text.end(), '\n') < wanted;
             ++look) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            text = contents_of(::fcntl(out, F_DUPFD, 0));
        }
        return text;
    };
    wait_for_lines(1);
    expect_done("podlog add SW1 two");
    wait_for_lines(2);
    expect_done("podlog add SW1 three"); // and on, before it looks again
    expect_done("podlog next SW1");
    expect_done("podlog add SW1 four");
    std::istringstream lines(wait_for_lines(4));
    for (const char *message : {"one", "two", "three", "four"}) {
        std::string line;
        std::getline(lines, line);
        EXPECT_EQ(without_times(json::parse(line)), json({{"message", message}}));
    }
    ::kill(follower, SIGKILL);
    ::waitpid(follower, nullptr, 0);
}

//--- POST log -------------------------------------------------------------------------------------

TEST(devaccess, reads_post_logs_through_a_mapped_controller)
{
    start_chassis();
    std::fstream window(chassis_sim::pci_link("0000:03:00.0") + "/resource0",
                        std::ios::in | std::ios::out | std::ios::binary);
    window.seekp(0xF008); // each word that the controller gives
    window.write("\x10\x6f\x11\xe5", 4);
    window.close();
    expect_one_line("postlog show test --pcie 03:00.0:0", 1,
                    "invalid subblock # 275714533"); // the words again, as the index's number
    std::string control(4, '\0');
    std::ifstream written(chassis_sim::pci_link("0000:03:00.0") + "/resource0");
    written.seekg(0xF000).read(control.data(), 4);
    EXPECT_NE(control, std::string(4, '\0'));
}

} // namespace

// The programs devaccess and chassis-sim, as people and scripts run them.
#include "support/tool.h"

#include "tools/podlog/image.h"

#include <device_access/pod_log.h>

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
        write_file("/var/tmp/saved/" + log.name, log.image(chassis_sim::byte_order::little));
    expect("devaccess ", R"(
--json pci write 3:0.0 0x3c 0x5a --width 8 -> 0 | "value":90,"width":8
pci read 03:00.0 2 --width 16 -> 0 | id:        0000:03:00.0\noffset:    0x02\nwidth:     16\n
pci children 00:1c.0 -> 0 | ID            IDS        DRIVER  LINK         SLOT  CLASS              NAME\n0000:03:00.0  f0ca:0020  
pci show 00:19.0 --json -> 0 | "resources":[{"bar":0,"base":4043309056,"flags":262656,"kind":"32-bit memory","size":131072}]
pci caps 00:19.0 --json -> 0 | {"capability":5,"kind":"standard","name":"MSI","offset":72,
pci link-wait 00:1c.0 --json -> 0 | "link":"up"
pci bridge usable 00:1e.0 --json -> 0 | "usable":true
pci bridge usable 00:1c.0 --json -> 1 | "usable":false | "errno":2,"format":1
pci bridge enable 00:1e.0 --json -> 0 | "id":"0000:06:00.0"
pci bridge disable 00:1e.0 --json -> 0 | "id":"0000:00:1e.0"
pci children 00:1e.0 --json -> 0 | "devices":[]
uio list --json -> 0 | {"device":"/sys/devices/platform/regblock.0","driver":"regblock"
uio info uio0 --json -> 0 | "maps":[{"bar":0,"map":0,"offset":0,"size":4096},{"bar"
uio info sysfs_pci:uio_cma.alsw1 --json -> 0 | "emulated":true
uio write 0 1 0x18 18446744073709551615 --width 64 --json -> 0 | 0xffffffffffffffff
uio read /dev/uio0 1 0x1a --width 16 --json -> 0 | "value":65535,"value_hex":"0xffff"
uio wait /dev/uio0 --timeout 20 --json -> 0 | "event_count":1
postlog list error --json -> 0 | "histories":[{"block":"error","history":1}]
postlog show test --json -> 0 | {"block":"test","history":2,"message":"PCIe link: pass"}],"format":1,"history":2}
postlog show test --post-dir /var/tmp/saved -> 0 | PCIe link: pass
inventory store PM4 S1 PC --json -> 0 | "file":"/flash/diags/PM4.div"
inventory show PM4 --json -> 0 | "serial_number":"S1"
inventory clear RPSWfoo --json -> 0 | "file":"/var/log/diags/RPSW.div"
help pci read -> 0 | Read configuration registers
podlog cards --help -> 0 | --chassis TYPE
--version -> 0 | devaccess 0.
pci raed --json -> 2 | | "command":"devaccess pci","errno":null,"format":1,"hint":"did you mean 'read'? See
uio read uio0 5 0 -v -> 1 | | *
uio read uio0 5 0 -v 2>&1 |grep -c 'devaccess: library: .*mapinfo(): map.5. not found' -> 0 | 1\n
--complete '' |cut -f1 |xargs -> 0 | collect inventory mem metrics pci podlog postlog uio\n
--complete p -> 0 | podlog	POD logs of the cards\n
--complete pci read --w -> 0 | --width	in bits
--complete pci read 03:00.0 0 --width '' -> 0 | 16\n32\n8\n
--complete podlog --chassis=n10 show PM -> 0 | PM1\nPM2\nPM3\nPM4\nPM5\nPM6\n
--complete podlog --chassis=n -> 0 | --chassis=n10\n--chassis=n20\n--chassis=n4\n
--complete podlog status SW1 '' -> 0 | failed\ninvalid\npassed\n
--complete podlog copy SW1 --eeprom '' -> 0 | :paths\n
--complete pci show 0000:03 -> 0 | 0000:03:00.0\n
--complete pci read 0000:03:00.0 EXP_LNKS -> 0 | EXP_LNKSTA\nEXP_LNKSTA2\n
)");
    expect_documented();
}

TEST(devaccess, says_in_one_line_what_is_wrong)
{
    const bool is_root = ::getuid() == 0;
    start_chassis();
    std::fstream window(chassis_sim::pci_link("0000:03:00.0") + "/resource0",
                        std::ios::in | std::ios::out | std::ios::binary);
    window.seekp(0xF008).write("\x10\x6f\x11\xe5", 4).flush(); // each word that it gives
    expect("devaccess ", R"(
 -> 2 | | devaccess: A subcommand is required; see devaccess --help
pci raed 03:00.0 0 -> 2 | | 'raed' is no command; did you mean 'read'? See devaccess pci --help
podlgo list SW1 -> 2 | | 'podlgo' is no command; did you mean 'podlog'? See devaccess --help
podlog list SW1 --pod-dri x -> 2 | | '--pod-dri' is no option; did you mean '--pod-dir'? See devaccess podlog list
podlog list RPWS1 -> 1 | | of that name; did you mean 'RPSW1'? 'devaccess podlog cards' shows
podlog list SW9 -> 1 | | of that name; 'devaccess podlog cards' shows
pci read 03:00.0 -> 2 | | REGISTER is required; see devaccess pci read --help
pci read 3:0 0 -> 2 | | '3:0' names no PCI function; write 0000:03:00.0
pci read 03:00.0 12h -> 2 | | the offset '12h' is no number; write 26 or 0x1a
pci read 03:00.0 0x100000000 -> 2 | | 0x100000000 is too large; at most 0xffffffff
uio read /dev/uio0 0 0 --width '' -> 2 | | --width
uio wait /dev/uio0 --timeout nan -> 2 | | 'nan' is no number of seconds
uio read /dev/uio0 0 2 -> 2 | | must be a multiple of 4 bytes
uio write 0 0 '' 1 -> 2 | | the offset '' is no number
uio dump 0 0 0 6 -> 2 | | the length must be a multiple of 4 bytes
uio dump 0 0 0x1000 -> 1 | | the window has 0x1000 bytes
uio wait 0 --count 0 -> 2 | | the count must be at least 1
podlog status '' failed -> 2 | | CARD: it is empty
podlog show RPSW1 --chassis n30 -> 2 | | --chassis
inventory store SW1 123456789012345 P -> 2 | | is longer than 14 characters
podlog salvage -> 2 | | either CARD or --file
pci read 03:00.0 2 -> 1 | | register 0x2 of 0000:03:00.0: Invalid argument; offsets
pci read 03:00.0 0x1000 -> 1 | | beyond the end of the configuration space
pci show 99:00.0 -> 1 | | 0000:99:00.0: No such file or directory; 'devaccess pci list' shows
pci link-wait 00:19.0 -> 1 | | it has no PCI Express capability; ports of
pci bridge enable 00:1c.0 -> 1 | | it has no attribute 'bridge_enable'; hot-swap
uio info /dev/uio7 -> 1 | | open /dev/uio7: No such file or directory; 'devaccess uio list'
uio info sysfs_pci:uio_cma.sw9 -> 1 | | no such register block, or no card in that slot
uio read /dev/uio0 1 0xfffffffc -> 1 | | the window has 0x2000 bytes
uio read /dev/uio0 63 0 -> 1 | | map window 63 of /dev/uio0: there is none
uio wait sysfs_pci:uio_cma.alsw1 -> 1 | | Bad file descriptor; emulated devices
podlog show EXT1 -> 1 | | find the card EXT1: this chassis has none of that name
podlog copy FT1 --eeprom /tmp/e -> 1 | | the card has no secondary storage
podlog list SW1 --eeprom / -> 1 | | read /: Is a directory; is it a file
podlog salvage --file /none -> 1 | | there is no such file; 'devaccess podlog save'
podlog save RPSW1 /none/f -> 1 | | No such file or directory; is the directory there
podlog save RPSW1 --force /dev/null -> 1 | | it is no regular file
postlog show event 3 -> 1 | | history 3 of the POST event log:
postlog show test --pcie 03:00.0:0 -> 1 | | invalid subblock # 275714533
inventory show SW2 -> 1 | | open inventory /flash/diags/SW2.div: No such file or directory; 'dev
inventory clear SW9 -> 1 | | find the slot SW9
pci list >/dev/full -> 1 | | devaccess: cannot write standard output
pci list >&- -> 1 | | devaccess: cannot write standard output
--help >/dev/full -> 1 | | devaccess: cannot write standard output
)");
    // On a terminal, in colour; an ordinary user is told what is missing, whichever the command.
    expect("script -qec ", R"('devaccess pci children 0:1c.0' /dev/null -> 0 | [1mID  
'devaccess uio info 7' /dev/null -> 1 | [31mdevaccess:)");
    expect("DEVACCESS_CHASSIS=n3 devaccess ", R"(--complete podlog show '' -> 0
inventory store SW1 1 P -> 0)");
    if (is_root)
        expect("$USER1 ", R"(podlog prepare SW1 -> 1 | | ; run it as root\n
inventory clear SW1 -> 1 | | ; run it as root\n
uio read 0 0 0 -> 1 | | open /dev/uio0: Permission denied; run it as root\n
pci write 3:0.0 0 0 -> 1 | | ; run it as root\n)");
}

TEST(devaccess, walks_capability_lists_that_are_extended_broken_or_circular)
{
    start_chassis();
    const auto expect_ids = [](chassis_sim::config_builder &config, const string &ids) {
        chassis_sim::pci_function function;
        function.id = "0000:00:10.0";
        function.config = config.bytes();
        chassis_sim::add_pci(function);
        expect("devaccess ", R"(pci caps 0:10.0 --json |tr -dc a-z0-9:, |)"
                             R"(grep -o 'capability:[0-9]*\|complete:[a-z]*' |cut -d: -f2 |xargs)"
                             " -> 0 | " +
                                 ids + "\\n");
        chassis_sim::remove_pci(function.id);
    };
    chassis_sim::config_builder extended(0, 4096);
    extended.msi();
    extended.put32(0x100, 0x14010001).put32(0x140, 0x00010003);
    expect_ids(extended, "true 5 1 3");
    extended.put32(0x140, 0x10010003); // back to 0x100
    expect_ids(extended, "false 5 1 3");
    extended.put32(0x100, 0xffffffff);
    expect_ids(extended, "true 5");
    chassis_sim::config_builder circular(0x80); // of a device with several functions
    const uint8_t first = circular.power_management();
    const uint8_t second = circular.msi();
    for (const uint8_t next : {first, uint8_t{0x10}}) { // the second leads into the header
        circular.put8(second + 1u, next);
        expect_ids(circular, "false 1 5");
    }
}

//--- POD logs -------------------------------------------------------------------------------------

TEST(devaccess, writes_to_no_card_of_an_unknown_chassis)
{
    start_chassis("");
    expect("devaccess podlog ", R"(
cards -> 0 | RPSW1 | cards are those of the library's built-in table\n
cards --json -> 0 | "table":"built-in"
cards --json |grep -c '"card"' -> 0 | 22\n
cards --json --chassis n20 |grep -c '"card"' -> 0 | 18\n
cards --json --chassis n10 |grep -c '"card"' -> 0 | 12\n
cards --json --chassis n4 |grep -c '"card"' -> 0 | 13\n
cards --chassis n20 -> 0 | ALSW2  -   file     1           1\n
cards --chassis n20 --rp2 -> 0 | RPSW2  -   nvram    0 
cards 2>&- && devaccess --chassis n20 podlog cards -> 0 | PM8
add SW1 x -> 2 | | to write, the chassis type is needed: --chassis n20, n10 or n4, or the
copy SW1 --eeprom /tmp/e -> 2 | | to write, the chassis type is needed
prepare -> 2 | | to write, the chassis type is needed
status SW2 passed -> 2 | | to write, the chassis type is needed
faults clear-all -> 2 | | to write, the chassis type is needed
repair RPSW1 --yes -> 2 | | to write, the chassis type is needed
reset RPSW1 --yes -> 2 | | to write, the chassis type is needed
)");
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
    expect("devaccess podlog ", R"(
status -> 1 | | /dev/nvlog-pod is blank; 'devaccess podlog prepare RPSW1' makes a log
prepare -> 0
prepare RPSW1 --json -> 0 | "done":"kept"
check --json -> 0 | "good":true,"histories":0,"path":"/var/pod/pod_pem8.hex"
)");
    for (const char *card : {"RPSW1", "RPSW2", "ALSW1", "SW1", "PM8"}) {
        ::setenv("CARD", card, 1);
        expect("devaccess podlog ", R"rows(
add $(echo $CARD |tr A-Z a-z) "of $CARD" --level I --diag mem --result OK -> 0
add $CARD -- "$(printf '\033[31mred \134x1b \303\251')" -> 0
next --json $CARD -> 0 | "history":1
add $CARD later --json --level 'E: ' -> 0 | "message":"E: later","replaced":false
list --json $CARD -> 0 | "entries":1,"history":1
    },{"card":
show $CARD 0 |sed s/$CARD/it/g -> 0 | Z  I: mem  OK  of it\n
show --json $CARD 0 -> 0 | "history":0,"message":"\\x1b[31mred \\\\x1b é"}]
)rows");
    }
    expect("devaccess podlog ", R"(
add --strict SW2 $LONG -> 1 | | 64 characters and is cut to 63
list SW2 -> 0 | no histories
add SW2 $LONG -> 0 | | 64 characters and is cut to 63; write less
list SW2 && for i in $(seq 19); do devaccess podlog add SW2 $i; done -> 0 | *
add SW2 last --json -> 0 | "replaced":true
add SW2 x -> 0 | | its last entry is replaced; 'devaccess podlog next SW2' starts
add SW2 y --strict -> 1 | | its last entry is replaced
check SW2 -> 0 | yes   1          20       -
copy ALSW1 --eeprom /var/tmp/e -> 0 | copied:   1
copy ALSW1 --eeprom /var/tmp/e --json -> 0 | "copied":1
list ALSW1 --eeprom /var/tmp/e -> 0 | 1        1 
copy ALSW1 --eeprom /var/tmp/notes -> 1 | | neither empty nor an EEPROM's log
check && cat /var/tmp/notes -> 0 | my precious notes
copy ALSW1 --eeprom /var/tmp/notes --force -> 0 | copied:   1
status alsw1 PASSED -> 0
status RPSW2 0x12 -> 0
status RPSW2 -> 0 | RPSW2  1      Failed  0x00000012\n
status SW4 0xffffffff --json -> 0 | "status":"Invalid","value":4294967295
faults set ALSW2 -> 0
faults set SW4 --json -> 0 | "mask":136
faults -> 0 | ALSW2  3      yes\nSW1    4      no\n
faults clear SW4 --json -> 0 | "mask":8
faults clear-all --json -> 0 | "mask":0
status && od -An -tx4 -j 16312 -N 12 /dev/nvlog-pod -> 0 | 80000000 00000012 00000000
copy ALSW1 --eeprom /var/tmp/small/e -> 1 | | No space left on device; make room
save RPSW1 /var/tmp/small/s -> 1 | | No space left on device; make room
cards >&- 2>&-; ls -A /var/tmp/small -> 0
cards && yes >/flash/diags/full; devaccess inventory store SW1 1 P -> 1 | * | *
cards && ls -A /flash/diags -> 0 | full
)");
    ASSERT_EQ(::mount("small", "/var/pod", "tmpfs", 0, "size=8k"), 0);
    expect("devaccess podlog ", "prepare SW3 -> 1 | | cannot prepare the log of SW3");
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
    expect("devaccess podlog ", "add SW1 three -> 0\nnext SW1 -> 0\nadd SW1 four -> 0");
    wait_for("four\n");
    ::kill(follower, SIGKILL);
    ::waitpid(follower, nullptr, 0);
    const string seen = test::replaced(read_file("/var/tmp/seen"), ".*Z  ", "");
    EXPECT_EQ(seen, "E: later\nthree\nfour\n");
    expect("timeout 2 ", R"(devaccess podlog show SW1 --follow --json -> 124 | "message":"four")");
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
    expect("devaccess podlog ", "prepare SW2 -> 0\nadd SW2 x -> 0"); // for its EEPROM
    for (const storage &where : storages) {
        const string good = make_log(where);
        const auto with = [&](size_t position, const string &bytes) {
            return string(good).replace(position, bytes.size(), bytes);
        };
        std::map<string, string> images = {
            {"blank", string(good.size(), '\0')},
            {"truncated", good.substr(0, 100)},
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
    expect("devaccess podlog ", "prepare -> 0");
    make_log(storages[0]);
    expect("devaccess podlog ", "status ALSW1 failed -> 0\nfaults set SW1 -> 0");
    string damaged = read_file("/dev/nvlog-pod");
    const string words = damaged.substr(16384 - 72);
    damaged[48 + 1600 + 9] ^= 1;           // header of history 1
    damaged[48 + 3200 + 20 + 80 + 1] ^= 1; // entry 1 of history 2
    put_bytes("/dev/nvlog-pod", damaged);
    fs::resize_file("/var/pod/pod_sw2.hex", 100);
    expect("devaccess podlog ", R"(
add RPSW1 x -> 1 | | podlog_init: failed to initialize primary storage for instance id 1001!: header of
list RPSW1 -> 1 | unreadable:  1\n | 1 of 10 histories could not be read (header of history 1: bad check
show RPSW1 -> 1 | first 2 | history 2 of RPSW1: entry 1 of history 2: bad checksum
show RPSW1 0 -> 0 | second 0
check RPSW1 -> 1 | RPSW1  header  1        -      1648 | 1 of 1 storages are not
check --json -> 1 | 16284 bytes of 16384 are missing | "hint":"of RPSW1: 
check RPSW1 --all -> 1 | index   -        -      32  | *
status ALSW1 -> 0 | Failed
status ALSW1 passed -> 1 | | header of history 1: bad checksum; 'devaccess podlog check RPSW1' tells
prepare RPSW1 --yes -> 1 | | it holds a log, which is damaged
save RPSW1 /var/tmp/saved -> 0
save RPSW1 /var/tmp/saved -> 1 | | there is such a file
repair RPSW1 -> 1 | | 2 of its records are bad; 5 entries would be kept
repair RPSW1 --yes --save /var/tmp/saved -> 1 | | there is such a file
repair RPSW1 --yes --save /var/tmp/before -> 0 | entries:  5 | is saved in /var/tmp/before
show RPSW1 1 && cmp /var/tmp/saved /var/tmp/before -> 0 | second 1
repair RPSW1 --json -> 0 | "saved":null
list RPSW1 --nvram /var/tmp/saved -> 1 | * | 'devaccess podlog salvage RPSW1 --nvram /var/tmp/saved'
status --nvram /var/tmp/saved --json -> 0 | {"card":"ALSW1","index":2,"status":"Failed","value":
faults --nvram /var/tmp/saved -> 0 | mask:  0x00000010
salvage --file /var/tmp/saved --json -> 0 | "history":1,"message":"second 1"
show SW3 --pod-dir /var/pod -> 0 | no entries
)");
    EXPECT_EQ(read_file("/dev/nvlog-pod").substr(16384 - 72), words);
    expect("devaccess podlog ", R"(
reset RPSW1 -> 1 | | 5 entries in 3 histories, the status words and the fault flags would
reset RPSW1 --yes -> 0 | | lost: 5 entries in 3 histories
reset SW2 --yes --json -> 0 | "lost_entries":0
check -> 0 | *
status ALSW1 -> 0 | Invalid
)");
    expect_documented();
}

//--- texts ----------------------------------------------------------------------------------------

TEST(devaccess, describes_every_command)
{
    ::setenv("NOTES", SOURCE "/docs/devaccess.in.md", 1);
    expect("", R"(
devaccess --page man |diff - ${NOTES%/docs/*}/tools/cli/devaccess.1 -> 0
devaccess --page md <$NOTES |diff - ${NOTES%.in.md}.md -> 0
sed 's/info/none/' $NOTES |devaccess --page md -> 1 | | the notes have 'uio none' twice, or it is no
grep -v '### `metrics' $NOTES |devaccess --page md -> 1 | | the notes lack 'metrics'
sed -n 's/^### `\(.*\)`/"\1": {/p' $NOTES |while read -r i; do grep -qF "$i" )" SCHEMA
               R"( || echo $i; done -> 0
)");
}

//--- chassis-sim ----------------------------------------------------------------------------------

TEST(chassis_sim, shows_in_what_the_command_sees)
{
    ::setenv("IMAGES",
             (fs::temp_directory_path() / ("images" + std::to_string(::getpid()))).c_str(), 1);
    const string images = std::getenv("IMAGES");
    for (const char *file : {"pod", "nvlog-ofw-event", "nvlog-diag-test", "nvlog-diag-error"})
        write_file(images + "/" + file, string("contents of ") + file);
    // Makes the node of an NVRAM, as the library does.
    ::setenv("NODE", "node() { mknod /dev/$1 c $(tr : ' ' </sys/class/zmt_nvram/nvram$2/dev); }",
             1);
    ::setenv("LINK", "od -An -tx2 -j 90 -N 2 /sys/bus/pci/devices/0000:00:1c.0/config", 1);
    expect("chassis-sim ", R"(
--version -> 0 | chassis-sim 0.
-- sh -c 'ls /var/pod |wc -l; ls /sys/bus/pci/devices |wc -l; pwd' -> 0 | 17\n9\n/
--chassis n10 -- sh -c 'ls /var/pod |wc -l; ls /var/pod/pod_sw1.hex /var/pod/pod_pem7.hex' -> 2 | 11\n | *
--chassis n4 -- sh -c 'ls /var/pod |wc -l; grep -c "FT3 passed" /var/pod/pod_pem4.hex' -> 0 | 12\n2\n
--pod-log empty -- sh -c 'ls /var/pod 2>&-; eval "$NODE"; node nvlog-pod 0; tr -d \\0 </dev/nvlog-pod' -> 0
--post-log empty -- sh -c 'eval "$NODE"; node nvlog-ofw-event 1; tr -d \\0 </dev/nvlog-ofw-event' -> 0
--pod-log $IMAGES/pod -- sh -c 'eval "$NODE"; node nvlog-pod 0; cat /dev/nv* /sys/class/zmt_nvram/nvram0/size' -> 0 | contents of pod0xf\n
--post-log $IMAGES -- sh -c 'eval "$NODE"; node nvlog-diag-error 3; cat /dev/nvlog-*' -> 0 | contents of nvlog-diag-error
--pci-devices 100 -- sh -c 'ls /sys/bus/pci/devices |wc -l; cat /sys/bus/pci/devices/0000:21:00.0/device' -> 0 | 109\n0x0040\n
--uio-appears 1000 -- sh -c 'ls /dev/uio* 2>&-; until test -e /dev/uio0; do :; done' -> 0
--fault link-stuck --fault nvram-truncated -- sh -c '$LINK; eval "$NODE"; node nvlog-pod 0; wc -c </dev/nvlog-pod' -> 0 |  0841\n8192\n
--fault bridge-empty -- sh -c 'cd /sys/bus/pci/devices; echo 1 >0000:00:1e.0/bridge_enable; sleep 0.3; test -e 0000:06:00.0' -> 1
--fault nvram-truncated -- devaccess podlog repair RPSW1 --yes --chassis n20 -> 1 | | *
--version; echo '{"uio": [{"irq_control": false}], "timeline": [{"every_ms": 20, "do": "interrupt uio0"}]}' |chassis-sim --description /dev/stdin -- devaccess uio wait 0 --count 1 --timeout 20 -> 0 | /dev/uio0
--describe |sed 's/^{/{"faults": [{"device": "nvlog-pod", "call": "write", "error": "EIO"}],/' |chassis-sim --description /dev/stdin -- devaccess podlog reset RPSW1 --yes --chassis n20 -> 1 | | what was written did not arrive
)");
    fs::remove_all(images);
}

} // namespace

// This program defines libuio_log, so the library's diagnostics are on and their texts are tested.
#include "sim/chassis.h"
#include "support/captured_output.h"
#include "support/descriptors.h"
#include "support/libuio_messages.h"
#include "support/libuio_waits.h"

#include <device_access/libuio_emul.h>
#include <device_access/regiomap_x86.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

extern "C" {
int libuio_log;
}

namespace
{

// When armed, the next file to be mapped shrinks to this size just before, and the mapping fails.
off_t shrinks_to = -1;

} // namespace

// Takes the C library's place for the whole program, the library under test included.
void *mmap(void *addr, size_t length, int prot, int flags, int fd, off_t offset) noexcept
{
    if (shrinks_to >= 0) {
        const int result = ::ftruncate(fd, shrinks_to);
        shrinks_to = -1;
        errno = result == 0 ? EINVAL : errno;
        return MAP_FAILED;
    }
#ifdef SYS_mmap2
    return reinterpret_cast<void *>(
        ::syscall(SYS_mmap2, addr, length, prot, flags, fd, static_cast<long>(offset / 4096)));
#else
    return reinterpret_cast<void *>(::syscall(SYS_mmap, addr, length, prot, flags, fd, offset));
#endif
}

namespace
{

namespace fs = std::filesystem;
using chassis_sim::add_fpga_card;
using chassis_sim::add_hotswap_name;
using chassis_sim::fpga_card;
using chassis_sim::pci_link;
using chassis_sim::write_file;
using test_support::captured_output;
using test_support::libuio_messages;
using test_support::open_descriptors;

constexpr timespec no_wait = {0, 0};
constexpr size_t page = 4096;

libuio_dev_t *open_now(const std::string &name)
{
    return libuio_open_timed(name.c_str(), &no_wait);
}

std::string contents(const std::string &path)
{
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

//--- the tables -----------------------------------------------------------------------------------

// The register blocks of each type of FPGA, "BAR:FIRST-LAST" in hexadecimal per map. In resource 0
// LAST is where the last page starts, in the others the end.
const char blocks_of_types[] = R"(
[local zarnik]
uio_fe 1:0-ffffffff 0:1000-1000
uio_cmneqp 0:2000-6000
uio_cmbhub 0:10000-10000
uio_glb 0:0-0
[remote zarnik]
uio_fe 1:0-ffffffff 0:1000-1000
[local zarnik2]
uio_fe0 1:40000-80000 1:1000-2000 1:9000-a000 1:0-1000
uio_fe1 2:40000-80000 2:1000-2000 2:9000-a000 2:0-1000
uio_fe0_ntb 1:0-1000 1:1000-2000 1:9000-a000 1:8000-9000
uio_fe1_ntb 2:0-1000 2:1000-2000 2:9000-a000 2:8000-9000
uio_cmneqp 0:2000-5000
uio_cmbhub 0:a000-a000 0:8000-8000
uio_glb 0:0-0
[remote zarnik2]
uio_fe0 1:40000-80000 1:1000-2000 1:9000-a000 1:0-1000
uio_fe1 2:40000-80000 2:1000-2000 2:9000-a000 2:0-1000
uio_fe0_ntb 1:0-1000 1:1000-2000 1:9000-a000 1:8000-9000
uio_fe1_ntb 2:0-1000 2:1000-2000 2:9000-a000 2:8000-9000
uio_glb 0:0-0
[pellum]
uio_brd_ctrl 0:b0000-b0000
uio_rpmb 0:b3000-b3000
uio_config 0:b4000-b4000
uio_cma 0:b2000-b2000
uio_ch_i2c 0:b5000-b5000
[pellum2]
uio_brd_ctrl 0:0-0
uio_rpmb 0:3000-3000
uio_config 0:4000-4000
uio_cma 0:2000-2000
uio_ch_i2c 0:5000-5000
uio_spi_flsh 0:6000-6000
uio_nvram 1:0-ffffffff
[sw vostra]
uio_fe 1:0-ffffffff 0:6000-6000
uio_flash 0:1000-1000
uio_cma 0:4000-5000 0:2000-2000 0:8000-8000
[sw vostra2]
uio_fe0 1:40000-80000 1:1000-2000 0:38000-38000
uio_fe1 2:40000-80000 2:1000-2000 0:39000-39000
uio_flash 0:1000-1000
uio_cma 0:4000-5000 0:2000-2000 0:8000-8000
uio_ntb 0:22000-22000 0:23000-23000 0:30000-30000 0:31000-31000 0:32000-32000 0:33000-33000 0:38000-38000 0:39000-39000 1:1000-2000 2:1000-2000
[al vostra]
uio_fe 1:0-ffffffff 0:6000-6000
uio_flash 0:1000-1000
uio_cma 0:4000-5000 0:2000-2000 0:b000-b000 0:c000-d000
uio_pci 2:0-ffffffff 0:10000-14000 0:9000-9000 0:7000-7000
uio_tcm 0:a000-a000
[al vostrat]
uio_fe 1:0-ffffffff 0:6000-6000
uio_flash 0:1000-1000
uio_cma 0:4000-5000 0:2000-2000 0:b000-b000 0:c000-d000
uio_pci 2:0-ffffffff 0:10000-14000 0:9000-9000 0:7000-7000
uio_tcm 0:a000-a000
uio_spi 0:e000-e000
uio_cmb_emul 0:f000-f000
uio_i2c 0:3000-3000
[al vostra2]
uio_fe0 1:40000-80000 1:1000-2000 0:38000-38000
uio_fe1 2:40000-80000 2:1000-2000 0:39000-39000
uio_ge0 3:0-100000 4:0-4000000 0:0-0 0:2a000-2a000 0:3a000-3a000 0:7000-7000
uio_ge1 3:100000-200000 4:4000000-8000000 0:0-0 0:2c000-2c000 0:3b000-3b000 0:3000-3000
uio_mdio 0:9000-9000
uio_flash 0:1000-1000
uio_cma 0:4000-5000 0:2000-2000 0:b000-b000 0:c000-d000
uio_tcm 0:a000-a000
uio_spi 0:e000-e000
uio_cmb_emul 0:f000-f000
uio_ntb 0:22000-22000 0:23000-23000 0:30000-30000 0:31000-31000 0:32000-32000 0:33000-33000 0:34000-34000 0:35000-35000 0:3a000-3a000 0:3b000-3b000 0:38000-38000 0:39000-39000 0:2a000-2a000 0:2c000-2c000 1:1000-2000 2:1000-2000
)";

using block_set = std::set<std::string>; // lines of the above, whatever their order

// The blocks of a type; of all types for "".
block_set blocks_of(const std::string &type)
{
    block_set blocks;
    bool wanted = false;
    std::istringstream lines(blocks_of_types);
    for (std::string line; std::getline(lines, line);) {
        if (line[0] == '[')
            wanted = type.empty() || line == "[" + type + "]";
        else if (wanted)
            blocks.insert(line);
    }
    return blocks;
}

// A handle's maps in the form above.
std::string maps_text(const libuio_dev_t *uio)
{
    std::ostringstream text;
    text << std::hex;
    for (unsigned int i = 0; i < uio->map_count; ++i) {
        const libuio_map_t &map = uio->map[i];
        EXPECT_EQ(map.index, i);
        text << ' ' << map.bar << ':' << map.offset << '-'
             << map.offset + map.size - (map.bar == 0 ? page : 0);
    }
    EXPECT_EQ(libuio_get_map_limit(uio), uio->map_count);
    return text.str();
}

// The blocks that a card opens.
block_set blocks_of_card(const std::string &card)
{
    std::set<std::string> names;
    for (const std::string &line : blocks_of(""))
        names.insert(line.substr(0, line.find(' ')));
    block_set blocks;
    for (const std::string &name : names) {
        errno = 0;
        libuio_dev_t *uio = open_now("sysfs_pci:" + name + "." + card);
        EXPECT_TRUE(uio || errno == EINVAL) << name;
        if (uio)
            blocks.insert(name + maps_text(uio));
        libuio_close(uio);
    }
    return blocks;
}

// The number-th card: its port is 0000:00:0N.0, the device behind that 0000:0N:00.0.
fpga_card card_in(const std::string &slot, unsigned int number)
{
    const std::string digit = std::to_string(number);
    const std::vector<uint64_t> sizes = {0x40000, 0x80000, 0x80000, 0x200000, 0x8000000};
    return {slot, "0000:00:0" + digit + ".0", "0000:0" + digit + ":00.0", 0xff, sizes};
}

// Where the library finds the card's device.
std::string device_dir(unsigned int number)
{
    const fpga_card card = card_in("", number);
    return pci_link(card.port) + "/" + card.id;
}

std::string resource(unsigned int number, int bar)
{
    return device_dir(number) + "/resource" + std::to_string(bar);
}

TEST(libuio_emul, knows_every_fpga_by_slot_and_name_and_every_register_block)
{
    chassis_sim::enter_private_root();
    unsigned int number = 1;
    for (const char *slot : {"rpsw", "self", "peer", "sw1", "alsw1", "RPSW", "Sw2"}) {
        add_fpga_card(card_in(slot, number));
        fs::remove(resource(number++, 0)); // it cannot say what it is
    }
    add_hotswap_name("rpsw2", card_in("peer", 3).port);
    add_hotswap_name("RPSW2", card_in("peer", 3).port);
    write_file(pci_link("0000:0d:00.0") + "/enable", "0\n");
    const std::map<std::string, std::string> types = {
        // clang-format off
        {"rpsw", "local zarnik2"}, {"rpsw.zarnik", "local zarnik"},
        {"self.zarnik", "local zarnik"}, {"peer.zarnik", "remote zarnik"},
        {"rpsw.zarnik2", "local zarnik2"}, {"self.zarnik2", "local zarnik2"},
        {"peer.zarnik2", "remote zarnik2"}, {"rpsw.pellum", "pellum"}, {"self.pellum", "pellum"},
        {"rpsw.pellum2", "pellum2"}, {"self.pellum2", "pellum2"}, {"sw1", "sw vostra"},
        {"sw1.vostra_lite", "sw vostra"}, {"sw1.vostra2_lite", "sw vostra2"},
        {"alsw1", "al vostra2"}, {"alsw1.vostra", "al vostra"}, {"alsw1.vostrat", "al vostrat"},
        {"alsw1.vostra2", "al vostra2"},
        // The card at the peer's port is the peer.
        {"rpsw2", "remote zarnik2"}, {"rpsw2.zarnik", "remote zarnik"},
        {"rpsw2.zarnik2", "remote zarnik2"}, {"rpsw2.pellum", "pellum"},
        {"rpsw2.pellum2", "pellum2"},
        // Case counts for the name service and for the peer only.
        {"RPSW.Zarnik", "local zarnik"}, {"RPSW2", "local zarnik2"}, {"Sw2.VOSTRA_lite", "sw vostra"},
        {"rpsw.PELLUM", "pellum"},
        // clang-format on
    };
    captured_output output;
    for (const auto &[card, type] : types)
        EXPECT_EQ(blocks_of_card(card), blocks_of(type)) << card;
    for (const std::string slot : {"rpsw", "rpsw2", "self", "peer", "sw1", "alsw1"})
        for (const std::string fpga :
             {"", ".zarnik", ".zarnik2", ".pellum", ".pellum2", ".vostra", ".vostrat", ".vostra2",
              ".vostra_lite", ".vostra2_lite", ".-", ".zarnik3"})
            EXPECT_TRUE(types.contains(slot + fpga) || blocks_of_card(slot + fpga).empty())
                << slot + fpga;

    // Another address at "peer", or none, is another card.
    add_hotswap_name("peer", card_in("rpsw", 1).port.substr(1));
    EXPECT_EQ(blocks_of_card("rpsw2"), blocks_of("local zarnik2"));
    fs::remove("/dev/dynattr/rpsw/hotswap/byname/peer");
    EXPECT_EQ(blocks_of_card("rpsw2"), blocks_of("local zarnik2"));
}

TEST(libuio_emul, asks_the_fpga_what_it_is_when_the_name_does_not_say)
{
    chassis_sim::enter_private_root();
    struct {
        const char *slot;
        uint8_t code;
        const char *type;
    } cases[] = {
        {"rpsw", 0, "local zarnik"}, {"rpsw", 17, "local zarnik2"}, {"rpsw", 1, "local zarnik2"},
        {"alsw1", 1, "al vostra"},   {"alsw1", 34, "al vostrat"},   {"alsw1", 18, "al vostra2"},
        {"alsw1", 17, "al vostra2"}, {"sw1", 1, "sw vostra"},       {"sw1", 18, "sw vostra2"},
        {"sw1", 34, "sw vostra"},    {"self", 0, "none"},           {"alsw1", 255, "al vostra2"}};
    for (const auto &c : cases) {
        fpga_card card = card_in(c.slot, 1);
        card.code = c.code;
        add_fpga_card(card);
        EXPECT_EQ(blocks_of_card(c.slot), blocks_of(c.type)) << c.slot << int{c.code};
        EXPECT_EQ(contents("/proc/self/maps").find("/resource0"), std::string::npos);
        chassis_sim::remove_pci(card.port);
    }
}

//--- opening --------------------------------------------------------------------------------------

TEST(libuio_emul, tells_pseudo_names_by_their_beginning)
{
    EXPECT_EQ(libuio_is_emul("sysfs_pci:"), 1u);
    EXPECT_EQ(libuio_is_emul("sysfs_pci:uio_glb.rpsw"), 1u);
    for (const char *name : {"", "sysfs_pci", "Sysfs_pci:", " sysfs_pci:", "/dev/uio0"})
        EXPECT_EQ(libuio_is_emul(name), 0u) << name;
    EXPECT_EQ(libuio_is_emul(nullptr), 0u);
}

TEST(libuio_emul, takes_names_apart_and_refuses_what_is_missing)
{
    chassis_sim::enter_private_root();
    add_fpga_card(card_in("rpsw", 1));
    add_hotswap_name("rpsw567890123456789z", card_in("rpsw", 1).port);
    const std::set<std::string> good = {
        "uio_glb.rpsw.zarnik",
        "...uio_glb..rpsw...zarnik..more.and.more",
        "uio_glb.rpsw \t.a comment",
        "uio_glb.rpsw\nzarnik3",
        " uio_glb.rpsw",
        "uio_glb.rpsw567890123456789z",
        "UIO_glb.rpsw.",
        "uio_glb.rpsw567890123456789z, cut at 20",
    };
    const std::set<std::string> bad = {
        "",
        " ",
        ".",
        "uio_glb",
        "uio_glb.",
        ".rpsw",
        "uio_glb .rpsw",
        "uio_glb.rpsw3",
        "uio_glb./..",
        "uio_gl.rpsw",
        "uio_glb%s%n.rpsw%s",
        "uio_glb.rpsw.zarnik90123456789012345",
        "uio_glb" + std::string(40, 'x') + ".rpsw",
        "uio_glb.rpsw" + std::string(100000, 'x'),
    };
    const auto before = open_descriptors();
    captured_output output;
    for (const std::string &name : good) {
        libuio_dev_t *uio = open_now("sysfs_pci:" + name);
        ASSERT_NE(uio, nullptr) << name;
        EXPECT_EQ(uio->devnode_name, "sysfs_pci:" + name);
        libuio_close(uio);
    }
    for (const std::string &name : bad) {
        errno = 0;
        EXPECT_EQ(open_now("sysfs_pci:" + name), nullptr) << name.substr(0, 80);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(output.take_stdout(), "");
    EXPECT_EQ(open_descriptors(), before + 4); // those of the capture
    EXPECT_EQ(libuio_emul_open_timed(nullptr, &no_wait), nullptr);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(libuio_emul_open_timed("/dev/uio0", &no_wait), nullptr);
    EXPECT_EQ(errno, EINVAL);
}

TEST(libuio_emul, fills_the_handle_and_enables_the_device_until_it_is_closed)
{
    chassis_sim::enter_private_root();
    add_fpga_card(card_in("alsw1", 1));
    const std::string dir = device_dir(1);
    const auto before = open_descriptors();
    libuio_dev_t *uio = open_now("sysfs_pci:uio_ge1.alsw1.vostra2");
    ASSERT_NE(uio, nullptr) << strerror(errno);
    EXPECT_EQ(contents(dir + "/enable"), "1\n");
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_STREQ(libuio_get_real_devnode(uio), "sysfs_pci:uio_ge1.alsw1.vostra2");
    EXPECT_EQ(libuio_get_sys_class_dir(uio), dir);
    EXPECT_EQ(libuio_get_sys_device_dir(uio), dir);
    EXPECT_EQ(libuio_get_uio_fd(uio), -1);
    EXPECT_EQ(libuio_get_removed_fd(uio), -1);
    EXPECT_EQ(uio->tmr_fd, 0);
    EXPECT_EQ(libuio_irqwait(uio, nullptr, nullptr), -1);
    EXPECT_EQ(errno, EBADF);
    libuio_close(uio);
    EXPECT_EQ(contents(dir + "/enable"), "0\n");
    EXPECT_NE(fcntl(0, F_GETFD), -1) << "descriptor 0 is not the handle's";

    EXPECT_EQ(libuio_emul_device_enable(nullptr, 1), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST(libuio_emul, waits_for_the_device_within_its_budget)
{
    chassis_sim::enter_private_root();
    const std::string name = "sysfs_pci:uio_fe.sw1.vostra_lite";
    test_support::expect_waits_within_budget(name.c_str(), EINVAL);
    chassis_sim::background([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(40));
        add_fpga_card(card_in("sw1", 1));
    });
    libuio_dev_t *uio = libuio_open(name.c_str());
    ASSERT_NE(uio, nullptr) << strerror(errno);
    libuio_close(uio);
}

TEST(libuio_emul, finds_the_first_device_behind_the_port_that_the_name_service_gives)
{
    chassis_sim::enter_private_root();
    const std::string port = "0000:00:01.0";
    const std::string longest = "0000:" + std::string(209, 'x');
    struct {
        std::string address;                  // what the name service says
        std::vector<std::string> directories; // of that port
        std::string found;                    // one of these; empty: none
        int error;
    } cases[] = {
        {port + "x", {"0000:05:00.0"}, "", EINVAL}, // 13 bytes
        {"", {"0000:05:00.0"}, "", EINVAL},
        {port, {}, "", EINVAL},
        {port, {port + ":pcie001", "0001:05:00.0", "0000", "power"}, "", EINVAL},
        {port, {"0000:1f:00.0", "0000:0a:00.0", "0000:ff:00.0"}, "0000:0a:00.0", 0},
        {port, {longest}, longest, 0},
        {port, {longest + "x"}, "", ENAMETOOLONG}, // one too long to enable it
        {port, {"0000:" + std::string(240, 'x')}, "", EINVAL},
    };
    const auto before = open_descriptors();
    for (const auto &c : cases) {
        chassis_sim::make_directory("/sys/bus/pci/devices");
        const std::string dir = pci_link(c.address) + "/";
        add_hotswap_name("sw1", c.address);
        for (const std::string &name : c.directories)
            write_file(dir + name + "/enable", "0");
        write_file(dir + "0000:00:00.0", "not a directory");
        chassis_sim::make_symlink(dir + "0000:00:00.1", "/tmp");
        errno = 0;
        libuio_dev_t *uio = open_now("sysfs_pci:uio_flash.sw1.vostra_lite");
        EXPECT_EQ(uio ? libuio_get_sys_device_dir(uio) : "", c.found.empty() ? "" : dir + c.found);
        EXPECT_TRUE(uio || errno == c.error) << strerror(errno);
        libuio_close(uio);
        fs::remove_all("/sys/bus");
    }
    EXPECT_EQ(open_now("sysfs_pci:uio_flash.sw1"), nullptr) << "no such port";
    write_file("/dev/dynattr/rpsw/hotswap/byname/sw2", port);
    EXPECT_EQ(open_now("sysfs_pci:uio_flash.sw2"), nullptr) << "no attribute";
    EXPECT_EQ(open_descriptors(), before);
}

TEST(libuio_emul, fails_when_the_device_cannot_be_enabled)
{
    chassis_sim::enter_private_root();
    add_fpga_card(card_in("sw1", 1));
    const std::string enable = device_dir(1) + "/enable";
    struct {
        std::function<void()> damage;
        std::string message;
        int error;
    } cases[] = {
        {[] {}, "open ", ENOENT},
        {[&] { fs::create_directory(enable); }, "open ", EISDIR},
        {[&] { fs::create_symlink("/dev/full", enable); }, "write to ", ENOSPC},
    };
    captured_output output;
    for (const auto &c : cases) {
        fs::remove(enable);
        c.damage();
        const auto before = open_descriptors();
        EXPECT_EQ(open_now("sysfs_pci:uio_flash.sw1"), nullptr);
        EXPECT_EQ(errno, c.error);
        EXPECT_EQ(libuio_messages(output.take_stdout()),
                  "LOG_ERR libuio_emul_device_enable: Failed to " + c.message + enable +
                      " (errno=" + std::to_string(c.error) + ")\n");
        EXPECT_EQ(open_descriptors(), before);
    }
    // The pellum2's place is fixed, and nobody looks whether it is there before it is enabled.
    EXPECT_EQ(open_now("sysfs_pci:uio_cma.self.pellum2"), nullptr);
    EXPECT_EQ(errno, ENOENT);
}

//--- mapping --------------------------------------------------------------------------------------

TEST(libuio_emul, maps_ranges_of_the_resource_files)
{
    chassis_sim::enter_private_root();
    add_fpga_card(card_in("alsw1", 1));
    libuio_dev_t *uio = open_now("sysfs_pci:uio_pci.alsw1.vostra");
    ASSERT_NE(uio, nullptr) << strerror(errno);
    captured_output output;
    EXPECT_EQ(libuio_mmap(uio, 1 | 4), 2);
    EXPECT_EQ(libuio_messages(output.take_stderr()),
              "LOG_INFO libuio_emul_mmap: skip: m=0, index=0, map->addr=(nil) \n"
              "LOG_INFO libuio_emul_mmap: skip: m=1, index=2, map->addr=(nil) \n");
    size_t size = 0;
    EXPECT_EQ(libuio_get_mapinfo(uio, 0, &size), nullptr);
    EXPECT_EQ(size, 0xffffffff);
    EXPECT_EQ(libuio_mmap(uio, 0), 2);
    std::ostringstream mapped;
    mapped << "skip: m=1, index=1, map->addr=" << libuio_get_mapinfo(uio, 1, nullptr) << " \n";
    EXPECT_NE(output.take_stderr().find(mapped.str()), std::string::npos);
    EXPECT_EQ(output.take_stdout(), "");

    struct {
        int bar;
        off_t offset;
        size_t size;
    } expected[] = {{2, 0, 0x80000}, {0, 0x10000, 0x5000}, {0, 0x9000, page}, {0, 0x7000, page}};
    unsigned int index = 0;
    for (const auto &map : expected) {
        char *window = static_cast<char *>(libuio_get_mapinfo(uio, index, &size));
        ASSERT_NE(window, nullptr);
        EXPECT_EQ(size, map.size);
        iowrite32(0xfade0000 + index, window + size - 4);
        const int fd = open(resource(1, map.bar).c_str(), O_RDONLY);
        uint32_t stored = 0;
        EXPECT_EQ(pread(fd, &stored, 4, map.offset + static_cast<off_t>(map.size) - 4), 4);
        close(fd);
        EXPECT_EQ(stored, 0xfade0000 + index++);
    }
    libuio_munmap(uio, 2);
    EXPECT_EQ(libuio_get_mapinfo(uio, 0, nullptr), nullptr);
    EXPECT_NE(libuio_get_mapinfo(uio, 1, nullptr), nullptr);
    EXPECT_EQ(libuio_mmap(uio, 0), 3);
    libuio_close(uio);
    EXPECT_EQ(libuio_emul_mmap(nullptr, 0), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST(libuio_emul, says_which_range_cannot_be_mapped_and_why)
{
    chassis_sim::enter_private_root();
    add_fpga_card(card_in("alsw1", 1));
    const char *const all = sizeof(long) == 8 ? "4294967295" : "-1"; // of resource 1: map 0
    struct {
        off_t sizes[2]; // of the resource files; -1: missing, -2: a directory
        unsigned int offset;
        size_t size; // of map 1, a range of resource 0
        int result;
        int error;
    } cases[] = {
        {{0x6000, page}, 0x6000, page, -1, EINVAL},     {{0x6fff, page}, 0x6000, page, -1, EINVAL},
        {{0x7000, 0x1800}, 0x6000, page, 0, EINVAL},    {{0x7000, 0}, 0x6000, page, 0, EINVAL},
        {{0x7000, -1}, 0x6000, page, 0, ENOENT},        {{-1, page}, 0x6000, page, -1, ENOENT},
        {{-2, page}, 0x6000, page, -1, EISDIR},         {{0x7000, page}, 0x5800, page, -1, EINVAL},
        {{0x7000, page}, 0x6000, 100, -1, EINVAL},      {{0x7000, page}, 0x6000, 0, -1, EINVAL},
        {{0x7000, page}, 0xfffff000, page, -1, EINVAL},
    };
    for (const auto &c : cases) {
        for (int bar : {0, 1}) {
            fs::remove(resource(1, bar));
            if (c.sizes[bar] == -2)
                fs::create_directory(resource(1, bar));
            if (c.sizes[bar] < 0)
                continue;
            write_file(resource(1, bar), "");
            ASSERT_EQ(truncate(resource(1, bar).c_str(), c.sizes[bar]), 0);
        }
        libuio_dev_t *uio = open_now("sysfs_pci:uio_fe.alsw1.vostra");
        ASSERT_NE(uio, nullptr);
        uio->map[1].offset = c.offset;
        uio->map[1].size = c.size;
        const auto before = open_descriptors();
        {
            captured_output output;
            EXPECT_EQ(libuio_mmap(uio, 0), c.result);
            EXPECT_EQ(errno, c.error);
            std::ostringstream message;
            message << "LOG_ERR libuio_emul_mmap: mmap(";
            if (c.result == 0)
                message << all << ", (0*4096)),0,1 failed : ";
            else
                message << c.size << ", (1*4096))," << std::hex << c.offset << ",0 failed : ";
            message << strerror(c.error) << "\n";
            EXPECT_EQ(libuio_messages(output.take_stdout()), message.str());
        }
        EXPECT_EQ(open_descriptors(), before);
        libuio_close(uio);
    }
    // Without its registers the FPGA cannot say what it is.
    fs::remove(resource(1, 0));
    captured_output output;
    libuio_close(open_now("sysfs_pci:uio_mdio.alsw1"));
    EXPECT_EQ(libuio_messages(output.take_stdout()),
              "LOG_ERR get_fpga_name: mmap((nil), 0x1000) failed\n");
}

TEST(libuio_emul, maps_a_resource_that_shrinks_meanwhile_as_far_as_it_goes)
{
    chassis_sim::enter_private_root();
    add_fpga_card(card_in("rpsw", 1));
    libuio_dev_t *uio = open_now("sysfs_pci:uio_cmneqp.rpsw.zarnik2"); // 0x4000 bytes at 0x2000
    ASSERT_NE(uio, nullptr);
    shrinks_to = 0x4000;
    EXPECT_EQ(libuio_mmap(uio, 0), 1);
    size_t size = 0;
    EXPECT_NE(libuio_get_mapinfo(uio, 0, &size), nullptr);
    EXPECT_EQ(size, 0x2000u);
    libuio_munmap(uio, 0);
    shrinks_to = 0x2000;
    EXPECT_EQ(libuio_mmap(uio, 0), 0) << "nothing is left of the range";
    EXPECT_EQ(errno, EINVAL);
    libuio_close(uio);
}

TEST(libuio_emul, maps_a_whole_resource_only_if_the_address_space_can_hold_it)
{
    chassis_sim::enter_private_root();
    add_fpga_card(card_in("sw1", 1));
    const off_t size = (off_t{1} << 32) + 0x10000;
    ASSERT_EQ(truncate(resource(1, 1).c_str(), size), 0);
    libuio_dev_t *uio = open_now("sysfs_pci:uio_fe.sw1.vostra_lite");
    ASSERT_NE(uio, nullptr);
    const bool fits = sizeof(size_t) == 8;
    EXPECT_EQ(libuio_mmap(uio, 0), fits ? 2 : 0);
    EXPECT_TRUE(fits || errno == ENOMEM) << strerror(errno);
    EXPECT_EQ(libuio_get_mapinfo(uio, 0, nullptr) != nullptr, fits);
    libuio_close(uio);
}

TEST(libuio_emul, reaches_a_pellum_by_physical_address)
{
    chassis_sim::enter_private_root();
    write_file("/dev/mem", std::string(0xb4000, '\0'));
    libuio_dev_t *uio = open_now("sysfs_pci:uio_rpmb.rpsw1.pellum");
    ASSERT_NE(uio, nullptr) << strerror(errno);
    EXPECT_STREQ(libuio_get_sys_device_dir(uio), "/dev/");
    captured_output output;
    ASSERT_EQ(libuio_mmap(uio, 0), 1);
    iowrite8('!', libuio_get_mapinfo(uio, 0, nullptr));
    EXPECT_EQ(contents("/dev/mem")[0xb3000], '!');
    EXPECT_EQ(output.take_stdout(), "");
    libuio_close(uio);
    EXPECT_EQ(libuio_messages(output.take_stdout()),
              "LOG_ERR libuio_emul_device_enable: Failed to open /dev//enable (errno=2)\n");
}

} // namespace

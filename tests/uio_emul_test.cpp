// Emulated UIO devices: the blocks of each FPGA, what names lead to, what is mapped, and failing
// calls. This program defines libuio_log, so diagnostics are on.
#include "support/register_trap.h"
#include "support/uio.h"

#include <utility>

#include <dlfcn.h>

extern "C" {
int libuio_log;
}

// When set, the next file to be mapped shrinks to this size just before, and the mapping fails.
static off_t shrinks_to = -1;
// When set, what the next file to be mapped is mapped to.
static void *stand_in;

// Takes the C library's place for the whole program, the library under test included.
void *mmap(void *addr, size_t length, int prot, int flags, int fd, off_t offset) noexcept
{
    static const auto next = reinterpret_cast<decltype(&mmap)>(dlsym(RTLD_NEXT, "mmap64"));
    if (fd >= 0 && stand_in)
        return std::exchange(stand_in, nullptr);
    const off_t size = std::exchange(shrinks_to, -1);
    if (size < 0)
        return next(addr, length, prot, flags, fd, offset);
    errno = ::ftruncate(fd, size) == 0 ? EINVAL : errno;
    return MAP_FAILED;
}

namespace
{

namespace fs = std::filesystem;
using namespace chassis_sim;
using namespace test;

// The number-th card: its port is 0000:00:0N.0, the device behind that 0000:0N:00.0.
fpga_card card_in(const std::string &slot, unsigned int number = 1, uint8_t code = 0xff)
{
    return {slot,
            printed("0000:00:0%u.0", number),
            printed("0000:0%u:00.0", number),
            code,
            {0x40000, 0x80000, 0x80000, 0x200000, 0x8000000}};
}

// Where the library finds the first card's device.
const std::string device_dir = pci_link("0000:00:01.0") + "/0000:01:00.0";

void start_chassis(const std::string &slot, uint8_t code = 0xff)
{
    enter_private_root();
    add_fpga_card(card_in(slot, 1, static_cast<uint8_t>(code)));
}

libuio_dev_t *open_block(const std::string &name)
{
    return open_now(("sysfs_pci:" + name).c_str());
}

//--- the tables -----------------------------------------------------------------------------------

// All register blocks that a card opens, with their maps.
std::string blocks_of(const std::string &card)
{
    std::string text;
    output_of([&] {
        for (const std::string &block :
             words("brd_ctrl ch_i2c cma cmb_emul cmbhub cmneqp config fe fe0 fe0_ntb fe1 fe1_ntb "
                   "flash ge0 ge1 glb i2c mdio ntb nvram pci rpmb spi spi_flsh tcm")) {
            errno = 0;
            libuio_dev_t *uio = open_block("uio_" + block + "." + card);
            if (uio || errno != EINVAL)
                text += block + ": " + (uio ? maps_text(uio) : strerror(errno)) + "\n";
            libuio_close(uio);
        }
    });
    return text;
}

TEST(uio_emul, knows_the_register_blocks_of_every_fpga)
{
    enter_private_root();
    for (unsigned int number = 1; const std::string &slot : words("rpsw peer sw1 alsw1"))
        add_fpga_card(card_in(slot, number++));
    write_file(pci_link("0000:0d:00.0") + "/enable", "0\n");
    for (const auto &[type, card] :
         {std::pair<std::string, std::string>{"local_zarnik", "rpsw.zarnik"},
          {"remote_zarnik", "peer.zarnik"},
          {"local_zarnik2", "rpsw.zarnik2"},
          {"remote_zarnik2", "peer.zarnik2"},
          {"pellum", "rpsw.pellum"},
          {"pellum2", "rpsw.pellum2"},
          {"sw_vostra", "sw1.vostra_lite"},
          {"sw_vostra2", "sw1.vostra2_lite"},
          {"al_vostra", "alsw1.vostra"},
          {"al_vostrat", "alsw1.vostrat"},
          {"al_vostra2", "alsw1.vostra2"}})
        EXPECT_TEXT("fpga/" + type + ".txt", blocks_of(card));
}

//--- names ----------------------------------------------------------------------------------------

std::string lasting(const std::string &text)
{
    return replaced(replaced(text, "realloc \\([0-9]+", "realloc (SIZE"), "addr=0x[0-9a-f]+",
                    "addr=ADDRESS");
}

void show_opening(transcript &seen, const std::string &name)
{
    libuio_dev_t *uio = nullptr;
    seen.call(name, [&] { return uio = open_block(name); });
    if (!uio)
        return;
    const std::string dir = libuio_get_sys_device_dir(uio);
    EXPECT_EQ(dir, libuio_get_sys_class_dir(uio));
    EXPECT_EQ("sysfs_pci:" + name, libuio_get_real_devnode(uio));
    EXPECT_EQ(printed("%d %d %d", uio->uio_fd, uio->gone_fd, uio->tmr_fd), "-1 -1 0");
    EXPECT_OUTCOME(libuio_irqwait(uio, nullptr, nullptr), {.value = -1, .error = EBADF});
    seen.note("  in " + dir + ": " + maps_text(uio));
    const auto enabled = [&] { return read_file(dir + "/enable").substr(0, 1); };
    seen.note("  enabled: " + enabled());
    output_of([&] { libuio_close(uio); });
    seen.note("  and when it is closed: " + enabled());
}

TEST(uio_emul, finds_blocks_by_their_names)
{
    enter_private_root();
    for (unsigned int number = 1; const std::string &slot : words("rpsw peer sw1 alsw1"))
        add_fpga_card(card_in(slot, number++, 1));
    write_file(pci_link("0000:0d:00.0") + "/enable", "0\n");
    for (const std::string &slot : words("rpsw2 self RPSW2"))
        add_hotswap_name(slot, "0000:00:02.0"); // the peer's
    for (const std::string &slot : words("RPSW xrpsw sw345678901234567890"))
        add_hotswap_name(slot, "0000:00:01.0");
    fpga_card beside_the_peer = card_in("rpsw3", 6);
    beside_the_peer.port = "0000:00:02.1";
    add_fpga_card(beside_the_peer);
    add_hotswap_name("sw2", "0000:00:09.0"); // which is not there
    add_hotswap_name("sw3", "");
    add_hotswap_name("sw5", "0000:00:01.0x"); // too long
    make_directory(pci_link("0000:00:01.0x") + "/0000:05:00.0");
    transcript seen;
    for (const std::string &name :
         words("uio_glb.rpsw.zarnik uio_glb.rpsw2.zarnik uio_glb.rpsw2.zarnik2 uio_fe.rpsw2.zarnik "
               "uio_fe.self.zarnik uio_glb.self.zarnik uio_cmneqp.rpsw2.zarnik2 uio_fe.sw1.v "
               "uio_cmneqp.RPSW2.zarnik2 uio_cmneqp.rpsw3.zarnik2 uio_fe.sw5 "
               "uio_glb.rpsw uio_cma.rpsw.pellum uio_cma.self.pellum "
               "uio_cma.peer.pellum uio_cma.rpsw.pellum2 uio_nvram.rpsw2.pellum2 "
               "uio_fe.sw1 UIO_FE.sw1 uio_fe.SW1 uio_fe.RPSW.Zarnik uio_fe.xrpsw.zarnik "
               "uio_fe.sw1.VOSTRA_lite uio_fe.sw1.vostra .uio_fe..sw1...vostra_lite "
               "uio_fe.sw1.vostra_lite.x uio_fe.sw1.vostra_litex uio_fe.sw1. uio_fe. uio_fe . "
               "uio_fe.sw345678901234567890xyz uio_fe.sw1.vostra_lite45678901234567890 "
               "uio_fe45678901234567890.sw1 uio_fex.sw1 uio_f.sw1 fe.sw1 uio-fe.sw1 uio_.sw1 "
               "uio_fe.sw2 uio_fe.sw3 uio_fe.sw4 uio_cma.alsw1 uio_cma.alsw1.vostrat"))
        show_opening(seen, name);
    for (const char *name :
         {"", " uio_fe.sw1", "uio_fe.sw1 y", "uio_fe.sw1.vostra_lite\ty", "uio_fe .sw1", "\n"})
        show_opening(seen, name);
    EXPECT_TEXT("uio_emul/names.txt", lasting(seen.text()));
    for (const std::string space : {"\v", "\f", "\r"})
        held("sysfs_pci:" + space + "uio_fe.sw1" + space + "x");
    open_block("uio_none.sw1.vostra_lite");
    EXPECT_EQ(read_file(pci_link("0000:00:03.0") + "/0000:03:00.0/enable")[0], '0');

    for (const char *name : {static_cast<const char *>(nullptr), "/dev/uio0", "sysfs_pci",
                             "Sysfs_pci:uio_fe.sw1", " sysfs_pci:uio_fe.sw1"}) {
        EXPECT_EQ(libuio_is_emul(name), 0u);
        EXPECT_OUTCOME(libuio_emul_open_timed(name, &no_wait), {.value = nullptr, .error = EINVAL});
    }
    EXPECT_EQ(libuio_is_emul("sysfs_pci:"), 1u);
    EXPECT_OUTCOME(libuio_emul_mmap(nullptr, 0), {.value = -1, .error = EINVAL});
    EXPECT_OUTCOME(libuio_emul_device_enable(nullptr, 1), {.value = -1, .error = EINVAL});
}

TEST(uio_emul, asks_the_fpga_what_it_is)
{
    enter_private_root();
    transcript seen;
    for (unsigned int number = 1; const std::string &slot : words("rpsw sw1 alsw1")) {
        const fpga_card card = card_in(slot, number++);
        add_fpga_card(card);
        for (const int code : {0x00, 0x01, 0x11, 0x12, 0x22, 0x41, 0x81, 0xff}) {
            std::string registers(4096, '\x12');
            registers[0x2a] = static_cast<char>(code);
            write_file(pci_link(card.port) + "/" + card.id + "/resource0", registers);
            seen.note(printed("code 0x%x", static_cast<unsigned int>(code)));
            for (const std::string &block : words("fe glb mdio flash cma"))
                show_opening(seen, "uio_" + block + "." + slot);
        }
    }
    EXPECT_TEXT("uio_emul/codes.txt", lasting(seen.text()));
}

TEST(uio_emul, asks_the_fpga_by_one_access_of_32_bits)
{
    start_chassis("alsw1");
    register_trap registers(4096, [](size_t, unsigned) { return 0x00220000; });
    stand_in = registers.base();
    held("sysfs_pci:uio_pci.alsw1"); // which this code's FPGA has
    EXPECT_EQ(registers.take_log(),
              (std::vector<register_access>{{register_access::read, 0x28, 4, 0x00220000}}));
}

TEST(uio_emul, takes_the_first_device_behind_the_port)
{
    start_chassis("sw1");
    const std::string port = pci_link("0000:00:01.0");
    transcript seen;
    const auto show = [&](const std::string &what) {
        seen.note(what);
        show_opening(seen, "uio_fe.sw1");
    };
    for (const std::string &name : words("0000:00:01.0:pcie001 0000:ff:00.0 0001:00:00.0 power"))
        make_directory(port + "/" + name);
    make_symlink(port + "/0000:00:00.1", device_dir);
    write_file(port + "/0000:00:00.0", "not a directory");
    show("not another domain, a file, a link or the port's own service");
    fs::resize_file(device_dir + "/resource0", 4095);
    show("a resource that is too small");
    fs::remove(device_dir + "/resource0");
    show("without a resource");
    fs::remove(device_dir + "/enable");
    show("without enable");
    make_directory(device_dir + "/enable");
    show("enable is a directory");
    fs::remove_all(device_dir);
    show("the next device");
    fs::remove_all(port + "/0000:ff:00.0");
    show("no device");
    EXPECT_TEXT("uio_emul/devices.txt", lasting(seen.text()));
}

//--- each failing call ----------------------------------------------------------------------------

const char *enabled; // the first byte of the device's "enable"

// Opens, maps and closes a block; 0, or the errno of the call that failed, and 1000 more when the
// device is left enabled.
int round()
{
    libuio_dev_t *uio = open_now("sysfs_pci:uio_flash.sw1");
    const int error = uio && libuio_mmap(uio, 0) == 1 ? 0 : errno;
    libuio_close(uio);
    return error + (*enabled == '1' ? 1000 : 0);
}

TEST(uio_emul, each_failing_call_gives_its_errno_and_leaves_nothing_and_the_device_disabled)
{
    start_chassis("sw1", 1);
    const std::string file = device_dir + "/enable";
    enabled = static_cast<char *>(
        mmap(nullptr, 1, PROT_READ, MAP_SHARED, open(file.c_str(), O_RDONLY), 0));
    EXPECT_EQ(opens_of(round), "O_RDWR " + device_dir + "/resource0\nO_WRONLY " + file +
                                   "\nO_RDWR " + device_dir + "/resource0\nO_WRONLY " + file +
                                   "\n");
    // What cannot be looked up is not there; an FPGA that cannot be asked is of the default type.
    expect_failures("uio_emul", EIO, round);
    // Failures of the clean-up do not hide the first.
    const auto judge = [](const run &seen) {
        const bool of_handle = seen.failed >= "allocation 3" && seen.failed <= "allocation 9";
        EXPECT_TRUE(!of_handle || seen.seen.value.number % 1000 == ENOMEM) << seen;
    };
    fail_each_call(EIO, round, judge, EXDEV);
}

//--- mapping --------------------------------------------------------------------------------------

TEST(uio_emul, maps_ranges_of_resources)
{
    enter_private_root();
    add_fpga_card(card_in("alsw1"));
    libuio_dev_t *uio = opened("sysfs_pci:uio_cma.alsw1.vostra2");
    transcript seen;
    const auto show = [&](const std::string &what, size_t mask) {
        seen.note(what);
        SHOW(seen, libuio_mmap(uio, mask));
        seen.note("  " + maps_text(uio));
    };
    show("but the first", 1);
    show("and that", 0);
    show("once more", 2);
    EXPECT_OUTCOME(libuio_munmap(uio, 6), {});
    seen.note("unmapped but 1 and 2: " + maps_text(uio));
    for (unsigned int i = 0; i < uio->map_count; ++i)
        if (const libuio_map_t &map = uio->map[i]; map.addr) {
            static_cast<char *>(map.addr)[map.size - 1] = 'A';
            EXPECT_EQ(
                read_file(device_dir + printed("/resource%u", map.bar))[map.offset + map.size - 1],
                'A');
        }
    libuio_munmap(uio, 0);
    const libuio_map_t good = uio->map[1];
    for (const auto &[offset, size] :
         std::vector<std::pair<unsigned int, size_t>>{{0x800, 0x1000},
                                                      {0x1000, 100},
                                                      {0x1000, 0},
                                                      {0xfffff000, 0x1000},
                                                      {0x3f000, 0x2000},
                                                      {0x40000, 0x1000},
                                                      {0x3f000, 0x1000}}) {
        uio->map[1].offset = offset;
        uio->map[1].size = size;
        show("another range", ~size_t{2});
    }
    libuio_munmap(uio, 0);
    uio->map[1] = good;
    fs::remove(device_dir + "/resource0");
    show("without its resource", 1);
    make_directory(device_dir + "/resource0");
    show("which is a directory", 1);
    fs::remove(device_dir + "/resource0");
    make_symlink(device_dir + "/resource0", "/dev/zero");
    show("which is a device", 1);
    const std::string deep = "/" + std::string(250, 'd');
    const char *const dir = std::exchange(uio->sys_device_dir, deep.c_str());
    show("whose path is too long", 0);
    SHOW(seen, libuio_emul_device_enable(uio, 1));
    uio->sys_device_dir = dir;
    for (const int32_t value : {0, -1, 0, 1, 0, 0x100}) {
        SHOW(seen, libuio_emul_device_enable(uio, value));
        seen.note("  enabled: " + read_file(device_dir + "/enable").substr(0, 1));
    }
    libuio_close(uio);
    EXPECT_EQ(read_file(device_dir + "/enable")[0], '0');
    EXPECT_TEXT("uio_emul/ranges.txt", lasting(seen.text()));
}

TEST(uio_emul, maps_physical_memory_and_what_an_address_has_room_for)
{
    start_chassis("rpsw");
    write_file("/dev/mem", "");
    fs::resize_file("/dev/mem", 0xb4000);
    libuio_dev_t *uio = opened("sysfs_pci:uio_cma.rpsw.pellum"); // 0x1000 bytes at 0xb2000
    EXPECT_EQ(libuio_mmap(uio, 0), 1);
    static_cast<char *>(uio->map[0].addr)[1] = 'm';
    EXPECT_EQ(read_file("/dev/mem")[0xb2001], 'm');
    EXPECT_OUTCOME(libuio_close(uio),
                   {.error = any_error,
                    .out = err("emul_device_enable: Failed to open /dev//enable (errno=2)")});
    uio = opened("sysfs_pci:uio_fe.rpsw.zarnik"); // a whole resource
    fs::resize_file(device_dir + "/resource1", 0x1'0000'0000);
    const bool is_wide = sizeof(size_t) == 8;
    const outcome mapped = outcome_of([&] { return libuio_mmap(uio, 2); });
    EXPECT_EQ(mapped.value, is_wide);
    EXPECT_EQ(mapped.error == ENOMEM, !is_wide);
    libuio_munmap(uio, 0);
    uio->map[0].offset = 0xfffff000;
    uio->map[0].size = 0x1000;
    output_of([&] { EXPECT_EQ(libuio_mmap(uio, 2), 1); });
    static_cast<char *>(uio->map[0].addr)[0x400] = 'e';
    char byte;
    const int fd = ::open((device_dir + "/resource1").c_str(), O_RDONLY);
    EXPECT_EQ(::pread(fd, &byte, 1, 0xfffff400), 1);
    EXPECT_EQ(byte, 'e');
    libuio_close(uio);
}

TEST(uio_emul, maps_what_there_is_of_a_resource)
{
    start_chassis("rpsw");
    libuio_dev_t *uio = opened("sysfs_pci:uio_cmneqp.rpsw.zarnik"); // 0x5000 bytes at 0x2000
    shrinks_to = 0x4000;
    EXPECT_OUTCOME(libuio_mmap(uio, 0), {.value = 1, .error = any_error});
    EXPECT_EQ(maps_text(uio), "0=0:2000+2000* ");
    libuio_munmap(uio, 0);
    shrinks_to = 0x2000; // nothing is left of the range
    const std::string none =
        err("emul_mmap: mmap(8192, (0*4096)),2000,0 failed : Invalid argument");
    EXPECT_OUTCOME(libuio_mmap(uio, 0), {.error = EINVAL, .out = none});
    libuio_close(uio);
}

} // namespace

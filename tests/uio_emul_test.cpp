// This program defines libuio_log, so the library's diagnostics are on and their texts are tested.
#include "support/uio.h"

#include <utility>

#include <dlfcn.h>

extern "C" {
int libuio_log;
}

// When set, the next file to be mapped shrinks to this size just before, and the mapping fails.
static off_t shrinks_to = -1;

// Takes the C library's place for the whole program, the library under test included.
void *mmap(void *addr, size_t length, int prot, int flags, int fd, off_t offset) noexcept
{
    static const auto next = reinterpret_cast<decltype(&mmap)>(dlsym(RTLD_NEXT, "mmap64"));
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

// Where the library finds the first card's device, and the resources of that.
const std::string device_dir = pci_link("0000:00:01.0") + "/0000:01:00.0";
const std::string resources[] = {device_dir + "/resource0", device_dir + "/resource1"};

void start_chassis(const std::string &slot, uint8_t code = 0xff)
{
    enter_private_root();
    add_fpga_card(card_in(slot, 1, code));
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

TEST(uio_emul, knows_every_fpga_by_slot_and_name_and_every_register_block)
{
    enter_private_root();
    unsigned int number = 1;
    for (const std::string &slot : words("rpsw self peer sw1 alsw1 RPSW Sw2")) {
        add_fpga_card(card_in(slot, number));
        // It cannot say what it is.
        fs::remove(pci_link(card_in(slot, number++).id) + "/resource0");
    }
    // The card at the peer's port is the peer.
    for (const std::string &slot : words("rpsw2 RPSW2 xrpsw"))
        add_hotswap_name(slot, card_in("peer", 3).port);
    write_file(pci_link("0000:0d:00.0") + "/enable", "0\n");
    // Case counts for the name service and for the peer only.
    const std::pair<std::string, const char *> types[] = {
        {"local_zarnik", "rpsw.zarnik self.zarnik RPSW.Zarnik"},
        {"remote_zarnik", "peer.zarnik rpsw2.zarnik"},
        {"local_zarnik2", "rpsw. rpsw.zarnik2 self.zarnik2 RPSW2"},
        {"remote_zarnik2", "peer.zarnik2 rpsw2. rpsw2.zarnik2"},
        {"pellum", "rpsw.pellum self.pellum rpsw2.pellum rpsw.PELLUM"},
        {"pellum2", "rpsw.pellum2 self.pellum2 rpsw2.pellum2"},
        {"sw_vostra", "sw1. sw1.vostra_lite Sw2.VOSTRA_lite"},
        {"sw_vostra2", "sw1.vostra2_lite"},
        {"al_vostra", "alsw1.vostra"},
        {"al_vostrat", "alsw1.vostrat"},
        {"al_vostra2", "alsw1. alsw1.vostra2"},
    };
    std::string known = " ";
    for (const auto &[type, cards] : types) {
        for (const std::string &card : words(cards)) {
            EXPECT_TEXT("fpga/" + type + ".txt", blocks_of(card)) << card;
            known += card + " ";
        }
    }
    for (const std::string &slot : words("rpsw rpsw2 self peer sw1 alsw1 xrpsw"))
        for (const std::string &fpga : words(". .zarnik .zarnik2 .pellum .pellum2 .vostra .vostrat "
                                             ".vostra2 .vostra_lite .vostra2_lite .- .zarnik3"))
            EXPECT_TRUE(known.find(" " + slot + fpga + " ") != std::string::npos ||
                        blocks_of(slot + fpga).empty())
                << slot + fpga;
    // Another address at "peer", or none, is another card.
    const std::string local = blocks_of("rpsw");
    add_hotswap_name("peer", card_in("rpsw").port.substr(1));
    EXPECT_EQ(blocks_of("rpsw2"), local);
    fs::remove("/dev/dynattr/rpsw/hotswap/byname/peer");
    EXPECT_EQ(blocks_of("rpsw2"), local);
}

TEST(uio_emul, asks_the_fpga_what_it_is_when_the_name_does_not_say)
{
    enter_private_root();
    for (const std::string &row :
         words("0.rpsw.zarnik 17.rpsw.zarnik2 1.rpsw.zarnik2 0.Rpsw.zarnik 1.alsw1.vostra "
               "34.alsw1.vostrat 18.alsw1.vostra2 17.alsw1.vostra2 255.alsw1.vostra2 "
               "1.sw1.vostra_lite 18.sw1.vostra2_lite 34.sw1.vostra_lite 0.self.none")) {
        const std::string card = row.substr(row.find('.') + 1);
        const std::string slot = card.substr(0, card.find('.'));
        add_fpga_card(card_in(slot, 1, static_cast<uint8_t>(std::stoi(row))));
        EXPECT_EQ(blocks_of(slot), blocks_of(card)) << row;
        EXPECT_EQ(read_file("/proc/self/maps").find("/resource0"), std::string::npos);
        remove_pci(card_in(slot).port);
    }
}

//--- opening --------------------------------------------------------------------------------------

TEST(uio_emul, takes_names_apart_and_refuses_what_is_missing)
{
    for (const char *name : {"", "sysfs_pci", "Sysfs_pci:", " sysfs_pci:", "/dev/uio0"})
        EXPECT_EQ(libuio_is_emul(name), 0u) << name;
    EXPECT_EQ(libuio_is_emul("sysfs_pci:"), 1u);
    EXPECT_OUTCOME(libuio_is_emul(nullptr), {});
    EXPECT_OUTCOME(libuio_emul_open_timed(nullptr, &no_wait), {.value = nullptr, .error = EINVAL});
    EXPECT_OUTCOME(libuio_emul_open_timed("/dev/uio0", &no_wait),
                   {.value = nullptr, .error = EINVAL});
    EXPECT_OUTCOME(libuio_emul_mmap(nullptr, 0), {.value = -1, .error = EINVAL});
    EXPECT_OUTCOME(libuio_emul_device_enable(nullptr, 1), {.value = -1, .error = EINVAL});
    start_chassis("rpsw");
    add_hotswap_name("rpsw567890123456789z", card_in("rpsw").port);
    const std::string x(100000, 'x');
    for (const std::string name :
         {"uio_glb.rpsw.zarnik", "...uio_glb..rpsw...zarnik..more.and.more", " uio_glb.rpsw",
          "uio_glb.rpsw \t.a comment", "uio_glb.rpsw\nzarnik3", "UIO_glb.rpsw.",
          "uio_glb.rpsw567890123456789z", "uio_glb.rpsw567890123456789z, cut at 20"}) {
        libuio_dev_t *uio = opened("sysfs_pci:" + name);
        EXPECT_EQ(libuio_get_real_devnode(uio), "sysfs_pci:" + name);
        libuio_close(uio);
    }
    for (const std::string &name : std::vector<std::string>{
             "", " ", ".", "uio_glb", "uio_glb.", ".rpsw", "uio_glb .rpsw", "uio_glb.rpsw3",
             "uio_glb./..", "uio_gl.rpsw", "uio_glb%s%n.rpsw%s",
             "uio_glb.rpsw.zarnik90123456789012345", x, "uio_glb.rpsw" + x})
        EXPECT_OUTCOME(open_block(name), {.value = nullptr, .error = EINVAL});
}

TEST(uio_emul, fills_the_handle_and_enables_the_device_until_it_is_closed)
{
    start_chassis("alsw1");
    libuio_dev_t *uio = nullptr;
    EXPECT_OUTCOME(uio = open_block("uio_ge1.alsw1.vostra2"),
                   {.value = a_pointer,
                    .err = printed("LOG_DEBUG libuio_adjust_size: realloc (%zu+47+47+32) ok\n",
                                   sizeof *uio + 6 * sizeof *uio->map)});
    EXPECT_EQ(libuio_get_sys_class_dir(uio), device_dir);
    EXPECT_EQ(libuio_get_sys_device_dir(uio), device_dir);
    EXPECT_TRUE(uio->uio_fd == -1 && uio->gone_fd == -1 && uio->tmr_fd == 0);
    EXPECT_OUTCOME(libuio_irqwait(uio, nullptr, nullptr), {.value = -1, .error = EBADF});
    EXPECT_EQ(read_file(device_dir + "/enable"), "1\n");
    EXPECT_OUTCOME(libuio_emul_device_enable(uio, 0), {});
    EXPECT_EQ(read_file(device_dir + "/enable"), "0\n");
    EXPECT_OUTCOME(libuio_emul_device_enable(uio, -1), {});
    EXPECT_EQ(read_file(device_dir + "/enable"), "1\n");
    EXPECT_OUTCOME(libuio_close(uio), {});
    EXPECT_EQ(read_file(device_dir + "/enable"), "0\n");
}

TEST(uio_emul, finds_the_first_device_behind_the_port_that_the_name_service_gives)
{
    enter_private_root();
    const std::string port = "0000:00:01.0";
    const auto device_behind = [](const std::string &address, const std::string &directories) {
        make_directory("/sys/bus/pci/devices");
        add_hotswap_name("sw1", address);
        const std::string dir = pci_link(address) + "/";
        for (const std::string &name : words(directories))
            write_file(dir + name + "/enable", "0");
        write_file(dir + "0000:00:00.0", "not a directory");
        make_symlink(dir + "0000:00:00.1", "/tmp");
        libuio_dev_t *uio = nullptr;
        const outcome seen =
            outcome_of([&] { return uio = open_block("uio_flash.sw1.vostra_lite"); });
        const std::string found =
            uio ? std::string(libuio_get_sys_device_dir(uio)).substr(dir.size())
                : strerror(seen.error);
        libuio_close(uio); // while its "enable" is still there
        fs::remove_all("/sys/bus");
        return found;
    };
    const std::string none = strerror(EINVAL);
    EXPECT_EQ(device_behind(port, ""), none);
    EXPECT_EQ(device_behind("", "0000:05:00.0"), none);
    EXPECT_EQ(device_behind(port + "x", "0000:05:00.0"), none); // 13 bytes
    EXPECT_EQ(device_behind(port, port + ":pcie001 0001:05:00.0 0000 power"), none);
    EXPECT_EQ(device_behind(port, "0000:1f:00.0 0000:0a:00.0 0000:ff:00.0"), "0000:0a:00.0");
    const std::string longest = "0000:" + std::string(209, 'x');
    EXPECT_EQ(device_behind(port, longest), longest);
    EXPECT_EQ(device_behind(port, longest + "x"), strerror(ENAMETOOLONG)); // to be enabled
    EXPECT_EQ(device_behind(port, longest + std::string(31, 'x')), none);
    EXPECT_OUTCOME(open_block("uio_flash.sw1"),
                   {.value = nullptr, .error = EINVAL}); // no such port
    write_file("/dev/dynattr/rpsw/hotswap/byname/sw2", port);
    EXPECT_OUTCOME(open_block("uio_flash.sw2"),
                   {.value = nullptr, .error = EINVAL}); // no attribute
    // The pellum2's place is fixed, and nobody looks whether it is there before it is enabled.
    EXPECT_OUTCOME(open_block("uio_cma.self.pellum2"),
                   {.value = nullptr,
                    .error = ENOENT,
                    .out = err("emul_device_enable: Failed to open " + pci_link("0000:0d:00.0") +
                               "/enable (errno=2)")});
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
    // What cannot be looked up is not there; an FPGA that cannot be asked is of the default type.
    const std::string by_call = printed(R"(getxattr: 22
open: 22
stat: 22
getdents64: 22
getdents64: 0
close: 0
open: 0 LOG_ERR get_fpga_name: mmap((nil), 0x1000) failed
stat: 0 LOG_ERR get_fpga_name: mmap((nil), 0x1000) failed
mmap: 0 LOG_ERR get_fpga_name: mmap((nil), 0x1000) failed
munmap: 0 LOG_ERR get_fpga_name: munmap(, 0x1000) failed: Input/output error
open: 5 LOG_ERR libuio_emul_device_enable: Failed to open %1$s (errno=5)
write: 5 LOG_ERR libuio_emul_device_enable: Failed to write to %1$s (errno=5)
open: 5 LOG_ERR libuio_emul_mmap: mmap(4096, (0*4096)),1000,0 failed : Input/output error
stat: 5 LOG_ERR libuio_emul_mmap: mmap(4096, (0*4096)),1000,0 failed : Input/output error
mmap: 5 LOG_ERR libuio_emul_mmap: mmap(4096, (0*4096)),1000,0 failed : Input/output error
open: 1000 LOG_ERR libuio_emul_device_enable: Failed to open %1$s (errno=5)
write: 1000 LOG_ERR libuio_emul_device_enable: Failed to write to %1$s (errno=5)
munmap: 0
)",
                                        file.c_str());
    const std::string by_allocation = printed(R"(allocation: 22
allocation: 12 LOG_ERR libuio_new_handle: calloc(%zu) failed
allocation: 12 LOG_ERR libuio_adjust_size: realloc (%zu+47+47+24) failed
)",
                                              sizeof(libuio_dev_t) + 64 * sizeof(libuio_map_t),
                                              sizeof(libuio_dev_t) + sizeof(libuio_map_t));
    std::string all = failures_of(EIO, round);
    const size_t address = all.find("munmap(") + strlen("munmap(");
    all.erase(address, all.find(',', address) - address);
    EXPECT_EQ(by_call + (heap_can_fail ? by_allocation : ""), all);
    // Failures of the clean-up do not hide the first.
    const auto judge = [](const run &seen) {
        const bool of_handle = seen.failed >= "allocation 3" && seen.failed <= "allocation 9";
        EXPECT_TRUE(!of_handle || seen.seen.value.number % 1000 == ENOMEM) << seen;
    };
    fail_each_call(EIO, round, judge, EXDEV);
}

//--- mapping --------------------------------------------------------------------------------------

TEST(uio_emul, maps_ranges_of_the_resource_files)
{
    start_chassis("alsw1");
    libuio_dev_t *uio = opened("sysfs_pci:uio_pci.alsw1.vostra");
    const auto skips = [uio](int mapped, unsigned int index) {
        return printed("LOG_INFO libuio_emul_mmap: skip: m=%d, index=%u, map->addr=%p \n", mapped,
                       index, uio->map[index].addr);
    };
    EXPECT_OUTCOME(libuio_mmap(uio, 1 | 4), {.value = 2, .err = skips(0, 0) + skips(1, 2)});
    EXPECT_EQ(maps_text(uio), "0=2:0+ffffffff 1=0:10000+5000* 2=0:9000+1000 3=0:7000+1000* ");
    EXPECT_OUTCOME(libuio_mmap(uio, 0), {.value = 2, .err = skips(1, 1) + skips(2, 3)});
    const size_t ranges[][3] = {
        {2, 0, 0x80000}, {0, 0x10000, 0x5000}, {0, 0x9000, 0x1000}, {0, 0x7000, 0x1000}};
    for (unsigned int index = 0; const auto &[bar, offset, length] : ranges) {
        EXPECT_EQ(uio->map[index].size, length);
        iowrite32(0xfade0000 + index, static_cast<char *>(uio->map[index].addr) + length - 4);
        const std::string bytes = read_file(device_dir + "/resource" + std::to_string(bar));
        EXPECT_EQ(ioread32(&bytes[offset + length - 4]), 0xfade0000 + index++);
    }
    libuio_munmap(uio, 2);
    EXPECT_OUTCOME(libuio_mmap(uio, 0), {.value = 3, .err = skips(1, 1)});
    libuio_close(uio);
}

TEST(uio_emul, says_which_range_cannot_be_mapped_and_why)
{
    start_chassis("alsw1");
    const off_t missing = -1, directory = -2;
    // Map 0 is all of resource 1, map 1 a range of resource 0.
    const auto refuses = [](int map, int error, off_t size0, off_t size1,
                            unsigned int offset = 0x6000, size_t size = 0x1000) {
        for (const auto &[file, length] : {std::pair(resources[0], size0), {resources[1], size1}}) {
            fs::remove(file);
            if (length == directory)
                make_directory(file);
            else if (length != missing)
                write_file(file, std::string(static_cast<size_t>(length), '\0'));
        }
        libuio_dev_t *uio = opened("sysfs_pci:uio_fe.alsw1.vostra");
        uio->map[1].offset = offset;
        uio->map[1].size = size;
        const std::string range = map == 0
                                      ? printed("%ld, (0*4096)),0,1", static_cast<long>(0xffffffff))
                                      : printed("%zu, (1*4096)),%x,0", size, offset);
        EXPECT_OUTCOME(libuio_mmap(uio, 0),
                       {.value = -map,
                        .error = error,
                        .out = err("emul_mmap: mmap(" + range + " failed : " + strerror(error))});
        libuio_close(uio);
    };
    refuses(0, EINVAL, 0x7000, 0x1800);
    refuses(0, EINVAL, 0x7000, 0);
    refuses(0, ENOENT, 0x7000, missing);
    refuses(1, EINVAL, 0x6000, 0x1000);
    refuses(1, EINVAL, 0x6fff, 0x1000);
    refuses(1, ENOENT, missing, 0x1000);
    refuses(1, EISDIR, directory, 0x1000);
    refuses(1, EINVAL, 0x7000, 0x1000, 0x5800);
    refuses(1, EINVAL, 0x7000, 0x1000, 0x6000, 100);
    refuses(1, EINVAL, 0x7000, 0x1000, 0x6000, 0);
    refuses(1, EINVAL, 0x7000, 0x1000, 0xfffff000);
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
    // A whole resource is mapped only if the address space can hold it.
    ASSERT_EQ(truncate(resources[1].c_str(), (off_t{1} << 32) + 0x10000), 0);
    libuio_close(std::exchange(uio, opened("sysfs_pci:uio_fe.rpsw.zarnik")));
    const bool fits = sizeof(size_t) == 8;
    const std::string line =
        err("emul_mmap: mmap(-1, (0*4096)),0,1 failed : Cannot allocate memory");
    EXPECT_OUTCOME(
        libuio_mmap(uio, 0),
        {.value = fits ? 2 : 0, .error = fits ? any_error : ENOMEM, .out = fits ? "" : line});
    libuio_close(uio);
}

TEST(uio_emul, reaches_a_pellum_by_physical_address)
{
    enter_private_root();
    write_file("/dev/mem", std::string(0xb4000, '\0'));
    libuio_dev_t *uio = opened("sysfs_pci:uio_rpmb.rpsw1.pellum");
    EXPECT_STREQ(libuio_get_sys_device_dir(uio), "/dev/");
    EXPECT_OUTCOME(libuio_mmap(uio, 0), {.value = 1, .error = any_error});
    iowrite8('!', libuio_get_mapinfo(uio, 0, nullptr));
    EXPECT_EQ(read_file("/dev/mem")[0xb3000], '!');
    EXPECT_OUTCOME(
        libuio_close(uio),
        {.error = ENOENT, .out = err("emul_device_enable: Failed to open /dev//enable (errno=2)")});
}

} // namespace

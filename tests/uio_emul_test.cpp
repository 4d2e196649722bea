// Emulated UIO devices: the blocks of each FPGA, and failing calls. What names and ranges may be,
// the model in tests/models tries. This program defines libuio_log, so diagnostics are on.
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

// Where the library finds the first card's device.
const std::string device_dir = pci_link("0000:00:01.0") + "/0000:01:00.0";

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
    expect_failures("uio_emul", EIO, round);
    // Failures of the clean-up do not hide the first.
    const auto judge = [](const run &seen) {
        const bool of_handle = seen.failed >= "allocation 3" && seen.failed <= "allocation 9";
        EXPECT_TRUE(!of_handle || seen.seen.value.number % 1000 == ENOMEM) << seen;
    };
    fail_each_call(EIO, round, judge, EXDEV);
}

//--- mapping --------------------------------------------------------------------------------------

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

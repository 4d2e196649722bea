#include "sim/chassis.h"
#include "support/descriptors.h"
#include "support/system_calls.h"

#include <device_access/pci_config.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include <unistd.h>

namespace
{

using chassis_sim::config_builder;
using chassis_sim::pcie_capability;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr uint32_t failed = 0xffffffff;
const sysfs_pci_identity_t ident = {"0000:02:00.0", {}};

void add_function(const chassis_sim::config_space &config)
{
    chassis_sim::pci_function function;
    function.id = ident.str;
    function.config = config;
    chassis_sim::add_pci(function);
}

// An opened configuration space of a chassis's only function.
void *open_config(const chassis_sim::config_space &config)
{
    chassis_sim::enter_private_root();
    add_function(config);
    void *handle = pci_config_open(&ident);
    EXPECT_NE(handle, nullptr) << strerror(errno);
    return handle;
}

int config_byte(int offset)
{
    std::ifstream config(chassis_sim::pci_link(ident.str) + "/config");
    config.seekg(offset);
    return config.get();
}

//--- registers ------------------------------------------------------------------------------------

TEST(pci_config, reads_and_writes_registers_of_each_width)
{
    void *h = open_config(config_builder().put32(0x40, 0xffffffff).put32(0x44, 0x87654321).bytes());
    errno = EIO;
    EXPECT_EQ(pci_config_read32(0x44, h), 0x87654321u);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(pci_config_read16(0x46, h), 0x8765u);
    EXPECT_EQ(pci_config_read8(0x45, h), 0x43u);
    errno = EIO;
    EXPECT_EQ(pci_config_read32(0x40, h), failed) << "a value";
    EXPECT_EQ(errno, 0);

    errno = EIO;
    EXPECT_EQ(pci_config_write32(0x11223344, 0x48, h), 0);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(pci_config_write16(0x5566, 0x4a, h), 0);
    EXPECT_EQ(pci_config_write8(0x77, 0x49, h), 0);
    EXPECT_EQ(pci_config_read32(0x48, h), 0x55667744u);

    EXPECT_EQ(pci_config_write8(0x07, 0x04, h), 0);
    EXPECT_EQ(pci_config_bitclr8(0x04, 0x04, h), 0);
    EXPECT_EQ(config_byte(0x04), 0x03);
    EXPECT_EQ(pci_config_bitset8(0x90, 0x04, h), 0);
    EXPECT_EQ(config_byte(0x04), 0x93);
    EXPECT_EQ(pci_config_bitset16(0x8001, 0x44, h), 0);
    EXPECT_EQ(pci_config_bitclr16(0x0020, 0x44, h), 0);
    EXPECT_EQ(pci_config_read32(0x44, h), 0x8765c301u);
    EXPECT_EQ(pci_config_bitset32(0x00080000, 0x44, h), 0);
    EXPECT_EQ(pci_config_bitclr32(0x80000001, 0x44, h), 0);
    EXPECT_EQ(pci_config_read32(0x44, h), 0x076dc300u);
    pci_config_close(h);
}

TEST(pci_config, refuses_unaligned_offsets_and_invalid_handles_without_touching_the_file)
{
    void *h = open_config(chassis_sim::config_space(256, 0xff));
    EXPECT_EQ(pci_config_read8(0x03, h), 0xffu);
    const auto calls = test_support::count_system_calls([h] {
        void *const invalid[] = {nullptr, reinterpret_cast<void *>(-1)};
        const auto refused = [](bool failure) {
            if (!failure || errno != EINVAL)
                ::_exit(1); // counted as "did not end"
            errno = 0;
        };
        refused(pci_config_read16(0x03, h) == failed);
        refused(pci_config_read32(0x06, h) == failed);
        refused(pci_config_write16(0, 0x01, h) == -1);
        refused(pci_config_write32(0, 0x05, h) == -1);
        refused(pci_config_bitset32(1, 0x02, h) == -1);
        refused(pci_config_bitclr16(1, 0x0f, h) == -1);
        for (void *handle : invalid) {
            refused(pci_config_read8(0, handle) == failed);
            refused(pci_config_write8(0, 0, handle) == -1);
            refused(pci_config_bitset8(1, 0, handle) == -1);
            pci_config_close(handle);
            refused(true);
        }
    });
    EXPECT_EQ(test_support::text(calls), "");
}

TEST(pci_config, makes_one_system_call_per_access)
{
    void *h = open_config(config_builder().bytes());
    const auto calls = test_support::count_system_calls([h] {
        pci_config_read8(0x10, h);
        pci_config_read32(0x10, h);
        pci_config_write16(1, 0x10, h);
        pci_config_bitset8(1, 0x10, h);
    });
    EXPECT_EQ(test_support::text(calls), "pread:3 pwrite:2 ");
    EXPECT_EQ(lseek(static_cast<int>(reinterpret_cast<intptr_t>(h)), 0, SEEK_CUR), 0);
}

TEST(pci_config, fails_beyond_the_end_and_leaves_errno_alone)
{
    void *h = open_config(chassis_sim::config_space(0x42));
    errno = EXDEV;
    EXPECT_EQ(pci_config_read32(0x40, h), failed);
    EXPECT_EQ(pci_config_read32(0xfffffffc, h), failed) << "above 2 GiB";
    EXPECT_EQ(errno, EXDEV);
    EXPECT_EQ(pci_config_bitset32(1, 0x40, h), -1);
    EXPECT_EQ(std::filesystem::file_size(chassis_sim::pci_link(ident.str) + "/config"), 0x42u)
        << "nothing was written";
}

TEST(pci_config, opens_and_closes)
{
    chassis_sim::enter_private_root();
    EXPECT_EQ(pci_config_open(&ident), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(pci_config_open(nullptr), nullptr);
    EXPECT_EQ(errno, -22);
    add_function(config_builder().bytes());
    const auto before = test_support::open_descriptors();
    void *h = pci_config_open(&ident);
    EXPECT_EQ(test_support::open_descriptors(), before + 1);
    errno = EXDEV;
    pci_config_close(h);
    EXPECT_EQ(errno, EXDEV);
    EXPECT_EQ(test_support::open_descriptors(), before);

    close(STDIN_FILENO); // the descriptor that would be NULL as a handle
    h = pci_config_open(&ident);
    EXPECT_EQ(pci_config_read32(0x00, h), 0x00011d0fu);
    pci_config_close(h);
    EXPECT_EQ(test_support::open_descriptors(), before - 1);
}

//--- capabilities ---------------------------------------------------------------------------------

TEST(pci_config_find_capability, walks_the_list_as_it_stands)
{
    const auto three = [](uint8_t header_type) {
        config_builder config(header_type);
        config.power_management(); // at 0x40
        config.msi();              // at 0x48
        config.pcie({});           // at 0x58
        return config;
    };
    struct {
        const char *what;
        config_builder config;
        uint8_t id;
        int position; // or -1 with
        int error;
    } cases[] = {
        {"the first", three(0), 0x01, 0x40, 0},
        {"a bridge's last", three(1), 0x10, 0x58, 0},
        {"CardBus", three(2), 0x05, 0x48, 0},
        {"none such", three(0), 0x11, -1, ENOENT},
        {"of a multi-function device", three(0x80), 0x01, -1, ENOENT},
        {"of a multi-function bridge", three(0x81), 0x01, -1, ENOENT},
        {"unknown header type", three(3), 0x01, -1, ENOENT},
        {"no list", three(0).put8(0x06, 0xef), 0x01, -1, ENOENT},
        {"empty list", three(0).put8(0x34, 0), 0x01, -1, ENOENT},
        {"low bits of a pointer count", three(0).put8(0x34, 0x43), 0x01, -1, EINVAL},
        {"even pointer", three(0).put8(0x34, 0x42).put16(0x42, 0x4801), 0x01, 0x42, 0},
        {"last position", three(0).put8(0x34, 0xfe).put16(0xfe, 0x0009), 0x09, 0xfe, 0},
    };
    chassis_sim::enter_private_root();
    for (const auto &c : cases) {
        add_function(c.config.bytes());
        void *h = pci_config_open(&ident);
        errno = EXDEV;
        EXPECT_EQ(pci_config_find_capability(c.id, h), c.position) << c.what;
        EXPECT_EQ(errno, c.error) << c.what;
        pci_config_close(h);
        chassis_sim::remove_pci(ident.str);
    }
    EXPECT_EQ(pci_config_find_capability(0x10, nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST(pci_config_find_capability, fails_where_a_config_file_is_cut)
{
    config_builder config;
    config.power_management();
    config.msi();
    chassis_sim::enter_private_root();
    for (size_t size : {0x00u, 0x07u, 0x0eu, 0x34u, 0x41u, 0x48u}) {
        chassis_sim::config_space cut = config.bytes();
        cut.resize(size);
        add_function(cut);
        void *h = pci_config_open(&ident);
        errno = 0;
        EXPECT_EQ(pci_config_find_capability(0x05, h), -1) << size;
        EXPECT_EQ(errno, 0) << size << ": a short read leaves it";
        pci_config_close(h);
        chassis_sim::remove_pci(ident.str);
    }
}

TEST(pci_config_find_capability, walks_a_circle_for_ever)
{
    config_builder config;
    const uint8_t first = config.power_management();
    const uint8_t second = config.msi();
    void *h = open_config(config.put8(second + 1u, first).bytes());
    EXPECT_EQ(pci_config_find_capability(0x05, h), second);
    const auto walk = [h] {
        ualarm(100000, 0);
        pci_config_find_capability(0x10, h);
        _exit(0);
    };
    EXPECT_EXIT(walk(), testing::KilledBySignal(SIGALRM), "");
}

//--- link -----------------------------------------------------------------------------------------

struct link_case {
    const char *what;
    bool reports_active;
    uint16_t status;
    int after_ms; // then the status becomes
    uint16_t later;
    int result;
    int reads; // of the link status, 0: not known
};

TEST(pcie_config_wait_link_up, waits_for_the_link_in_the_ports_own_way)
{
    const link_case cases[] = {
        {"up", true, 0x2041, 0, 0, 0, 2},
        {"active without a width", true, 0x2001, 0, 0, ENOLINK, 2},
        {"active, still training", true, 0x2841, 0, 0, EPROTO, 2},
        {"all ones", true, 0xffff, 0, 0, EPROTO, 2},
        {"never active", true, 0x0041, 0, 0, ETIMEDOUT, 51},
        {"active later", true, 0x0841, 60, 0x2041, 0, 0},
        {"trained", false, 0x0041, 0, 0, 0, 1},
        {"trained without a width", false, 0xe40f, 0, 0, ENOLINK, 1},
        {"trained later", false, 0x0841, 30, 0x0041, 0, 0},
        {"never trained", false, 0x0841, 0, 0, ETIMEDOUT, 51},
    };
    chassis_sim::enter_private_root();
    for (const link_case &c : cases) {
        config_builder config(1);
        const uint8_t cap =
            config.pcie({.reports_active = c.reports_active, .link_status = c.status});
        add_function(config.bytes());
        const auto descriptors = test_support::open_descriptors();
        const auto start = steady_clock::now();
        if (c.after_ms)
            chassis_sim::background([&] {
                std::this_thread::sleep_for(milliseconds(c.after_ms));
                chassis_sim::write_config16(ident.str, cap + 0x12u, c.later);
            });
        errno = EXDEV;
        EXPECT_EQ(pcie_config_wait_link_up(&ident), c.result) << c.what;
        EXPECT_EQ(errno, c.result) << c.what;
        EXPECT_GE(steady_clock::now() - start, milliseconds(c.reads == 51 ? 500 : c.after_ms))
            << c.what;
        EXPECT_EQ(test_support::open_descriptors(), descriptors) << c.what;
        if (c.reads) {
            const auto calls =
                test_support::count_system_calls([] { pcie_config_wait_link_up(&ident); });
            // Four reads find the capability, one is of the link capabilities.
            EXPECT_EQ(calls.at("pread"), 5 + c.reads) << c.what;
        }
        chassis_sim::remove_pci(ident.str);
    }
}

TEST(pcie_config_wait_link_up, tells_what_it_cannot_read)
{
    chassis_sim::enter_private_root();
    EXPECT_EQ(pcie_config_wait_link_up(&ident), -1);
    EXPECT_EQ(errno, ENOENT);

    config_builder config(1);
    config.power_management();
    config_builder with_pcie = config;
    const uint8_t cap = with_pcie.pcie({.type = pcie_capability::root_port});
    chassis_sim::config_space without_status = with_pcie.bytes();
    without_status.resize(cap + 0x12u);
    // An entry that is only word-aligned can be found, but its double words cannot be read.
    config_builder unaligned(1);
    unaligned.power_management();
    unaligned.put8(0x34, 0x42).put16(0x42, 0x0010);
    struct {
        const char *what;
        chassis_sim::config_space config;
        int result;
        int error;
    } cases[] = {
        {"no such capability", config.bytes(), -1, ENOENT},
        {"no link status", without_status, EIO, 0},
        {"unaligned capability", unaligned.bytes(), EIO, EINVAL},
    };
    for (const auto &c : cases) {
        add_function(c.config);
        const auto descriptors = test_support::open_descriptors();
        errno = EXDEV;
        EXPECT_EQ(pcie_config_wait_link_up(&ident), c.result) << c.what;
        EXPECT_EQ(errno, c.error) << c.what;
        EXPECT_EQ(test_support::open_descriptors(), descriptors) << c.what;
        chassis_sim::remove_pci(ident.str);
    }
}

TEST(pcie_config_is_hotplug, is_a_question_with_three_conditions)
{
    config_builder none(1), no_slot(1), fixed(1), hotplug(1), ones(1);
    none.power_management();
    no_slot.pcie({.hotplug = true});
    fixed.pcie({.slot = true});
    hotplug.pcie({.slot = true, .hotplug = true});
    const uint8_t cap = ones.pcie({.slot = true});
    ones.put32(cap + 0x14u, 0xffffffff);
    config_builder unaligned(1);
    unaligned.power_management();
    unaligned.put8(0x34, 0x43);
    struct {
        const char *what;
        config_builder config;
        int answer;
        int error;
    } cases[] = {
        {"not PCI Express", none, 0, 0}, {"no slot", no_slot, 0, 0},
        {"a slot", fixed, 0, 0},         {"hot-plug", hotplug, 1, 0},
        {"all ones", ones, 0, 0},        {"unreadable list", unaligned, 0, EINVAL},
    };
    chassis_sim::enter_private_root();
    for (const auto &c : cases) {
        add_function(c.config.bytes());
        void *h = pci_config_open(&ident);
        errno = EXDEV;
        EXPECT_EQ(pcie_config_is_hotplug(h), c.answer) << c.what;
        EXPECT_EQ(errno, c.error) << c.what;
        pci_config_close(h);
        chassis_sim::remove_pci(ident.str);
    }
    EXPECT_EQ(pcie_config_is_hotplug(nullptr), 0);
    EXPECT_EQ(errno, EINVAL);
}

TEST(pcie_config_link_strerror, has_texts_of_its_own)
{
    EXPECT_STREQ(pcie_config_link_strerror(71), "PCIe link-training stuck at asserted");
    EXPECT_STREQ(pcie_config_link_strerror(110), "PCIe link-up waiting timed out");
    EXPECT_STREQ(pcie_config_link_strerror(67), "PCIe link-up not achieved");
    EXPECT_STREQ(pcie_config_link_strerror(2), strerror(ENOENT));
}

} // namespace

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
#include <string>
#include <thread>

#include <unistd.h>

namespace
{

using chassis_sim::config_builder;
using chassis_sim::config_space;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr uint32_t failed = 0xffffffff;
const sysfs_pci_identity_t ident = {"0000:02:00.0", {}};

// A function with this configuration space on the bus, while the object lives.
struct function_on_bus {
    explicit function_on_bus(const config_space &config)
    {
        chassis_sim::pci_function function;
        function.id = ident.str;
        function.config = config;
        chassis_sim::add_pci(function);
    }
    ~function_on_bus() { chassis_sim::remove_pci(ident.str); }
};

// The same with its space opened, and errno made recognisable.
struct opened_function : function_on_bus {
    explicit opened_function(const config_space &config) : function_on_bus(config)
    {
        EXPECT_NE(handle, nullptr) << strerror(errno);
        errno = EXDEV;
    }
    ~opened_function() { pci_config_close(handle); }

    void *handle = pci_config_open(&ident);
};

class pci_config : public testing::Test
{
protected:
    void SetUp() override { chassis_sim::enter_private_root(); }
};

//--- registers ------------------------------------------------------------------------------------

TEST_F(pci_config, reads_and_writes_registers_of_each_width_in_one_call)
{
    const opened_function function(
        config_builder().put32(0x40, 0xffffffff).put32(0x44, 0x87654321).put8(0x04, 7).bytes());
    void *h = function.handle;
    EXPECT_EQ(pci_config_read32(0x44, h), 0x87654321u);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(pci_config_read16(0x46, h), 0x8765u);
    EXPECT_EQ(pci_config_read8(0x45, h), 0x43u);
    errno = EXDEV;
    EXPECT_EQ(pci_config_read32(0x40, h), failed) << "a value";
    EXPECT_EQ(errno, 0);

    errno = EXDEV;
    EXPECT_EQ(pci_config_write32(0x11223344, 0x48, h), 0);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(pci_config_write16(0x5566, 0x4a, h), 0);
    EXPECT_EQ(pci_config_write8(0x77, 0x49, h), 0);
    EXPECT_EQ(pci_config_read32(0x48, h), 0x55667744u);

    EXPECT_EQ(pci_config_bitclr8(0x04, 0x04, h), 0);
    EXPECT_EQ(pci_config_read32(0x04, h), 0x03u);
    EXPECT_EQ(pci_config_bitset8(0x90, 0x04, h), 0);
    EXPECT_EQ(pci_config_read32(0x04, h), 0x93u);
    EXPECT_EQ(pci_config_bitset16(0x8001, 0x44, h), 0);
    EXPECT_EQ(pci_config_bitclr16(0x0020, 0x44, h), 0);
    EXPECT_EQ(pci_config_bitset32(0x00080000, 0x44, h), 0);
    EXPECT_EQ(pci_config_bitclr32(0x80000001, 0x44, h), 0);
    EXPECT_EQ(pci_config_read32(0x44, h), 0x076dc300u);

    const auto calls = test_support::count_system_calls([h] {
        pci_config_read8(0x10, h);
        pci_config_write16(1, 0x10, h);
        pci_config_bitset32(1, 0x10, h);
    });
    EXPECT_EQ(test_support::text(calls), "pread:2 pwrite:2 ");
}

TEST_F(pci_config, refuses_unaligned_offsets_and_invalid_handles_without_touching_the_file)
{
    const opened_function function(config_space(256, 0xff));
    void *h = function.handle;
    EXPECT_EQ(pci_config_read8(0x03, h), 0xffu);
    const auto calls = test_support::count_system_calls([h] {
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
        for (void *handle : {static_cast<void *>(nullptr), reinterpret_cast<void *>(-1)}) {
            refused(pci_config_read8(0, handle) == failed);
            refused(pci_config_write8(0, 0, handle) == -1);
            refused(pci_config_bitset8(1, 0, handle) == -1);
            pci_config_close(handle);
            refused(true);
        }
    });
    EXPECT_EQ(test_support::text(calls), "");
}

TEST_F(pci_config, fails_beyond_the_end_and_leaves_errno_alone)
{
    const opened_function function(config_space(0x42));
    EXPECT_EQ(pci_config_read32(0x40, function.handle), failed);
    EXPECT_EQ(pci_config_read32(0xfffffffc, function.handle), failed) << "above 2 GiB";
    EXPECT_EQ(pci_config_bitset32(1, 0x40, function.handle), -1);
    EXPECT_EQ(errno, EXDEV);
    EXPECT_EQ(pci_config_read8(0x42, function.handle), failed) << "nothing was written";
}

TEST_F(pci_config, opens_and_closes)
{
    EXPECT_EQ(pci_config_open(&ident), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(pci_config_open(nullptr), nullptr);
    EXPECT_EQ(errno, -22);
    const function_on_bus function(config_builder().bytes());
    const auto before = test_support::open_descriptors();
    void *h = pci_config_open(&ident);
    EXPECT_EQ(test_support::open_descriptors(), before + 1);
    errno = EXDEV;
    pci_config_close(h);
    EXPECT_EQ(errno, EXDEV);
    EXPECT_EQ(test_support::open_descriptors(), before);

    const std::string config = chassis_sim::pci_link(ident.str) + "/config";
    std::filesystem::remove(config);
    std::filesystem::create_directory(config);
    EXPECT_EQ(pci_config_open(&ident), nullptr);
    EXPECT_EQ(errno, EISDIR);
    std::filesystem::remove(config);
    chassis_sim::write_file(config, std::string(0x1800, '!')); // more than a function can have

    close(STDIN_FILENO); // the descriptor that would be NULL as a handle
    h = pci_config_open(&ident);
    EXPECT_EQ(pci_config_read32(0x17fc, h), 0x21212121u);
    EXPECT_EQ(pci_config_find_capability(0x10, h), -1);
    pci_config_close(h);
    EXPECT_EQ(test_support::open_descriptors(), before - 1);
}

//--- capabilities ---------------------------------------------------------------------------------

// Power management at 0x40, MSI at 0x48, PCI Express at 0x58.
config_builder three(uint8_t header_type)
{
    config_builder config(header_type);
    config.power_management();
    config.msi();
    config.pcie({});
    return config;
}

TEST_F(pci_config, walks_the_capability_list_as_it_stands)
{
    const config_builder plain = three(0);
    const auto cut = [&](size_t size) {
        return config_space(plain.bytes().begin(), plain.bytes().begin() + long(size));
    };
    struct {
        const char *what;
        config_space config;
        uint8_t id;
        int position; // or -1 with
        int error;
    } cases[] = {
        {"the first", plain.bytes(), 0x01, 0x40, 0},
        {"a bridge's last", three(1).bytes(), 0x10, 0x58, 0},
        {"CardBus", three(2).bytes(), 0x05, 0x48, 0},
        {"none such", plain.bytes(), 0x11, -1, ENOENT},
        {"of a multi-function device", three(0x80).bytes(), 0x01, -1, ENOENT},
        {"of a multi-function bridge", three(0x81).bytes(), 0x01, -1, ENOENT},
        {"unknown header type", three(3).bytes(), 0x01, -1, ENOENT},
        {"no list", three(0).put8(0x06, 0xef).bytes(), 0x01, -1, ENOENT},
        {"empty list", three(0).put8(0x34, 0).bytes(), 0x01, -1, ENOENT},
        {"odd pointer", three(0).put8(0x34, 0x43).bytes(), 0x01, -1, EINVAL},
        {"even pointer", three(0).put8(0x34, 0x42).put16(0x42, 0x4801).bytes(), 0x01, 0x42, 0},
        {"even link", three(0).put8(0x41, 0x4a).put16(0x4a, 0x0009).bytes(), 0x09, 0x4a, 0},
        {"last place", three(0).put8(0x34, 0xfe).put16(0xfe, 0x0009).bytes(), 0x09, 0xfe, 0},
        {"no status", cut(0x07), 0x05, -1, EXDEV}, // a short read leaves errno
        {"no header type", cut(0x0e), 0x05, -1, 0},
        {"no pointer", cut(0x34), 0x05, -1, 0},
        {"half an entry", cut(0x49), 0x05, -1, 0},
    };
    for (const auto &c : cases) {
        const opened_function function(c.config);
        EXPECT_EQ(pci_config_find_capability(c.id, function.handle), c.position) << c.what;
        EXPECT_EQ(errno, c.error) << c.what;
    }
    EXPECT_EQ(pci_config_find_capability(0x10, nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(pci_config, walks_a_circle_for_ever)
{
    const opened_function function(three(0).put8(0x49, 0x40).bytes());
    EXPECT_EQ(pci_config_find_capability(0x05, function.handle), 0x48);
    const auto walk = [&] {
        ualarm(100000, 0);
        pci_config_find_capability(0x10, function.handle);
        _exit(0);
    };
    EXPECT_EXIT(walk(), testing::KilledBySignal(SIGALRM), "");
}

TEST_F(pci_config, asks_three_conditions_of_a_hot_plug_port)
{
    config_builder no_slot(1), fixed(1), hotplug(1), ones(1);
    no_slot.pcie({.hotplug = true});
    fixed.pcie({.slot = true});
    hotplug.pcie({.slot = true, .hotplug = true});
    ones.put32(ones.pcie({.slot = true}) + 0x14u, 0xffffffff);
    struct {
        const char *what;
        config_builder config;
        int answer;
        int error;
    } cases[] = {
        {"no capabilities", config_builder(1), 0, 0},
        {"no slot", no_slot, 0, 0},
        {"a slot", fixed, 0, 0},
        {"hot-plug", hotplug, 1, 0},
        {"all ones", ones, 0, 0},
        {"unreadable list", three(1).put8(0x34, 0x43), 0, EINVAL},
        {"no capabilities of the port", three(1).put8(0x34, 0xfe).put8(0xfe, 0x10), 0, 0},
        {"unaligned", three(1).put8(0x34, 0x42).put16(0x42, 0x0010).put16(0x44, 0x0100), 0, EINVAL},
    };
    for (const auto &c : cases) {
        const opened_function function(c.config.bytes());
        EXPECT_EQ(pcie_config_is_hotplug(function.handle), c.answer) << c.what;
        EXPECT_EQ(errno, c.error) << c.what;
    }
    EXPECT_EQ(pcie_config_is_hotplug(nullptr), 0);
    EXPECT_EQ(errno, EINVAL);
}

//--- link -----------------------------------------------------------------------------------------

TEST_F(pci_config, waits_for_a_link_in_the_ports_own_way)
{
    struct {
        const char *what;
        bool reports_active;
        uint16_t status;
        int after_ms; // then the status becomes
        uint16_t later;
        int result;
        int reads; // of the link status, 0: not known
    } cases[] = {
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
    for (const auto &c : cases) {
        config_builder config(1);
        const uint8_t cap =
            config.pcie({.reports_active = c.reports_active, .link_status = c.status});
        const function_on_bus function(config.bytes());
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
    }
}

TEST_F(pci_config, tells_what_keeps_it_from_waiting_for_a_link)
{
    EXPECT_EQ(pcie_config_wait_link_up(&ident), -1);
    EXPECT_EQ(errno, ENOENT);

    config_space without_status = three(1).bytes();
    without_status.resize(0x58 + 0x12);
    struct {
        const char *what;
        config_space config;
        int result;
        int error;
    } cases[] = {
        {"no such capability", config_builder(1).bytes(), -1, ENOENT},
        {"all ones", three(1).put32(0x58 + 0x0c, 0xffffffff).bytes(), 0, 0}, // a value
        {"no link status", without_status, EIO, 0},
        // It can be found where no double word can be read.
        {"unaligned", three(1).put8(0x34, 0x42).put16(0x42, 0x0010).bytes(), EIO, EINVAL},
    };
    for (const auto &c : cases) {
        const function_on_bus function(c.config);
        const auto descriptors = test_support::open_descriptors();
        errno = EXDEV;
        EXPECT_EQ(pcie_config_wait_link_up(&ident), c.result) << c.what;
        EXPECT_EQ(errno, c.error) << c.what;
        EXPECT_EQ(test_support::open_descriptors(), descriptors) << c.what;
    }

    EXPECT_STREQ(pcie_config_link_strerror(71), "PCIe link-training stuck at asserted");
    EXPECT_STREQ(pcie_config_link_strerror(110), "PCIe link-up waiting timed out");
    EXPECT_STREQ(pcie_config_link_strerror(67), "PCIe link-up not achieved");
    EXPECT_STREQ(pcie_config_link_strerror(2), strerror(ENOENT));
}

} // namespace

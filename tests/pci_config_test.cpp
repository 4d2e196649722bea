#include "support/pci.h"

#include <device_access/pci_config.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include <unistd.h>

namespace
{

using namespace test;
using chassis_sim::config_builder;
using chassis_sim::config_space;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

using pci_config = in_chassis;

constexpr uint32_t failed = 0xffffffff;

struct opened_function : function_on_bus {
    using function_on_bus::function_on_bus;
    ~opened_function() { pci_config_close(handle); }

    void *handle = pci_config_open(&ident);
};

//--- registers ------------------------------------------------------------------------------------

TEST_F(pci_config, moves_a_register_of_each_width_in_one_call)
{
    const opened_function function(
        config_builder().put32(0x40, 0xffffffff).put32(0x44, 0x87654321).put8(0x4d, 7).bytes());
    void *h = function.handle;
    EXPECT_OUTCOME(pci_config_read32(0x44, h), {.value = 0x87654321, .error = 0});
    EXPECT_OUTCOME(pci_config_read16(0x46, h), {.value = 0x8765, .error = 0});
    EXPECT_OUTCOME(pci_config_read8(0x45, h), {.value = 0x43, .error = 0});
    EXPECT_OUTCOME(pci_config_read32(0x40, h), {.value = failed, .error = 0}) << "a value";
    EXPECT_OUTCOME(pci_config_write32(0x11223344, 0x48, h), {.error = 0});
    EXPECT_OUTCOME(pci_config_write16(0x5566, 0x4a, h), {.error = 0});
    EXPECT_OUTCOME(pci_config_write8(0x77, 0x49, h), {.error = 0});
    EXPECT_OUTCOME(pci_config_bitclr8(0x04, 0x4d, h), {.error = 0});
    EXPECT_OUTCOME(pci_config_bitset8(0x90, 0x4d, h), {.error = 0});
    EXPECT_OUTCOME(pci_config_bitset16(0x8000, 0x44, h), {.error = 0});
    EXPECT_OUTCOME(pci_config_bitclr16(0x0021, 0x44, h), {.error = 0});
    EXPECT_OUTCOME(pci_config_bitset32(0x00080000, 0x44, h), {.error = 0});
    EXPECT_OUTCOME(pci_config_bitclr32(0x80000000, 0x44, h), {.error = 0});
    EXPECT_EQ(read_file(dir + "/config").substr(0x44, 12),
              std::string("\x00\xc3\x6d\x07\x44\x77\x66\x55\x00\x93\x00\x00", 12));
    const auto calls = system_calls_of([h] {
        pci_config_read8(0x10, h);
        pci_config_write16(1, 0x10, h);
        pci_config_bitset32(1, 0x10, h);
    });
    EXPECT_EQ(calls, (call_counts{{"pread", 2}, {"pwrite", 2}}));
}

TEST_F(pci_config, refuses_an_access_without_a_system_call_or_fails_beyond_the_end)
{
    const opened_function function(config_space(0x42, 0xee));
    void *h = function.handle;
    void *const minus_one = reinterpret_cast<void *>(-1);
    const std::function<result()> refused[] = {
        [h] { return ~pci_config_read16(0x03, h); },
        [h] { return ~pci_config_read32(0x06, h); },
        [h] { return pci_config_write16(0, 0x01, h) + 1; },
        [h] { return pci_config_bitset32(1, 0x02, h) + 1; },
        [h] { return pci_config_bitclr16(1, 0x0f, h) + 1; },
        [] { return ~pci_config_read8(0, nullptr); },
        [] { return pci_config_write8(0, 0, nullptr) + 1; },
        [] { return pci_config_close(nullptr), 0; },
        [=] { return pci_config_bitset8(1, 0, minus_one) + 1; },
        [=] { return pci_config_close(minus_one), 0; },
    };
    for (const auto &call : refused) {
        EXPECT_OUTCOME(call(), {.error = EINVAL}) << &call - refused;
        EXPECT_EQ(system_calls_of(call), call_counts{}) << &call - refused;
    }
    EXPECT_OUTCOME(pci_config_read8(0x03, h), {.value = 0xee, .error = 0});
    // A short transfer leaves errno alone.
    EXPECT_OUTCOME(pci_config_read32(0x40, h), {.value = failed});
    EXPECT_OUTCOME(pci_config_read32(0xfffffffc, h), {.value = failed}) << "above 2 GiB";
    EXPECT_OUTCOME(pci_config_bitset32(1, 0x40, h), {.value = -1});
    EXPECT_OUTCOME(pci_config_read8(0x42, h), {.value = failed}) << "nothing was written";
}

TEST_F(pci_config, opens_and_closes)
{
    EXPECT_OUTCOME(pci_config_open(&ident), {.value = nullptr, .error = ENOENT});
    EXPECT_OUTCOME(pci_config_open(nullptr), {.value = nullptr, .error = -22});
    const function_on_bus function;
    void *h;
    EXPECT_OUTCOME(h = pci_config_open(&ident),
                   {.value = a_pointer, .error = any_error, .opens = 1});
    EXPECT_OUTCOME(pci_config_close(h), {.opens = -1});

    // A file larger than a function can have, and the descriptor that would be NULL as a handle.
    chassis_sim::write_file(dir + "/config", std::string(0x1800, '!'));
    const long before = open_descriptors();
    close(STDIN_FILENO);
    h = pci_config_open(&ident);
    EXPECT_EQ(pci_config_read32(0x17fc, h), 0x21212121u);
    pci_config_close(h);
    EXPECT_EQ(open_descriptors(), before - 1);
}

//--- capabilities ---------------------------------------------------------------------------------

// Power management at 0x40, MSI at 0x48, PCI Express at 0x58.
config_builder three(uint8_t header_type, const chassis_sim::pcie_capability &port = {})
{
    config_builder config(header_type);
    config.power_management();
    config.msi();
    config.pcie(port);
    return config;
}

config_space cut(size_t size)
{
    config_space config = three(0).bytes();
    config.resize(size);
    return config;
}

TEST_F(pci_config, walks_the_capability_list_as_it_stands)
{
    struct {
        const char *what;
        config_space config;
        uint8_t id;
        int position; // or -1 with
        int error;
    } cases[] = {
        {"the first", three(0).bytes(), 0x01, 0x40, 0},
        {"a bridge's last", three(1).bytes(), 0x10, 0x58, 0},
        {"CardBus", three(2).bytes(), 0x05, 0x48, 0},
        {"none such", three(0).bytes(), 0x11, -1, ENOENT},
        {"of a multi-function device", three(0x80).bytes(), 0x01, -1, ENOENT},
        {"of a multi-function bridge", three(0x81).bytes(), 0x01, -1, ENOENT},
        {"unknown header type", three(3).bytes(), 0x01, -1, ENOENT},
        {"no list", three(0).put8(0x06, 0xef).bytes(), 0x01, -1, ENOENT},
        {"empty list", three(0).put8(0x34, 0).bytes(), 0x01, -1, ENOENT},
        {"odd pointer", three(0).put8(0x34, 0x43).bytes(), 0x01, -1, EINVAL},
        {"even pointer", three(0).put8(0x34, 0x42).put16(0x42, 0x4801).bytes(), 0x01, 0x42, 0},
        {"odd link", three(0).put8(0x41, 0x4b).bytes(), 0x09, -1, EINVAL},
        {"even link", three(0).put8(0x41, 0x4a).put16(0x4a, 0x0009).bytes(), 0x09, 0x4a, 0},
        {"into the header", three(0).put8(0x41, 0x04).put16(0x04, 0x0009).bytes(), 0x09, 0x04, 0},
        {"last place", three(0).put8(0x34, 0xfe).put16(0xfe, 0x0009).bytes(), 0x09, 0xfe, 0},
        {"in front of a circle", three(0).put8(0x49, 0x40).bytes(), 0x05, 0x48, 0},
        {"no status", cut(0x07), 0x05, -1, untouched}, // a short read leaves errno
        {"no header type", cut(0x0e), 0x05, -1, 0},
        {"no pointer", cut(0x34), 0x05, -1, 0},
        {"what an ordinary user sees", cut(0x40), 0x01, -1, 0},
        {"half an entry", cut(0x49), 0x05, -1, 0},
    };
    for (const auto &c : cases) {
        const opened_function function(c.config);
        EXPECT_OUTCOME(pci_config_find_capability(c.id, function.handle),
                       {.value = c.position, .error = c.error})
            << c.what;
    }
    EXPECT_OUTCOME(pci_config_find_capability(0x10, nullptr), {.value = -1, .error = EINVAL});
    for (const uint8_t link : {uint8_t{0x40}, uint8_t{0x48}}) {
        const opened_function function(three(0).put8(0x49, link).bytes());
        const auto walk_for_ever = [&] {
            ualarm(100000, 0);
            pci_config_find_capability(0x10, function.handle);
            _exit(0);
        };
        EXPECT_EXIT(walk_for_ever(), testing::KilledBySignal(SIGALRM), "");
    }
}

TEST_F(pci_config, asks_three_conditions_of_a_hot_plug_port)
{
    const config_builder fixed = three(1, {.slot = true});
    const config_builder hotplug = three(1, {.slot = true, .hotplug = true});
    struct {
        const char *what;
        config_builder config;
        int answer;
        int error;
    } cases[] = {
        {"no capabilities", config_builder(1), 0, 0},
        {"no slot", three(1, {.hotplug = true}), 0, 0},
        {"a slot", config_builder(fixed).put32(0x58 + 0x14, 0xffffffbf), 0, 0},
        {"hot-plug", hotplug, 1, 0},
        {"all ones", config_builder(fixed).put32(0x58 + 0x14, 0xffffffff), 0, 0},
        {"unreadable list", config_builder(hotplug).put8(0x34, 0x43), 0, EINVAL},
        {"no registers", three(1).put8(0x34, 0xfe).put8(0xfe, 0x10), 0, 0},
        {"unaligned", three(1).put8(0x34, 0x42).put16(0x42, 0x0010).put16(0x44, 0x0100), 0, EINVAL},
    };
    for (const auto &c : cases) {
        const opened_function function(c.config.bytes());
        EXPECT_OUTCOME(pcie_config_is_hotplug(function.handle),
                       {.value = c.answer, .error = c.error})
            << c.what;
    }
    EXPECT_OUTCOME(pcie_config_is_hotplug(nullptr), {.error = EINVAL});
}

//--- link -----------------------------------------------------------------------------------------

TEST_F(pci_config, waits_for_a_link_in_the_ports_own_way)
{
    const auto port = [](bool reports_active, uint16_t link_status) {
        return three(1, {.reports_active = reports_active, .link_status = link_status}).bytes();
    };
    struct {
        const char *what;
        config_space config;
        int result, error;
        int reads;        // of the link status; 0: not known
        int after_ms = 0; // then the link status becomes
        uint16_t later = 0;
    } cases[] = {
        {"up", port(true, 0x2041), 0, 0, 2},
        {"active without a width", port(true, 0x2001), ENOLINK, ENOLINK, 2},
        {"active, still training", port(true, 0x2841), EPROTO, EPROTO, 2},
        {"all ones", port(true, 0xffff), EPROTO, EPROTO, 2},
        {"never active", port(true, 0x0041), ETIMEDOUT, ETIMEDOUT, 51},
        {"active later", port(true, 0x0841), 0, 0, 0, 60, 0x2041},
        {"trained", port(false, 0x0041), 0, 0, 1},
        {"trained without a width", port(false, 0xe40f), ENOLINK, ENOLINK, 1},
        {"trained later", port(false, 0x0841), 0, 0, 0, 30, 0x0041},
        {"never trained", port(false, 0x0841), ETIMEDOUT, ETIMEDOUT, 51},
        {"all capabilities", three(1).put32(0x58 + 0x0c, 0xffffffff).bytes(), 0, 0, 2},
        {"no capability", config_builder(1).bytes(), -1, ENOENT, 0},
        {"no link status", cut(0x58 + 0x12), EIO, 0, 1},
        // It can be found where no double word can be read.
        {"unaligned", three(1).put8(0x34, 0x42).put16(0x42, 0x10).bytes(), EIO, EINVAL, 0},
    };
    for (const auto &c : cases) {
        const function_on_bus function(c.config);
        const auto start = steady_clock::now();
        if (c.after_ms)
            chassis_sim::background([&] {
                std::this_thread::sleep_for(milliseconds(c.after_ms));
                chassis_sim::write_config16(ident.str, 0x58 + 0x12, c.later);
            });
        EXPECT_OUTCOME(pcie_config_wait_link_up(&ident), {.value = c.result, .error = c.error})
            << c.what;
        const auto waited = steady_clock::now() - start;
        EXPECT_GE(waited, milliseconds(c.reads == 51 ? 500 : c.after_ms)) << c.what;
        if (c.reads == 0)
            continue;
        auto calls = system_calls_of([] { pcie_config_wait_link_up(&ident); });
        // Six reads find the capability, one is of the link capabilities.
        EXPECT_EQ(calls["pread"], 7 + c.reads) << c.what;
    }
    EXPECT_OUTCOME(pcie_config_wait_link_up(&ident), {.value = -1, .error = ENOENT});
    EXPECT_OUTCOME(pcie_config_wait_link_up(nullptr), {.value = -1, .error = -22});
    EXPECT_STREQ(pcie_config_link_strerror(71), "PCIe link-training stuck at asserted");
    EXPECT_STREQ(pcie_config_link_strerror(110), "PCIe link-up waiting timed out");
    EXPECT_STREQ(pcie_config_link_strerror(67), "PCIe link-up not achieved");
    EXPECT_STREQ(pcie_config_link_strerror(2), strerror(ENOENT));
}

//--- failing system calls -------------------------------------------------------------------------

TEST_F(pci_config, passes_on_the_error_of_any_call_that_fails)
{
    const opened_function function(three(1, {.slot = true, .hotplug = true}).bytes());
    void *h = function.handle;
    const auto open_and_close = [] {
        void *handle = pci_config_open(&ident);
        if (handle)
            pci_config_close(handle);
        return handle;
    };
    const auto wait_link_up = [] {
        const int result = pcie_config_wait_link_up(&ident);
        return result == EIO ? -1 : result;
    };
    const promise promises[] = {
        {"open", open_and_close, nullptr},
        {"read8", [h] { return pci_config_read8(0x40, h); }, failed},
        {"write", [h] { return pci_config_write8(1, 0xf0, h); }, -1},
        {"bitset", [h] { return pci_config_bitset8(1, 0xf0, h); }, -1},
        {"bitclr", [h] { return pci_config_bitclr32(1, 0xf0, h); }, -1},
        {"capability", [h] { return pci_config_find_capability(0x10, h); }, -1},
        {"hot-plug", [h] { return pcie_config_is_hotplug(h); }, 0},
        {"link", wait_link_up, -1},
    };
    for (const promise &promised : promises)
        hold(promised);

    // The wait tells a failing search from a failing read of the capability.
    std::string of_reads;
    fail_each_call(
        EXDEV, [] { return pcie_config_wait_link_up(&ident); },
        [&](const run &run) {
            if (run.failed == "pread")
                of_reads += std::to_string(run.seen.value.number) + " ";
        });
    EXPECT_EQ(of_reads, "-1 -1 -1 -1 -1 -1 5 5 5 ");
}

} // namespace

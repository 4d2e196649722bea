// A function's registers as a client uses them, links that change, and failing calls. What
// registers and capability lists may be, the model in tests/models tries.
#include "support/pci.h"

#include <device_access/pci_config.h>

#include <chrono>
#include <thread>

#include <fcntl.h>
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
constexpr size_t link_status = 0x58 + 0x12; // of the port below

// Power management at 0x40, MSI at 0x48, PCI Express at 0x58.
config_builder three(const chassis_sim::pcie_capability &port = {})
{
    config_builder config(1);
    config.power_management();
    config.msi();
    config.pcie(port);
    return config;
}

struct opened_function : function_on_bus {
    using function_on_bus::function_on_bus;
    ~opened_function() { pci_config_close(handle); }

    void *handle = pci_config_open(&ident);
};

TEST_F(pci_config, moves_a_register_in_one_call)
{
    const opened_function function(config_builder().put32(0x44, 0x87654321).bytes());
    void *h = function.handle;
    EXPECT_OUTCOME(pci_config_read16(0x46, h), {.value = 0x8765, .error = 0});
    EXPECT_OUTCOME(pci_config_write8(0x77, 0x45, h), {.error = 0});
    EXPECT_OUTCOME(pci_config_bitset32(0x00080000, 0x44, h), {.error = 0});
    EXPECT_OUTCOME(pci_config_bitclr16(0x0021, 0x44, h), {.error = 0});
    EXPECT_OUTCOME(pci_config_read32(0x44, h), {.value = 0x876d7700, .error = 0});
    const auto calls = system_calls_of([h] {
        pci_config_read8(0x10, h);
        pci_config_write16(1, 0x10, h);
        pci_config_bitset32(1, 0x10, h);
    });
    EXPECT_EQ(calls, (call_counts{{"pread", 2}, {"pwrite", 2}}));
}

TEST_F(pci_config, refuses_an_access_without_a_system_call)
{
    const opened_function function;
    void *h = function.handle;
    EXPECT_EQ(system_calls_of([h] { pci_config_read16(0x03, h); }), call_counts{});
    EXPECT_EQ(system_calls_of([h] { pci_config_bitset32(1, 0x02, h); }), call_counts{});
    EXPECT_EQ(system_calls_of([] { pci_config_write8(0, 0, nullptr); }), call_counts{});
}

TEST_F(pci_config, gives_no_handle_that_looks_like_none)
{
    const function_on_bus function;
    const long before = open_descriptors();
    close(STDIN_FILENO); // the descriptor that the configuration file gets
    void *const h = pci_config_open(&ident);
    EXPECT_NE(h, nullptr);
    EXPECT_EQ(fcntl(static_cast<int>(reinterpret_cast<intptr_t>(h)), F_GETFD), 0);
    pci_config_close(h);
    EXPECT_EQ(open_descriptors(), before - 1);
}

TEST_F(pci_config, walks_a_circle_for_ever)
{
    const opened_function function(three().put8(0x49, 0x40).bytes());
    EXPECT_OUTCOME(pci_config_find_capability(0x05, function.handle), {.value = 0x48, .error = 0});
    const auto walk_for_ever = [&] {
        ualarm(100000, 0);
        pci_config_find_capability(0x10, function.handle);
        _exit(0);
    };
    EXPECT_EXIT(walk_for_ever(), testing::KilledBySignal(SIGALRM), "");
}

//--- link -----------------------------------------------------------------------------------------

int reads_of_a_wait()
{
    return system_calls_of([] { pcie_config_wait_link_up(&ident); })["pread"];
}

TEST_F(pci_config, looks_51_times_whether_the_link_comes_up)
{
    for (const bool reports_active : {true, false}) {
        const function_on_bus function(
            three({.reports_active = reports_active, .link_status = 0x0841}).bytes());
        const auto start = steady_clock::now();
        EXPECT_OUTCOME(pcie_config_wait_link_up(&ident), {.value = ETIMEDOUT, .error = ETIMEDOUT});
        EXPECT_GE(steady_clock::now() - start, milliseconds(500));
        // Six find the capability, one is of the link capabilities.
        EXPECT_EQ(reads_of_a_wait(), 7 + 51);
    }
}

TEST_F(pci_config, sees_a_link_that_comes_up_while_it_waits)
{
    for (const bool reports_active : {true, false}) {
        const function_on_bus function(
            three({.reports_active = reports_active, .link_status = 0x0841}).bytes());
        chassis_sim::background([=] {
            std::this_thread::sleep_for(milliseconds(60));
            const uint16_t up = reports_active ? 0x2041 : 0x0041;
            chassis_sim::write_config16(ident.str, link_status, up);
        });
        const auto start = steady_clock::now();
        EXPECT_OUTCOME(pcie_config_wait_link_up(&ident), {.error = 0});
        EXPECT_GE(steady_clock::now() - start, milliseconds(60));
    }
}

TEST_F(pci_config, reads_the_state_of_a_link_once_for_each_thing_it_asks)
{
    const std::pair<chassis_sim::pcie_capability, int> ports[] = {
        {{.reports_active = true, .link_status = 0x2841}, 2}, // still trains
        {{.reports_active = true, .link_status = 0x2041}, 2},
        {{.reports_active = false, .link_status = 0x0041}, 1}};
    for (const auto &[port, reads] : ports) {
        const function_on_bus function(three(port).bytes());
        EXPECT_EQ(reads_of_a_wait(), 7 + reads);
    }
}

//--- failing system calls -------------------------------------------------------------------------

TEST_F(pci_config, passes_on_the_error_of_any_call_that_fails)
{
    const opened_function function(three({.slot = true, .hotplug = true}).bytes());
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
}

TEST_F(pci_config, tells_a_failing_search_from_a_failing_read_of_the_capability)
{
    const function_on_bus function(three().bytes());
    std::vector<intmax_t> results;
    fail_each_call(
        EXDEV, [] { return pcie_config_wait_link_up(&ident); },
        [&](const run &run) {
            if (run.failed == "pread")
                results.push_back(run.seen.value.number);
        });
    EXPECT_EQ(results, (std::vector<intmax_t>{-1, -1, -1, -1, -1, -1, EIO, EIO, EIO}));
}

} // namespace

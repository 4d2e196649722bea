// A PCI function in the simulated chassis, and what its operations owe when a call of theirs fails.
#pragma once

#include "support/sweep.h"

#include <device_access/pci_sysfs.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

namespace test
{

struct in_chassis : testing::Test {
    void SetUp() override { chassis_sim::enter_private_root(); }
};

inline constexpr sysfs_pci_identity_t ident = {"0000:03:00.0", {}};
inline const std::string dir = chassis_sim::pci_link(ident.str);

using windows = std::vector<chassis_sim::pci_window>;

// That function is on the bus while this lives.
struct function_on_bus {
    explicit function_on_bus(const chassis_sim::config_space &config, const windows &bars = {})
    {
        chassis_sim::pci_function function;
        function.id = ident.str;
        function.config = config;
        function.windows = bars;
        chassis_sim::add_pci(function);
    }
    explicit function_on_bus(const windows &bars = {})
        : function_on_bus(chassis_sim::config_space(256), bars)
    {
    }
    ~function_on_bus() { chassis_sim::remove_pci(ident.str); }
    function_on_bus(const function_on_bus &) = delete;
    function_on_bus &operator=(const function_on_bus &) = delete;
};

// An operation that tells of each call that fails by this result and the call's errno, leaves
// nothing behind and prints nothing. A close that fails changes nothing, nor does a call that
// begins like one of `ignored`.
struct promise {
    const char *what;
    std::function<result()> operation;
    result failure;
    std::vector<std::string> ignored = {};
};

inline void hold(const promise &promised)
{
    SCOPED_TRACE(promised.what);
    const outcome whole = outcome_of(promised.operation);
    const int runs = fail_each_call(EXDEV, promised.operation, [&](const run &run) {
        const auto fails = [&run](const std::string &call) { return run.failed.starts_with(call); };
        const auto &ignored = promised.ignored;
        outcome expected = {promised.failure, fails("allocation") ? ENOMEM : EXDEV};
        if (fails("close") || std::any_of(ignored.begin(), ignored.end(), fails))
            expected = whole;
        EXPECT_EQ(expected, run.seen) << run;
        EXPECT_EQ(run.blocks, 0) << run;
    });
    EXPECT_TRUE(runs > 0 || !heap_can_fail);
}

} // namespace test

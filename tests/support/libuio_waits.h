#pragma once

#include <device_access/libuio.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>

namespace test_support
{

// Opening a device that is not there waits as long as the budget of its limit says, then fails.
inline void expect_waits_within_budget(const char *name, int error)
{
    struct {
        timespec limit;
        int least_ms;
        int below_ms;
    } cases[] = {
        {{0, 0}, 0, 300}, {{0, 500000000}, 50, 450}, {{0, 9999999}, 0, 300}, {{-1, 0}, 0, 300}};
    for (const auto &c : cases) {
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(libuio_open_timed(name, &c.limit), nullptr);
        EXPECT_EQ(errno, error);
        const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                            std::chrono::steady_clock::now() - start)
                            .count();
        EXPECT_GE(ms, c.least_ms);
        EXPECT_LT(ms, c.below_ms);
    }
}

} // namespace test_support

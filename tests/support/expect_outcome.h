#pragma once

#include "support/captured_output.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

namespace test_support
{

// Expects a call's result and its lines on both streams.
inline void expect_outcome(const std::function<int()> &call, int result, const std::string &out,
                           const std::string &err)
{
    captured_output output;
    EXPECT_EQ(call(), result);
    EXPECT_EQ(output.take_stdout(), out);
    EXPECT_EQ(output.take_stderr(), err);
}

} // namespace test_support

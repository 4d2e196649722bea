// This program does not define libuio_log, so the library must print nothing.
#include "support/captured_output.h"

#include <device_access/libuio.h>

#include <gtest/gtest.h>

namespace
{

TEST(libuio_without_log_symbol, prints_nothing)
{
    test_support::captured_output output;
    const timespec no_wait = {0, 0};
    EXPECT_EQ(libuio_open_timed("/etc/passwd", &no_wait), nullptr);
    EXPECT_EQ(libuio_adjust_size(nullptr), nullptr);
    libuio_pr(3, "LOG_ERR", 1, "f", "text");
    libuio_pr(7, "LOG_DEBUG", 1, "f", "text");
    EXPECT_EQ(output.take_stdout() + output.take_stderr(), "");
}

} // namespace

// The branch of opening the NVRAM log that guesses the current history. Today's check of all
// headers never asks for it, so it is tested inside the library (this program is linked with the
// static one).
#include "lib/podlog/ring.h"
#include "sim/parts/pod_log.h"

#include <gtest/gtest.h>

#include <sys/mman.h>
#include <unistd.h>

namespace
{

TEST(pod_log_recovery, guesses_the_history_with_the_newest_first_entry_or_resets)
{
    constexpr chassis_sim::pod_layout layout = {0x1FE2C365, 48, 1600, 4, 16384, 16312};
    podlog::nvram_dev_info_t &row = podlog::_nvram_dev_info[0];
    row.fd = ::memfd_create("region", 0);
    row.subblock_size = 1600;
    row.num_subblock = 4;
    device_access::pod_log_ring ring = device_access::nvram_ring(0);
    const device_access::pod_index index = {layout.magic, 9, 1600, 0};
    const std::tuple<std::vector<chassis_sim::pod_run>, int, int, uint32_t> cases[] = {
        {{{}, {{30, ""}}, {{40, ""}}, {{40, ""}}}, 2, 1, 2}, // the lower number wins a tie
        {{{{10, ""}}, {}, {{99, ""}}, {{99, ""}}}, 2, 1, 0}, // an empty one ends the search
        {{{{10, ""}}}, 1, -1, 0},                            // all good is not enough
        {{{{10, ""}}}, -1, -1, 0},
        {{}, 2, 1, 0}, // a reset
        {{}, -3, 1, 0},
    };
    for (const auto &[runs, headers, result, guess] : cases) {
        std::string image = chassis_sim::log_image(layout, 0, runs);
        EXPECT_EQ(::pwrite(row.fd, image.data(), image.size(), 0), ssize_t{16384});
        EXPECT_EQ(ring.guess(index, headers), result);
        EXPECT_EQ(::pread(row.fd, image.data(), image.size(), 0), ssize_t{16384});
        EXPECT_TRUE(image == chassis_sim::log_image(layout, guess, runs)) << guess;
    }
    EXPECT_EQ(ring.accept(-3), 1);
    EXPECT_EQ(ring.accept(-1), -1);
}

} // namespace

// The branch of opening the NVRAM log that guesses the current history. Today's check of all
// headers never asks for it, so it is tested inside the library (this program is linked with the
// static one).
#include "lib/podlog/recovery.h"
#include "sim/parts/pod_log.h"

#include <gtest/gtest.h>

#include <sys/mman.h>
#include <unistd.h>

namespace
{

using device_access::pod_headers;

// What opening a damaged log comes to, and the history that is current then.
struct recovery {
    std::vector<chassis_sim::pod_run> runs;
    pod_headers headers;
    int result;
    uint32_t current;
};

const recovery recoveries[] = {
    // The lower number wins a tie.
    {{{}, {{30, ""}}, {{40, ""}}, {{40, ""}}}, pod_headers::usable, 1, 2},
    // An empty history ends the search.
    {{{{10, ""}}, {}, {{99, ""}}, {{99, ""}}}, pod_headers::usable, 1, 0},
    // All good is not enough.
    {{{{10, ""}}}, pod_headers::good, -1, 0},
    {{{{10, ""}}}, pod_headers::bad, -1, 0},
    // Resets.
    {{}, pod_headers::usable, 1, 0},
    {{}, pod_headers::unusable, 1, 0},
};

TEST(pod_log_recovery, guesses_the_history_with_the_newest_first_entry_or_resets)
{
    constexpr chassis_sim::pod_layout layout = {0x1FE2C365, 48, 1600, 4, 16384, 16312};
    podlog::nvram_dev_info_t &row = podlog::_nvram_dev_info[0];
    row.fd = ::memfd_create("region", 0);
    row.subblock_size = 1600;
    row.num_subblock = 4;
    device_access::pod_log_ring ring = device_access::nvram_ring(0);
    device_access::pod_log_recovery opening(ring);
    const device_access::pod_index index = {layout.magic, 9, 1600, 0};
    for (const auto &[runs, headers, result, current] : recoveries) {
        std::string image = chassis_sim::log_image(layout, 0, runs);
        EXPECT_EQ(::pwrite(row.fd, image.data(), image.size(), 0), ssize_t{16384});
        EXPECT_EQ(opening.guess(index, headers), result);
        EXPECT_EQ(::pread(row.fd, image.data(), image.size(), 0), ssize_t{16384});
        EXPECT_TRUE(image == chassis_sim::log_image(layout, current, runs)) << current;
    }
    EXPECT_EQ(opening.accept(pod_headers::unusable), 1);
    EXPECT_EQ(opening.accept(pod_headers::bad), -1);
}

} // namespace

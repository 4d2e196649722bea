// The branches of opening the NVRAM log that today's check of all headers does not ask for, tested
// inside the library (this program is linked with the static one).
#include "support/captured_output.h"
#include "support/pod_image.h"

#include <device_access/internal/pod_log_ring.h>

#include <gtest/gtest.h>

#include <string>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace
{

using device_access::pod_index;
using device_access::pod_log_ring;
using test_support::captured_output;

// A region in memory whose histories' first entries have these times; 0 for an empty history.
class pod_log_recovery : public testing::Test
{
protected:
    void SetUp() override
    {
        row.fd = ::memfd_create("region", 0);
        row.subblock_size = 1600;
        row.num_subblock = 4;
        fill({0, 30, 40, 40});
    }

    void fill(std::initializer_list<uint64_t> times)
    {
        std::string image(16384, '\0');
        image.replace(32, 16, test_support::checked_pod_index(index.magic, 0, 1600));
        uint32_t at = 48;
        for (uint64_t time : times) {
            image.replace(at, 20, test_support::pod_header(1600, time ? 80 : 0, at + 20));
            image.replace(at + 20, 16, test_support::pod_entry(time, 64));
            at += 1600;
        }
        ASSERT_EQ(::pwrite(row.fd, image.data(), image.size(), 0), ssize_t{16384});
    }

    std::string stored_index() const
    {
        char record[16] = {};
        return ::pread(row.fd, record, sizeof record, 32) == 16 ? std::string(record, 16) : "";
    }

    podlog::nvram_dev_info_t &row = podlog::_nvram_dev_info[0];
    static pod_log_ring ring() { return device_access::nvram_ring(0); }
    const pod_index index = {0x1FE2C365, 9, 1600, 0};
};

TEST_F(pod_log_recovery, finds_the_history_with_the_newest_first_entry)
{
    const struct {
        std::initializer_list<uint64_t> times;
        int latest;
    } cases[] = {
        {{0, 30, 40, 40}, 2}, // an empty history 0 is passed over; the lower number wins a tie
        {{10, 0, 99, 99}, 0}, // any other ends the search
        {{10, 5, 0xFFFFFFFF80000000, 7}, 2},
        {{0, 0, 5, 5}, pod_log_ring::no_history},
    };
    for (const auto &c : cases) {
        fill(c.times);
        EXPECT_EQ(ring().find_latest_blk(index), c.latest);
    }
    row.num_subblock = 12; // the last one lies outside the region
    fill({1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1});
    EXPECT_EQ(ring().find_latest_blk(index), -1);
    row.num_subblock = 0;
    EXPECT_EQ(ring().find_latest_blk(index), pod_log_ring::no_history);
}

TEST_F(pod_log_recovery, guesses_the_current_history)
{
    captured_output output;
    EXPECT_EQ(ring().guess(index, 2), 1);
    EXPECT_EQ(stored_index(), test_support::checked_pod_index(index.magic, 2, 1600));
    EXPECT_EQ(output.take_stdout(),
              "podlog_nvram_init: corrupted block index = 0x9 best guess = 0x2\n");
    pod_index in_range = index;
    in_range.header_index = 3;
    EXPECT_EQ(ring().guess(in_range, 2), 1);
    EXPECT_EQ(stored_index(), test_support::checked_pod_index(index.magic, 3, 1600));
    EXPECT_EQ(output.take_stdout(), "");

    pod_index foreign = index;
    foreign.magic = 1;
    EXPECT_EQ(ring().guess(foreign, 2), -1);
    const int writable = row.fd;
    row.fd = ::open(("/proc/self/fd/" + std::to_string(writable)).c_str(), O_RDONLY);
    output.take_stderr();
    EXPECT_EQ(ring().guess(index, 2), -1);
    EXPECT_EQ(output.take_stderr(), "ERROR: pod_nvram_mem_wr: cannot write 16 bytes to 0x20!!\n"
                                    "Failed to write NVRAM index structure!\n");
}

TEST_F(pod_log_recovery, resets_what_cannot_be_guessed)
{
    const std::string reset = "podlog_nvram_reset: reset POD status & fault injection\n";
    const std::string fresh = test_support::checked_pod_index(index.magic, 0, 1600);
    captured_output output;
    for (int headers : {1, -1, 0})
        EXPECT_EQ(ring().guess(index, headers), -1) << "all good is not enough";
    fill({0, 0, 0, 0});
    EXPECT_EQ(ring().guess(index, 2), 1);
    EXPECT_EQ(output.take_stdout(), "podlog_nvram_init: no available block log\n" + reset);
    EXPECT_EQ(ring().guess(index, -3), 1);
    EXPECT_EQ(output.take_stdout(), "podlog_nvram_init: invalid hdr structure found!\n" + reset);
    EXPECT_EQ(ring().accept(-3), 1);
    EXPECT_EQ(output.take_stdout(), "podlog_nvram_init: invalid header structure found.\n" + reset);
    EXPECT_EQ(ring().accept(2), 1);
    EXPECT_EQ(ring().accept(1), 1);
    EXPECT_EQ(ring().accept(-1), -1);
    EXPECT_EQ(output.take_stdout() + output.take_stderr(), "");
    EXPECT_EQ(stored_index(), fresh);
}

} // namespace

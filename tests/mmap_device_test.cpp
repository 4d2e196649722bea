#include "sim/chassis.h"
#include "support/captured_output.h"
#include "support/descriptors.h"

#include <device_access/mmap_device.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace
{

TEST(mmap_device, without_dev_mem_says_so_once_and_returns_null)
{
    chassis_sim::enter_private_root();
    test_support::captured_output output;
    EXPECT_EQ(mmap_device_open(0, 4096), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(output.take_stderr(), "Cannot open Mmap device file /dev/mem ...\n");
    EXPECT_EQ(output.take_stdout(), "");
    mmap_device_close(nullptr, 4096);
}

TEST(mmap_device, maps_shared_memory_at_physical_addresses_above_4_gib)
{
    constexpr uint64_t address = 0x1'2345'6000; // beyond what 32 bits hold
    chassis_sim::enter_private_root();
    const int memory = open("/dev/mem", O_RDWR | O_CREAT, 0600);
    ASSERT_EQ(ftruncate(memory, static_cast<off_t>(address + 8192)), 0);
    const auto before = test_support::open_descriptors();
    void *window = mmap_device_open(address, 8192);
    ASSERT_NE(window, MAP_FAILED);
    EXPECT_EQ(test_support::open_descriptors(), before);
    std::memcpy(static_cast<char *>(window) + 4096, "written", 8);
    char text[8] = "";
    EXPECT_EQ(pread(memory, text, 8, static_cast<off_t>(address + 4096)), 8);
    EXPECT_STREQ(text, "written");
    mmap_device_close(window, 8192);
    EXPECT_EQ(msync(window, 4096, MS_ASYNC), -1) << "still mapped";

    EXPECT_EQ(mmap_device_open(address + 1, 4096), MAP_FAILED);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(test_support::open_descriptors(), before);
    close(memory);
}

} // namespace

#include "sim/register_trap.h"

#include <device_access/regiomap_x86.h>

#include <gtest/gtest.h>

#include <iomanip>
#include <sstream>

namespace
{

using chassis_sim::register_access;
using chassis_sim::register_trap;

std::string text(const std::vector<register_access> &log)
{
    std::ostringstream out;
    for (const register_access &access : log)
        out << (access.kind == register_access::read ? "read " : "write ") << access.width << "@"
            << access.offset << "=" << std::hex << access.value << std::dec << " ";
    return out.str();
}

TEST(regiomap_x86, each_access_is_one_of_its_width_and_64_bits_are_two_in_their_order)
{
    // Every read of a register gives another value, so a repeated or merged one would show.
    uint64_t next = 0xf1f2f3f4f5f6f7f0;
    register_trap window(4096, [&next](size_t, unsigned) { return ++next; });
    char *p = window.base() + 64;

    iowrite8(0xa1, p + 1);
    EXPECT_EQ(text(window.take_log()), "write 1@65=a1 ");
    iowrite16(0xa1b2, p + 2);
    EXPECT_EQ(text(window.take_log()), "write 2@66=a1b2 ");
    iowrite32(0xa1b2c3d4, p + 4);
    EXPECT_EQ(text(window.take_log()), "write 4@68=a1b2c3d4 ");
    iowrite64(0x1122334455667788, p + 8);
    EXPECT_EQ(text(window.take_log()), "write 4@72=55667788 write 4@76=11223344 ");

    EXPECT_EQ(ioread8(p + 1), 0xf1);
    EXPECT_EQ(text(window.take_log()), "read 1@65=f1 ");
    EXPECT_EQ(ioread16(p + 2), 0xf7f2);
    EXPECT_EQ(text(window.take_log()), "read 2@66=f7f2 ");
    EXPECT_EQ(ioread32(p + 4), 0xf5f6f7f3);
    EXPECT_EQ(text(window.take_log()), "read 4@68=f5f6f7f3 ");
    EXPECT_EQ(ioread64(p + 8), 0xf5f6f7f4f5f6f7f5);
    EXPECT_EQ(text(window.take_log()), "read 4@76=f5f6f7f4 read 4@72=f5f6f7f5 ");
}

TEST(regiomap_x86, writes_to_a_null_address_do_nothing)
{
    iowrite8(0x12, nullptr);
    iowrite16(0x1234, nullptr);
    iowrite32(0x12345678, nullptr);
    iowrite64(0x1122334455667788, nullptr);
}

} // namespace

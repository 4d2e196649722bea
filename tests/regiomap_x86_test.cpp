#include <device_access/regiomap_x86.h>

#include <gtest/gtest.h>

namespace
{

TEST(regiomap_x86, writes_to_a_null_address_do_nothing)
{
    iowrite8(0x12, nullptr);
    iowrite16(0x1234, nullptr);
    iowrite32(0x12345678, nullptr);
    iowrite64(0x1122334455667788, nullptr);
}

} // namespace

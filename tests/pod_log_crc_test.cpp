#include <device_access/pod_log_crc_tmp.h>

#include <gtest/gtest.h>

#include <vector>

namespace
{

// The polynomial's long division, one bit at a time.
uint32_t divide(uint32_t crc, const std::vector<uint8_t> &bytes)
{
    for (uint8_t byte : bytes)
        for (int bit = 7; bit >= 0; --bit) {
            const bool carry = (crc >> 31 ^ (byte >> bit & 1u)) != 0;
            crc = crc << 1 ^ (carry ? 0x04C11DB7u : 0u);
        }
    return crc;
}

TEST(pod_log_crc, agrees_with_posix_cksum)
{
    EXPECT_EQ(crc32_cksum("123456789", 9), 0x377A6011u); // the standard's check value
    EXPECT_EQ(crc32_cksum(nullptr, 0), 0xFFFFFFFFu);
    EXPECT_NE(crc32_cksum("\0\0\0\0", 4), crc32_cksum("\0\0\0", 3)) << "the length counts";
}

TEST(pod_log_crc, feeds_as_many_length_bytes_as_the_length_needs)
{
    std::vector<uint8_t> bytes;
    for (size_t length : {1u, 255u, 256u, 257u, 65535u, 65536u}) {
        while (bytes.size() < length)
            bytes.push_back(static_cast<uint8_t>(bytes.size() * 7 + 1));
        std::vector<uint8_t> image = bytes;
        for (size_t rest = length; rest; rest >>= 8)
            image.push_back(static_cast<uint8_t>(rest));
        EXPECT_EQ(crc32_cksum(bytes.data(), length), ~divide(0, image)) << length;
    }
}

TEST(pod_log_crc, the_register_can_be_carried_on_and_is_not_inverted)
{
    const uint32_t first = crc32_posix(0, "1234", 4);
    EXPECT_EQ(crc32_posix(first, "56789", 5), crc32_posix(0, "123456789", 9));
    EXPECT_EQ(crc32_posix(0, "\x01", 1), 0x04C11DB7u);
    EXPECT_EQ(crc32_posix(0x1234, nullptr, 0), 0x1234u);
}

} // namespace

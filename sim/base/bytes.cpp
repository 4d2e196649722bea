// Numbers as bytes, and their checksum.
#include "sim/base/bytes.h"

#include <algorithm>

namespace chassis_sim
{

std::string number(byte_order order, uint64_t value, size_t size)
{
    std::string bytes;
    for (size_t i = 0; i < size; ++i, value >>= 8)
        bytes += static_cast<char>(value);
    if (order == byte_order::big)
        std::reverse(bytes.begin(), bytes.end());
    return bytes;
}

void put(std::string &image, size_t position, const std::string &bytes)
{
    image.replace(position, bytes.size(), bytes);
}

uint32_t cksum(std::string_view bytes)
{
    uint32_t crc = 0;
    const auto shift_in = [&crc](uint64_t byte) {
        for (int bit = 7; bit >= 0; --bit) {
            const bool carry = (crc >> 31) != (byte >> bit & 1);
            crc = crc << 1 ^ (carry ? 0x04C11DB7 : 0);
        }
    };
    for (const char byte : bytes)
        shift_in(static_cast<unsigned char>(byte));
    for (uint64_t length = bytes.size(); length > 0; length >>= 8)
        shift_in(length & 0xff);
    return ~crc;
}

} // namespace chassis_sim

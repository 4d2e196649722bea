// The checksum of cksum(1), which guards the records of the POD and the POST logs.
#include <device_access/pod_log_crc_tmp.h>

#include <array>
#include <cstring>

#include <endian.h>

namespace
{

using crc_table = std::array<uint32_t, 256>;

// Row 0 advances the register by one byte, row n by a byte that n more follow.
constexpr std::array<crc_table, 4> make_tables()
{
    constexpr uint32_t polynomial = 0x04C11DB7;
    std::array<crc_table, 4> rows = {};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t crc = i << 24;
        for (crc_table &row : rows) {
            for (int bit = 0; bit < 8; ++bit)
                crc = crc << 1 ^ (crc >> 31 ? polynomial : 0);
            row[i] = crc;
        }
    }
    return rows;
}

constexpr std::array<crc_table, 4> crctab = make_tables();

constexpr uint32_t step(uint32_t crc, uint8_t byte)
{
    return crc << 8 ^ crctab[0][crc >> 24 ^ byte];
}

// Four bytes at once: their tables do not wait for each other.
uint32_t step_by_word(uint32_t crc, const uint8_t *bytes)
{
    uint32_t word;
    std::memcpy(&word, bytes, sizeof word);
    crc ^= be32toh(word);
    return crctab[3][crc >> 24] ^ crctab[2][crc >> 16 & 0xff] ^ crctab[1][crc >> 8 & 0xff] ^
           crctab[0][crc & 0xff];
}

} // namespace

uint32_t crc32_posix(uint32_t crc, const void *buf, uint32_t len)
{
    const uint8_t *byte = static_cast<const uint8_t *>(buf);
    for (; len >= 4; len -= 4, byte += 4)
        crc = step_by_word(crc, byte);
    for (; len > 0; --len, ++byte)
        crc = step(crc, *byte);
    return crc;
}

uint32_t crc32_cksum(const void *data, size_t len)
{
    uint32_t crc = crc32_posix(0, data, static_cast<uint32_t>(len));
    for (uint32_t rest = static_cast<uint32_t>(len); rest; rest >>= 8)
        crc = step(crc, static_cast<uint8_t>(rest));
    return ~crc;
}

// The checksum of cksum(1), which guards the records of the POD and the POST logs.
#include <device_access/pod_log_crc_tmp.h>

#include <array>

namespace
{

constexpr std::array<uint32_t, 256> make_table()
{
    constexpr uint32_t polynomial = 0x04C11DB7;
    std::array<uint32_t, 256> table = {};
    for (uint32_t i = 0; i < table.size(); ++i) {
        uint32_t crc = i << 24;
        for (int bit = 0; bit < 8; ++bit)
            crc = crc << 1 ^ (crc >> 31 ? polynomial : 0);
        table[i] = crc;
    }
    return table;
}

constexpr std::array<uint32_t, 256> crctab = make_table();

constexpr uint32_t step(uint32_t crc, uint8_t byte)
{
    return crc << 8 ^ crctab[crc >> 24 ^ byte];
}

} // namespace

uint32_t crc32_posix(uint32_t crc, const void *buf, uint32_t len)
{
    const uint8_t *byte = static_cast<const uint8_t *>(buf);
    for (const uint8_t *end = byte + len; byte != end; ++byte)
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

#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

namespace test_support
{

inline std::string little_endian(uint64_t value, int bytes)
{
    std::string text;
    for (int i = 0; i < bytes; ++i)
        text += static_cast<char>(value >> 8 * i & 0xFF);
    return text;
}

// The cksum CRC by the polynomial's long division, one bit at a time.
inline uint32_t cksum(std::string_view data)
{
    uint32_t crc = 0;
    const auto divide = [&crc](uint8_t byte) {
        for (int bit = 7; bit >= 0; --bit)
            crc = crc << 1 ^ ((crc >> 31 ^ (byte >> bit & 1u)) ? 0x04C11DB7u : 0u);
    };
    for (char c : data)
        divide(static_cast<uint8_t>(c));
    for (size_t rest = data.size(); rest; rest >>= 8)
        divide(static_cast<uint8_t>(rest));
    return ~crc;
}

inline std::string words(std::initializer_list<uint32_t> values)
{
    std::string text;
    for (uint32_t value : values)
        text += little_endian(value, 4);
    return text;
}

// Where two images differ; empty if they do not.
inline std::string difference(const std::string &one, const std::string &other)
{
    if (one.size() != other.size())
        return "sizes " + std::to_string(one.size()) + " and " + std::to_string(other.size());
    for (size_t i = 0; i < one.size(); ++i)
        if (one[i] != other[i])
            return "byte " + std::to_string(i);
    return "";
}

// The records of a POD log, built by hand, with right checksums.
inline std::string checked_pod_index(uint32_t magic, uint32_t current, uint32_t size)
{
    const std::string index = words({magic, current, size});
    return index + words({cksum(index)});
}

inline std::string pod_header(uint32_t size, uint32_t used, uint32_t start)
{
    const std::string rest = words({size, used, 0x1122, start});
    return words({cksum(rest)}) + rest;
}

inline std::string pod_entry(uint64_t time, uint32_t entry_size)
{
    const std::string unsealed = little_endian(time, 8) + words({0, entry_size});
    return little_endian(time, 8) + words({cksum(unsealed), entry_size});
}

} // namespace test_support

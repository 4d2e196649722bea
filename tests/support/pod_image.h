#pragma once

#include "sim/pod_log.h"

#include <cstdint>
#include <initializer_list>
#include <string>

namespace test_support
{

using chassis_sim::checked_pod_index;
using chassis_sim::cksum;
using chassis_sim::pod_entry;
using chassis_sim::pod_header;

inline std::string little_endian(uint64_t value, size_t bytes)
{
    return chassis_sim::number(chassis_sim::byte_order::little, value, bytes);
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

} // namespace test_support

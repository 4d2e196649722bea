// What the records of the logs are made of, byte by byte.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace chassis_sim
{

enum class byte_order { little, big };

// The low size bytes of a value.
std::string number(byte_order order, uint64_t value, size_t size);

// Overwrites what an image has there.
void put(std::string &image, size_t position, const std::string &bytes);

// The checksum of POSIX cksum, by the polynomial's long division, one bit at a time.
uint32_t cksum(std::string_view bytes);

} // namespace chassis_sim

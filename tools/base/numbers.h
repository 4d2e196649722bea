// Numbers and names as they are written on the command line.
#pragma once

#include <string>

namespace devaccess
{

// A number in decimal or, after "0x", hexadecimal, at most max.
unsigned long long parse_number(const std::string &name, const std::string &text,
                                unsigned long long max);

// The highest number of so many bits.
constexpr unsigned long long highest(unsigned bits)
{
    return ~0ull >> (64 - bits);
}

// "VALUE" or "VALUE/MASK", of which the mask says the bits that count.
struct masked_value {
    unsigned long long value;
    unsigned long long mask;
    unsigned long long all; // of the register's bits

    bool is_whole() const { return mask == all; }
    unsigned long long applied_to(unsigned long long before) const
    {
        return (before & ~mask) | (value & mask);
    }
    bool matches(unsigned long long other) const { return ((other ^ value) & mask) == 0; }
};
masked_value parse_masked(const std::string &text, unsigned long long max);

// Upper case, as the names of cards and slots are.
std::string in_capitals(std::string text);

} // namespace devaccess

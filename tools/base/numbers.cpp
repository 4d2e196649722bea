// Parses numbers.
#include "tools/base/numbers.h"

#include "tools/base/errors.h"

#include <algorithm>
#include <cctype>
#include <charconv>

#include <fmt/format.h>

namespace devaccess
{

unsigned long long parse_number(const std::string &name, const std::string &text,
                                unsigned long long max)
{
    const bool is_hex = text.compare(0, 2, "0x") == 0 || text.compare(0, 2, "0X") == 0;
    const char *first = text.data() + (is_hex ? 2 : 0);
    const char *last = text.data() + text.size();
    unsigned long long value = 0;
    const auto [end, error] = std::from_chars(first, last, value, is_hex ? 16 : 10);
    if (error == std::errc::invalid_argument || end != last)
        throw usage_error(fmt::format("{} '{}' is not a number; write 26 or 0x1a", name, text));
    if (error == std::errc::result_out_of_range || value > max)
        throw usage_error(fmt::format("{} {} is too large; at most {:#x}", name, text, max));
    return value;
}

masked_value parse_masked(const std::string &text, unsigned long long max)
{
    const size_t slash = text.find('/');
    const auto value = parse_number("the value", text.substr(0, slash), max);
    return {value, slash == text.npos ? max : parse_number("the mask", text.substr(slash + 1), max),
            max};
}

std::string in_capitals(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return text;
}

} // namespace devaccess

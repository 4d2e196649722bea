#include "tools/base/captured_call.h"

#include "tools/base/output.h"
#include "tools/base/rights.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include <fmt/format.h>

namespace devaccess
{
namespace
{

std::string without_blanks_around(const std::string &text)
{
    const size_t begin = text.find_first_not_of(" \t");
    return begin == std::string::npos
               ? ""
               : text.substr(begin, text.find_last_not_of(" \t") + 1 - begin);
}

bool is_error(const std::string &line)
{
    return line.compare(0, 5, "ERROR") == 0;
}

std::string without_prefixes(std::string line)
{
    for (const std::string prefix : {"ERROR:", "ERROR", "DIAG's INVENTORY:"})
        while (line.compare(0, prefix.size(), prefix) == 0)
            line = without_blanks_around(line.substr(prefix.size()));
    return line;
}

} // namespace

failure::failure(const std::string &what, const std::string &why, const std::string &hint_text,
                 int errno_value)
    : std::runtime_error("cannot " + what + ": " + why),
      hint(missing_right(why, errno_value).value_or(hint_text)), error(errno_value)
{
}

kept_output::kept_output() : memory_(::open_memstream(&text_, &size_))
{
    if (!memory_)
        throw std::runtime_error(std::string("cannot keep output: ") + std::strerror(errno));
    stdout = stderr = memory_;
}

kept_output::~kept_output()
{
    stdout = out_;
    stderr = err_;
    std::fclose(memory_);
    std::free(text_);
}

std::string kept_output::text()
{
    std::fflush(memory_);
    return {text_, size_};
}

std::string outcome::why() const
{
    std::istringstream lines(said);
    std::string cause;
    for (std::string line; !is_error(cause) && std::getline(lines, line);)
        if (line = without_blanks_around(line); !line.empty())
            cause = line;
    cause = without_prefixes(cause);
    if (cause.empty())
        return error ? std::strerror(error) : "the library gives no reason";
    const bool lacks_error = error && cause.find(std::strerror(error)) == std::string::npos;
    return lacks_error ? fmt::format("{}: {}", cause, std::strerror(error)) : cause;
}

void pass_on(const std::string &said)
{
    if (!settings.verbose)
        return;
    std::istringstream lines(said);
    for (std::string line; std::getline(lines, line);)
        if (!line.empty())
            print_error_line("library: " + printable(line));
}

void fail(const std::string &what, const outcome &how, const std::string &hint)
{
    throw failure(what, how.why(), missing_right(how.said, 0).value_or(hint), how.error);
}

unsigned long long parse_number(const std::string &name, const std::string &text,
                                unsigned long long max)
{
    const bool is_hex = text.compare(0, 2, "0x") == 0 || text.compare(0, 2, "0X") == 0;
    const char *first = text.data() + (is_hex ? 2 : 0);
    const char *last = text.data() + text.size();
    unsigned long long value = 0;
    const auto [end, error] = std::from_chars(first, last, value, is_hex ? 16 : 10);
    if (error == std::errc::invalid_argument || end != last)
        throw usage_error(fmt::format("{} '{}' is no number; write 26 or 0x1a", name, text));
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

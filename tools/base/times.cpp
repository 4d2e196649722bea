// Writes and parses times.
#include "tools/base/times.h"

#include "tools/base/errors.h"
#include "tools/base/settings.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <limits>
#include <optional>

#include <fmt/chrono.h>
#include <fmt/format.h>

namespace devaccess
{
namespace
{

constexpr time_t hour = 3600;
constexpr time_t day = 24 * hour;

// Nothing for a time that is no date: the year has too many digits.
std::optional<tm> parts_of(time_t seconds)
{
    tm parts = {};
    const tm *found =
        settings.local_time ? ::localtime_r(&seconds, &parts) : ::gmtime_r(&seconds, &parts);
    return found ? std::optional(parts) : std::nullopt;
}

// Times have 32 bits on some machines.
time_t within_limits(int64_t seconds)
{
    using limit = std::numeric_limits<time_t>;
    return static_cast<time_t>(std::clamp<int64_t>(seconds, limit::min(), limit::max()));
}

time_t seconds_of(tm parts, bool is_local)
{
    parts.tm_isdst = -1;
    const bool is_late = parts.tm_year > 70;
    errno = 0;
    const time_t seconds = is_local ? ::mktime(&parts) : ::timegm(&parts);
    return errno != EOVERFLOW ? seconds : within_limits(is_late ? INT64_MAX : INT64_MIN);
}

time_t midnight(time_t seconds)
{
    tm parts = parts_of(seconds).value_or(tm{});
    parts.tm_hour = parts.tm_min = parts.tm_sec = 0;
    return seconds_of(parts, settings.local_time);
}

// Not so 31 February, which would be taken for a day in March.
bool is_in_calendar(tm parts)
{
    const int day_of_month = parts.tm_mday;
    ::timegm(&parts);
    return parts.tm_mday == day_of_month;
}

std::optional<time_t> parse_date(const std::string &text)
{
    for (const char *form : {"%Y-%m-%dT%H:%M:%S", "%Y-%m-%dT%H:%M", "%Y-%m-%d %H:%M:%S",
                             "%Y-%m-%d %H:%M", "%Y-%m-%d"}) {
        tm parts = {};
        const char *rest = ::strptime(text.c_str(), form, &parts);
        if (rest && !is_in_calendar(parts))
            return std::nullopt;
        if (rest && *rest == '\0')
            return seconds_of(parts, settings.local_time);
        const char *end = rest ? ::strptime(rest, "%z", &parts) : nullptr;
        if (end && *end == '\0') {
            const time_t offset = parts.tm_gmtoff;
            return within_limits(int64_t{seconds_of(parts, false)} - offset);
        }
    }
    return std::nullopt;
}

// "2h", or "@1700000000".
std::optional<time_t> parse_number_of_seconds(const std::string &text, time_t now)
{
    constexpr std::pair<char, time_t> units[] = {
        {'s', 1}, {'m', 60}, {'h', hour}, {'d', day}, {'w', 7 * day}};
    const bool is_absolute = text[0] == '@';
    uint32_t number = 0; // what is larger is no time of a log
    const char *last = text.data() + text.size();
    const auto [end, error] = std::from_chars(text.data() + is_absolute, last, number);
    if (error != std::errc())
        return std::nullopt;
    if (is_absolute)
        return end == last ? std::optional(within_limits(number)) : std::nullopt;
    for (const auto &[name, seconds] : units)
        if (end + 1 == last && *end == name)
            return within_limits(now - int64_t{number} * seconds);
    return std::nullopt;
}

} // namespace

std::string time_text(time_t seconds)
{
    const std::optional<tm> parts = parts_of(seconds);
    if (!parts)
        return fmt::format("@{}", seconds);
    const std::string text = fmt::format("{:%Y-%m-%dT%H:%M:%S}", *parts);
    if (!settings.local_time)
        return text + "Z";
    const long minutes = parts->tm_gmtoff / 60;
    return fmt::format("{}{}{:02}:{:02}", text, minutes < 0 ? '-' : '+', std::abs(minutes) / 60,
                       std::abs(minutes) % 60);
}

time_t parse_time(const std::string &text)
{
    const time_t now = ::time(nullptr);
    if (text == "now")
        return now;
    if (text == "today" || text == "yesterday")
        return midnight(midnight(now) - (text == "today" ? 0 : day / 2));
    if (const auto date = parse_date(text))
        return *date;
    if (const auto seconds = parse_number_of_seconds(text, now))
        return *seconds;
    throw usage_error(fmt::format("'{}' is not a time; write 2023-11-14, '2023-11-14 22:13:20', "
                                  "today, yesterday, 2h (ago) or @1700000000",
                                  text));
}

time_limits time_span::limits() const
{
    using limit = std::numeric_limits<time_t>;
    return {since.empty() ? limit::min() : parse_time(since),
            until.empty() ? limit::max() : parse_time(until)};
}

} // namespace devaccess

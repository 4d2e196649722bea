// Times as people read and write them.
#pragma once

#include <ctime>
#include <string>

namespace devaccess
{

// ISO 8601 in UTC, "2026-11-24T21:16:56Z"; with --local, "2026-11-24T22:16:56+01:00".
std::string time_text(time_t seconds);

// A moment: a day or a time in ISO 8601, of which a blank may replace the T and parts may be
// missing at the end, "@" and the seconds since 1970, "now", "today", "yesterday", or how long ago
// it was, "90s", "5m", "2h", "3d", "1w".
time_t parse_time(const std::string &text);

// Both moments are within them.
struct time_limits {
    time_t first;
    time_t last;

    bool hold(time_t time) const { return time >= first && time <= last; }
};

// Which entries are wanted: --since and --until.
struct time_span {
    std::string since;
    std::string until;

    // The options become times; without one there is no limit.
    time_limits limits() const;
};

} // namespace devaccess

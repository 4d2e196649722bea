// Writes entries of logs in systemd's Journal Export Format.
#include "tools/podlog/journal_format.h"

#include "tools/base/numbers.h"
#include "tools/base/output.h"

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <string_view>

#include <fmt/format.h>
#include <sys/utsname.h>

namespace devaccess
{
namespace
{

// What these entries are, for "journalctl MESSAGE_ID=...": random numbers, made once.
constexpr char pod_message_id[] = "1c768f8ac0f842e7a82c5dfd4fc0d9c2";
constexpr char post_message_id[] = "6676f851e88d45629efab296e77bd2a4";
// No entry tells in which start of the machine it was written. All have this in common, so that the
// journal sorts them by their time among all others.
constexpr char boot_id[] = "7a9a6b7bba154107931b9a667730db10";

constexpr int error_priority = 3;
constexpr int warning_priority = 4;
constexpr int information_priority = 6;

// A value of any bytes comes after its size, so that none of them ends the line or the entry.
std::string field(std::string_view name, std::string_view value)
{
    const bool is_plain =
        std::all_of(value.begin(), value.end(), [](char c) { return c >= ' ' && c <= '~'; });
    if (is_plain)
        return fmt::format("{}={}\n", name, value);
    std::string framed = fmt::format("{}\n", name);
    for (unsigned shift = 0; shift < 64; shift += 8)
        framed += static_cast<char>(uint64_t{value.size()} >> shift & 0xff);
    return framed.append(value) + '\n';
}

// The journal knows no time before 1970, and drops all that comes after one.
int64_t microseconds(time_t seconds)
{
    constexpr int64_t latest = (int64_t{1} << 55) - 1;
    return std::clamp<int64_t>(int64_t{seconds}, 0, latest / 1000000 - 1) * 1000000 +
           (seconds <= 0);
}

bool begins_with(const std::string &message, std::string_view letters)
{
    return in_capitals(message.substr(0, letters.size())) == letters;
}

bool tells_success(const std::string &message)
{
    const std::string capitals = in_capitals(message);
    return capitals.find("PASS") != capitals.npos || capitals.ends_with(" OK") ||
           capitals.find(" OK ") != capitals.npos;
}

std::string fields_of_this_host()
{
    utsname system = {};
    ::uname(&system);
    std::string machine;
    std::getline(std::ifstream("/etc/machine-id"), machine);
    return field("_HOSTNAME", system.nodename) +
           (machine.empty() ? "" : field("_MACHINE_ID", machine));
}

} // namespace

std::string journal_entry(const timeline_entry &entry)
{
    static const std::string this_host = fields_of_this_host();
    const std::string host = entry.host.empty() ? this_host : field("_HOSTNAME", entry.host);
    const std::string message = entry.message.substr(0, entry.message.find('\0'));
    const bool is_pod = entry.log == std::string_view("pod");
    const bool has_failed = tells_failure(message) || (!is_pod && entry.source == "error");
    const int priority = has_failed ? error_priority
                         : begins_with(message, "W:") || begins_with(message, "WARN")
                             ? warning_priority
                             : information_priority;
    std::string text = field("__REALTIME_TIMESTAMP", std::to_string(microseconds(entry.time))) +
                       "__MONOTONIC_TIMESTAMP=0\n" + field("_BOOT_ID", boot_id) + host +
                       field("MESSAGE_ID", is_pod ? pod_message_id : post_message_id) +
                       field("MESSAGE", message) + field("PRIORITY", std::to_string(priority)) +
                       "SYSLOG_IDENTIFIER=devaccess\n" + field("DEVACCESS_LOG", entry.log) +
                       field(is_pod ? "DEVACCESS_CARD" : "DEVACCESS_BLOCK", entry.source) +
                       field("DEVACCESS_HISTORY", std::to_string(entry.history)) +
                       field("DEVACCESS_TIME", std::to_string(int64_t{entry.time})) +
                       field("DEVACCESS_ENTRY", entry.id);
    if (has_failed || tells_success(message))
        text += field("DEVACCESS_STATUS", has_failed ? "failed" : "passed");
    return text + '\n';
}

} // namespace devaccess

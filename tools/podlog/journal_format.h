// Entries of logs as the journal takes them over: systemd's Journal Export Format.
#pragma once

#include <ctime>
#include <string>

namespace devaccess
{

struct timeline_entry {
    time_t time;
    const char *log;    // "pod" or "post"
    std::string source; // a card, or a block
    int history;
    std::string message; // as the log has it
    std::string id;      // reading_position's
    std::string host;    // empty: this machine
};

// The entry with its fields, and the empty line that ends it.
std::string journal_entry(const timeline_entry &entry);

} // namespace devaccess

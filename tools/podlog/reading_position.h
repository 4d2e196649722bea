// Which entries of the logs have been printed before, so that a run goes on where the last one
// ended.
#pragma once

#include <cstdint>
#include <ctime>
#include <map>
#include <set>
#include <string>

namespace devaccess
{

// Neither times nor places say which entries are new: clocks step back, several entries have one
// time, histories are used again. So the file has a sum of each entry that is in the logs, and an
// entry is new that was not there.
class reading_position
{
public:
    // What the file remembers; nothing without a file, or with one that does not exist yet. Fails
    // when it is another kind of file.
    explicit reading_position(std::string file);

    struct taken_entry {
        bool is_new;
        std::string id; // the same whenever the entry is read, and of no other entry
    };
    // Takes an entry of the log ("pod SW1"); of several that are alike, one after the other.
    taken_entry take(const std::string &log, time_t time, const std::string &message);

    // What is taken next is of another machine. Without a file, those before are forgotten.
    void begin_machine();

    // All of the log has been read: what has gone from it is forgotten. What is not all there keeps
    // what is remembered of it, as entries of a damaged or unreachable log can come back.
    void forget_what_is_gone(const std::string &log);

    // Replaces the file as a whole, once what has been printed is on its way to the disk.
    void save() const;

private:
    using counts = std::map<uint64_t, unsigned>; // by the sum of an entry: how many are alike

    std::string file_;
    std::map<std::string, counts> before_;
    std::map<std::string, counts> now_;
    std::set<std::string> whole_; // logs of which nothing is missing
};

} // namespace devaccess

// POD logs where they are kept, whatever the names of their cards.
#pragma once

#include "library.h"

#include <device_access/pod_log.h>

#include <ctime>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace devaccess
{

const char *storage_name(pod_storage_type_t type);

struct log_history {
    int number;
    time_t time; // of its first entry
};

struct log_entry {
    time_t time;
    std::string message;
};

struct log_contents {
    std::vector<log_entry> entries;
    std::optional<failure> broken; // why there are no more
};

class pod_storage
{
public:
    // owner: for messages, e.g. "RPSW1".
    pod_storage(std::string owner, pod_storage_type_t type, int id)
        : owner_(std::move(owner)), type_(type), id_(id)
    {
    }

    // Newest first; none when the log is empty.
    std::vector<log_history> histories() const;

    log_contents read(int history) const;

    // Adds a history's entries, as they are, to an EEPROM and starts its next history. Returns
    // their number.
    int copy(int history, int eeprom) const;

private:
    std::optional<outcome> walk(int history,
                                const std::function<int(int position)> &read_one) const;

    std::string owner_;
    pod_storage_type_t type_;
    int id_;
};

// What a log that cannot be opened or read needs.
inline constexpr char log_hint[] =
    "'devaccess podlog check' looks at every storage, 'prepare' makes missing ones";

// Lets a file hold an EEPROM's contents; to be written, it is made when it is missing.
void bind_eeprom_file(int eeprom, const std::string &path, bool writable);

} // namespace devaccess

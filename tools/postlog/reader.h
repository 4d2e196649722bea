// The blocks of the firmware's POST logs, read through the library.
#pragma once

#include <device_access/post_log_nvram.h>

#include <ctime>
#include <functional>
#include <string>
#include <vector>

namespace devaccess
{

// Where the blocks are: in device files, unless one of these says otherwise.
struct postlog_place {
    std::string pcie;      // behind the NVRAM controller in this window, "ID:BAR"
    std::string directory; // in files with the devices' names

    // 'devaccess postlog list', for a hint.
    std::string list_command() const;
};

// A block that is opened for each use, or, behind a controller, never closed: once closed it could
// not be opened again.
class post_block
{
public:
    post_block(const char *name, log_type_t block, bool closes)
        : name_(name), block_(block), closes_(closes)
    {
    }

    const char *name() const { return name_; }

    struct history {
        int number;
        time_t time;
    };

    // Newest first.
    std::vector<history> histories() const;

    // Hands each entry to use, in order.
    using user = std::function<void(time_t time, const std::string &message)>;
    void read(int history, const user &use) const;

private:
    const char *hint() const;
    void close() const;

    const char *name_;
    log_type_t block_;
    bool closes_;
};

inline const std::vector<std::string> post_block_names = {"event", "test", "error"};

// All blocks, or the one of this name. Relative paths lead elsewhere afterwards.
std::vector<post_block> open_blocks(const postlog_place &place, const std::string &name = "");

} // namespace devaccess

// A device whose registers commands read and write, by offsets or by names.
#pragma once

#include "tools/base/output.h"
#include "tools/base/waiting.h"
#include "tools/registers/device_map.h"
#include "tools/registers/register_bank.h"

#include <algorithm>
#include <string>
#include <vector>

namespace devaccess
{

// What the command line says.
struct register_arguments {
    std::string device;             // "NODE" or "ID"
    std::vector<std::string> words; // the place in numbers, or names
    std::string map;                // --map
    std::string base;               // --base, of memory
    std::string out;
    std::string looks; // --count
    unsigned width = 0;
    bool dry_run = false;
    bool follow = false;
    wait_options wait;
};

class register_source
{
public:
    virtual ~register_source() = default;

    virtual std::string name() const = 0; // for messages: "/dev/uio0"
    virtual record identity() const = 0;  // for the output
    // How the output calls a window's number: "map", "bar"; NULL: there is one window only.
    virtual const char *window_word() const = 0;
    // What maps of it are called.
    virtual std::vector<std::string> map_names() const = 0;

    // How high such a number can be, and how much can be accessed at once.
    virtual unsigned highest_window() const { return 0; }
    virtual uint64_t most_bytes() const { return SIZE_MAX; }
    // How much a dump has that does not say its length.
    virtual uint64_t dumped_bytes(const register_bank &bank, uint64_t place) const
    {
        return bank.window.size() - std::min<uint64_t>(place, bank.window.size());
    }

    // The window of this number, of which these bytes are wanted, mapped as long as this lives.
    virtual register_bank bank(unsigned window, uint64_t place, uint64_t bytes) = 0;
    // The same, for the registers of a map.
    virtual register_bank bank_of(const register_map::map &, unsigned window)
    {
        return bank(window, 0, 0);
    }
};

} // namespace devaccess

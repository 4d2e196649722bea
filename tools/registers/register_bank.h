// Registers in mapped memory, and what commands do with them.
#pragma once

#include "tools/base/output.h"
#include "tools/base/waiting.h"
#include "tools/cli/command.h"

#include <device_access/device_access.hpp>

#include <string>
#include <vector>

namespace devaccess
{

struct bank_arguments {
    std::string offset = "0"; // or address
    std::string value;
    std::string count;
    unsigned width = 32;
    bool dry_run = false;
    wait_options wait;
};

void add_width(command &to, bank_arguments &arguments);
void add_count(command &to, bank_arguments &arguments);
void add_value(command &to, bank_arguments &arguments);

struct register_bank {
    std::string name;  // for messages: "map 1 of /dev/uio0"
    record identity;   // for the output
    const char *place; // "offset" or "address"
    uint64_t start;    // of the window, as places count
    device_access::window window;
    std::string directory = "/"; // in sysfs, which goes with the device
};

// How many registers, bytes or the like; none is too few.
uint64_t parse_count(const std::string &name, const std::string &text, uint64_t max);

void read_bank(const register_bank &bank, uint64_t place, const bank_arguments &arguments);
void write_bank(const register_bank &bank, uint64_t place, const bank_arguments &arguments);
void watch_bank(const register_bank &bank, uint64_t place, const bank_arguments &arguments);
// As many bytes, as hexadecimal registers.
void dump_bank(const register_bank &bank, uint64_t place, uint64_t bytes, unsigned width);

} // namespace devaccess

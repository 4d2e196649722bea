// Registers in mapped memory, and what commands that name them by their offset do with them.
#pragma once

#include "tools/base/output.h"
#include "tools/base/waiting.h"

#include <device_access/device_access.hpp>

#include <string>

namespace devaccess
{

struct register_bank {
    std::string name;  // for messages: "map 1 of /dev/uio0"
    record identity;   // for the output
    const char *place; // "offset" or "address"
    uint64_t start;    // of the window, as places count
    device_access::window window;
    std::string directory = "/"; // in sysfs, which goes with the device
    uint64_t origin = 0;         // from which the offsets of a register map count
};

uint64_t read_register(const device_access::window &window, size_t offset, unsigned width);
void write_register(const device_access::window &window, size_t offset, unsigned width,
                    uint64_t value);

// Where registers lie in the window; refuses what does not fit.
size_t offset_in(const register_bank &bank, uint64_t place, uint64_t bytes, unsigned width);

int digits_of(unsigned width);

// How many registers, bytes or the like; none is too few.
uint64_t parse_count(const std::string &name, const std::string &text, uint64_t max);

// One register, or, with a count, so many.
void read_bank(const register_bank &bank, uint64_t place, const std::string &count, unsigned width);
// value: VALUE or VALUE/MASK
void write_bank(const register_bank &bank, uint64_t place, const std::string &value, unsigned width,
                bool is_dry);
void watch_bank(const register_bank &bank, uint64_t place, unsigned width,
                const wait_options &options);
// As many bytes, as hexadecimal registers.
void dump_bank(const register_bank &bank, uint64_t place, uint64_t bytes, unsigned width);

} // namespace devaccess

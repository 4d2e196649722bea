// The registers of a window by their names, fields and behaviour, in the words of CMSIS-SVD, as
// register_map.schema.json defines their JSON text.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace register_map
{

enum class access { read_write, read_only, write_only, write_once, read_write_once };

// What a read does to a register.
enum class read_action { none, clear, set };

// What a write does with the bits written.
enum class write_values {
    modify, // they are the register's new ones
    one_to_clear,
    one_to_set,
    one_to_toggle,
    zero_to_clear,
    zero_to_set,
    zero_to_toggle,
    clear, // whatever is written
    set,
};

// How bits behave.
struct behaviour {
    register_map::access access = access::read_write;
    register_map::read_action read_action = read_action::none;
    register_map::write_values write_values = write_values::modify;
    bool operator==(const behaviour &) const = default;
};

struct field {
    std::string name;
    std::string description;
    unsigned int lsb = 0;
    unsigned int msb = 0;
    behaviour bits;                                       // the register's where it says nothing
    std::vector<std::pair<std::string, uint64_t>> values; // names of some

    uint64_t mask() const { return (~uint64_t{0} >> (63 - (msb - lsb))) << lsb; }
    uint64_t of(uint64_t value) const { return (value & mask()) >> lsb; }
};

// A register or a field of one, and what it becomes.
struct change {
    std::string target;            // "REGISTER" or "REGISTER.FIELD" of the same map
    std::optional<uint64_t> value; // none: the value written
};

// What follows a write.
struct write_action {
    std::optional<uint64_t> when;                              // the value written
    std::vector<std::pair<std::string, uint64_t>> when_fields; // fields of the value written
    std::vector<change> set;
    uint32_t after_ms = 0;
    std::string interrupt; // the device whose interrupt then occurs, such as "uio0"
};

struct reg {
    std::string name;
    std::string description;
    uint32_t offset = 0; // in bytes
    uint32_t size = 32;  // in bits
    uint64_t reset = 0;
    behaviour bits;
    std::vector<field> fields;
    uint32_t fifo = 0;          // so many words wait between writes and reads
    uint32_t counts_per_ms = 0; // it counts up by itself
    std::vector<write_action> on_write;

    uint32_t width() const { return size / 8; }
    const field *find(const std::string &field_name) const;

    // Whether reads and writes of it do more than those of memory.
    bool behaves() const;
};

struct map {
    std::string name; // of the kind of device
    std::string description;
    std::vector<reg> registers;

    const reg *find(const std::string &register_name) const;
};

bool behave(const std::vector<reg> &registers);

// Reads a map from a file. Throws a std::runtime_error whose line says what is wrong, and where.
map read(const std::string &file);

} // namespace register_map

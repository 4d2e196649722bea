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

// What a read does to a register. What is modified by it, in a way of its own or somewhere else,
// only a driver knows.
enum class read_action { none, clear, set, modify, modify_external };

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
    // The word for a value; NULL: it has none.
    const std::string *word(uint64_t value) const;
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
    uint32_t window = 0; // of the device: the number of a UIO device's map, or of a BAR
    uint32_t offset = 0; // in bytes
    uint32_t size = 32;  // in bits
    uint64_t reset = 0;
    behaviour bits;
    std::vector<field> fields;
    uint32_t fifo = 0;          // so many words wait between writes and reads
    uint32_t counts_per_ms = 0; // it counts up by itself
    std::vector<write_action> on_write;
    uint32_t element = 0; // of the list that it was read from, where an array is one element

    uint32_t width() const { return size / 8; }
    const field *find(const std::string &field_name) const;

    // Whether reads and writes of it do more than those of memory.
    bool behaves() const;
    // Whether a read changes what a later one finds.
    bool reading_changes() const;
    // Whether some of its bits can be read.
    bool is_readable() const;
};

struct map {
    std::string name; // of the kind of device
    std::string description;
    std::optional<uint64_t> address; // of the window in physical memory
    uint64_t size = 0;               // of each window in bytes; 0: not known
    std::vector<reg> registers;

    const reg *find(const std::string &register_name) const;
    // How many windows have registers.
    size_t windows() const;
};

bool behave(const std::vector<reg> &registers);

// A map has at most so many registers, fields and words together, and its text so many bytes: what
// it needs of time and memory has a limit.
inline constexpr size_t most_parts = 262144;
inline constexpr size_t most_bytes = 16 << 20;

// Reads a map from a file. Throws a std::runtime_error whose line says what is wrong, and where.
map read(const std::string &file);

// The same, but for what is wrong with registers that could be read: a line for each of the first
// faults, with the JSON path of the member.
map read(const std::string &file, std::vector<std::string> &faults);

// What is wrong with a map's registers, as the same says it, without a file.
std::vector<std::string> faults_of(const map &checked);

// The JSON text that read() takes.
std::string text_of(const map &written);

// What stands in place of the %s in the names of an array of so many: "0-3", "A-D" or "X,Y,Z";
// without a text, numbers from 0. Throws as read() does, about the place that is named.
std::vector<std::string> index_words(const std::string &text, uint64_t count,
                                     const std::string &where);

} // namespace register_map

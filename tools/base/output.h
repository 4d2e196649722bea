// What devaccess prints: records as tables for people or as JSON for programs, and failures as one
// line, or one object, on standard error.
#pragma once

#include "tools/base/captured_call.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace devaccess
{

using json = nlohmann::ordered_json;

// Of all JSON objects, in their member "format"; devaccess.schema.json describes them.
inline constexpr int json_format = 1;

// What the command line says to every command.
struct program_settings {
    bool as_json = false;
    bool verbose = false;
    bool local_time = false;
    std::string colour = "auto"; // or "always", "never"
    std::string entries_as;      // "jsonl" or "csv"; empty: as all else
    std::string chassis;         // "n20", "n10", "n4"; empty: not said
    bool is_rp2 = false;
};
extern program_settings settings;

std::string hex(uint64_t value, int digits = 1);

// The bytes up to the first NUL: printable UTF-8 as it is, but a backslash twice; every other byte
// as "\xNN". What comes from a device cannot steer a terminal, break a line or look like an escape.
std::string printable(const std::string &bytes);

template <typename T>
json if_any(const std::optional<T> &value)
{
    return value ? json(*value) : json();
}

class record;

struct record_set {
    std::string name; // of the JSON array
    std::vector<record> rows;
};

// Names and values in the order they are added. The names are those of the JSON object; people see
// them as table headings.
class record
{
public:
    record &add(const std::string &name, const json &value);
    record &add(const std::string &name, const json &value, const std::string &text);
    record &add_hex(const std::string &name, uint64_t value, int digits);
    // What was added last stands out when it is bad.
    record &warn_if(bool is_bad);
    // Bytes of a log, which stand out when they tell of a failure.
    record &add_message(const std::string &bytes);
    // For programs alone.
    record &add_hidden(const std::string &name, const json &value);
    // As time_text has it, and in JSON the seconds as NAME_raw too.
    record &add_time(const std::string &name, time_t seconds);
    record &add(record_set set);
    // The fields of another.
    record &append(const record &other);

    json as_json() const;
    void print_as_text() const;

private:
    struct field {
        std::string name;
        json value;
        std::string text;
        bool for_people;
        bool is_bad = false;
    };
    friend void print_table(const record_set &set);
    friend void print_csv_row(const record &row, bool is_heading);
    friend void print_line(const record &what);
    std::vector<field> fields_for_people() const;

    std::vector<field> fields_;
    std::vector<record_set> sets_;
};

// Adds records, for people only if there are any.
record &add_records(record &shown, record_set records);

void print(const record &what);
void print(record_set set);

// What they are about, and entries of logs; or these alone, a line each, as JSON or CSV.
void print_entries(record about, record_set entries);

// What a command has written: programs are told, people see nothing.
void print_done(const record &what);

// One line per record, printed at once: a JSON object, CSV, or its texts. Fails when the output is
// lost.
void print_line(const record &what);

// Text that is laid out already.
void print_text(const std::string &text);

// Writes out what has been printed.
void finish_output();

void print_error_line(const std::string &text);

// A remark for people, on standard error.
void note(const std::string &text);

// The failure of a command ("devaccess pci read").
void print_failure(const std::string &command, const std::string &message, const std::string &hint,
                   int error);

} // namespace devaccess

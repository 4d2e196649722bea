// What devaccess prints: records as tables for people or as JSON for programs, and failures as one
// line on standard error.
#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace devaccess
{

using json = nlohmann::ordered_json;

struct output_settings {
    bool as_json = false;
    bool verbose = false;
};
extern output_settings settings;

std::string hex(uint64_t value, int digits = 1);

// The bytes up to the first NUL, with those that are no printable ASCII as "\xNN": what comes from
// a device cannot steer a terminal or break a line.
std::string printable(const std::string &bytes);

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
    // In ISO 8601, and in JSON the seconds as NAME_raw too.
    record &add_time(const std::string &name, time_t seconds);
    record &add(record_set set);

    json as_json() const;
    void print_as_text() const;

private:
    struct field {
        std::string name;
        json value;
        std::string text;
        bool for_people;
    };
    friend void print_table(const record_set &set);
    friend void print_line(const record &what);
    std::vector<std::string> texts(std::string field::*member) const;

    std::vector<field> fields_;
    std::vector<record_set> sets_;
};

void print(const record &what);
void print(record_set set);

// One line per record, printed at once: a JSON object, or its texts. Fails when the output is lost.
void print_line(const record &what);

// Writes out what has been printed.
void finish_output();

void print_error_line(const std::string &text);

} // namespace devaccess

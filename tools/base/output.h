// What devaccess prints: records as tables for people or as JSON for programs, and failures as one
// line, or one object, on standard error.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace devaccess
{

// Of all JSON objects, in their member "format"; devaccess.schema.json describes them.
inline constexpr int json_format = 1;

std::string hex(uint64_t value, int digits = 1);

// The bytes up to the first NUL: printable UTF-8 as it is, but a backslash twice; every other byte
// as "\xNN". What comes from a device cannot steer a terminal, break a line or look like an escape.
std::string printable(const std::string &bytes);

// Whether an entry of a log, by its message, is about something that has failed.
bool tells_failure(const std::string &message);

struct member;

// What a member of a JSON object can be; a default one is null.
class field_value
{
public:
    using array = std::vector<field_value>;
    using object = std::vector<member>;
    using kind = std::variant<std::nullptr_t, bool, int64_t, uint64_t, double, std::string, array,
                              std::shared_ptr<const object>>; // a member is not complete here

    field_value() = default;
    field_value(std::nullptr_t) {}
    field_value(bool is) : is_(is) {}
    field_value(std::signed_integral auto number) : is_(int64_t{number}) {}
    field_value(std::unsigned_integral auto number) : is_(uint64_t{number}) {}
    field_value(double number) : is_(number) {}
    field_value(const char *text) : is_(std::string(text)) {}
    field_value(std::string text) : is_(std::move(text)) {}
    field_value(array elements);
    field_value(object members);
    // These are compiled once: every command has values and records.
    field_value(const field_value &other);
    field_value(field_value &&other) noexcept;
    field_value &operator=(const field_value &other);
    field_value &operator=(field_value &&other) noexcept;
    ~field_value();
    template <typename T>
    field_value(const std::optional<T> &maybe)
        : field_value(maybe ? field_value(*maybe) : field_value())
    {
    }

    bool is_null() const { return std::holds_alternative<std::nullptr_t>(is_); }
    const kind &get() const { return is_; }
    // As tables have it.
    std::string text() const;

private:
    kind is_ = nullptr;
};

struct member {
    std::string name;
    field_value is;
};

// Null where the text is empty.
inline field_value text_or_null(const std::string &text)
{
    return text.empty() ? field_value() : field_value(text);
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
    record() = default;
    record(const record &other);
    record(record &&other) noexcept;
    record &operator=(const record &other);
    record &operator=(record &&other) noexcept;
    ~record();

    record &add(const std::string &name, const field_value &is);
    record &add(const std::string &name, const field_value &is, const std::string &text);
    record &add_hex(const std::string &name, uint64_t value, int digits);
    // What was added last stands out when it is bad.
    record &warn_if(bool is_bad);
    // Bytes of a log, which stand out when they tell of a failure.
    record &add_message(const std::string &bytes);
    // For programs alone.
    record &add_hidden(const std::string &name, const field_value &is);
    // As time_text has it, and in JSON the seconds as NAME_raw too.
    record &add_time(const std::string &name, time_t seconds);
    record &add(record_set set);
    // What another has.
    record &append(const record &other);

    void print_as_text() const;
    // As JSON; on one line unless indented.
    std::string as_json(int indent = -1) const;

private:
    struct field {
        std::string name;
        field_value is;
        std::string text;
        bool for_people;
        bool is_bad = false;
    };
    friend class json_writer;
    friend void print_table(const record_set &set);
    friend void print_csv_row(const record &row, bool is_heading);
    friend void print_line(const record &what);
    friend class entry_printer;
    std::vector<field> fields_for_people() const;

    std::vector<field> fields_;
    std::vector<record_set> sets_;
};

// Adds records, for people only if there are any.
record &add_records(record &shown, record_set records);

void print(const record &what);
void print(record_set set);

// The JSON text that --json would print.
std::string document_of(const record &what);

// What they are about, and entries of logs; or these alone, a line each, as JSON or CSV. As JSON,
// so are the records of what they are about, which are problems.
void print_entries(record about, record_set entries);

// The same for entries that are more than memory should hold.
class entry_printer
{
public:
    // Before the first is printed: for the widths of a table's columns.
    void measure(const record &row);
    void begin(const record &about);
    void print(const record &row);
    void end();

private:
    std::vector<size_t> widths_;
    bool is_first_ = true;
};

// What a command has written: programs are told, people see nothing.
void print_done(const record &what);

// One line per record, printed at once: a JSON object, CSV, or its texts. Fails when the output is
// lost.
void print_line(const record &what);

// Text that is laid out already.
void print_text(const std::string &text);

// Writes out what has been printed; to the disk, too, where it leads to a file.
void finish_output();
void settle_output();

void print_error_line(const std::string &text);

// A remark for people, on standard error.
void note(const std::string &text);

// The failure of a command ("devaccess pci read"). Where it has printed JSON lines, it is one of
// them too, unless the problems have been.
void print_failure(const std::string &command, const std::string &message, const std::string &hint,
                   int error);

} // namespace devaccess

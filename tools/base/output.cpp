// Prints records as tables, CSV and JSON.
#include "tools/base/output.h"

#include "register_map/json_members.h"
#include "tools/base/errors.h"
#include "tools/base/numbers.h"
#include "tools/base/settings.h"
#include "tools/base/times.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <stdexcept>

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace devaccess
{

//--- JSON -----------------------------------------------------------------------------------------

using json_members::json;

class json_writer
{
public:
    json operator()(std::nullptr_t) const { return nullptr; }
    json operator()(const field_value::array &elements) const
    {
        json made = json::array();
        for (const field_value &element : elements)
            made.push_back(std::visit(*this, element.get()));
        return made;
    }
    json operator()(const std::shared_ptr<const field_value::object> &members) const
    {
        json made = json::object();
        for (const member &one : *members)
            made[one.name] = std::visit(*this, one.is.get());
        return made;
    }
    json operator()(const auto &plain) const { return plain; }

    json operator()(const record &what) const
    {
        json made = json::object();
        for (const record::field &f : what.fields_)
            made[f.name] = std::visit(*this, f.is.get());
        for (const record_set &set : what.sets_) {
            json &rows = made[set.name] = json::array();
            for (const record &row : set.rows)
                rows.push_back((*this)(row));
        }
        return made;
    }
};

namespace
{

std::string serialized(const record &what, int indent)
{
    json object = {{"format", json_format}};
    object.update(json_writer()(what));
    return json_members::text_of(object, indent);
}

} // namespace

std::string record::as_json(int indent) const
{
    return json_members::text_of(json_writer()(*this), indent);
}

std::string document_of(const record &what)
{
    return serialized(what, 2) + '\n';
}

field_value::field_value(array elements) : is_(std::move(elements)) {}
field_value::field_value(object members) : is_(std::make_shared<const object>(std::move(members)))
{
}
field_value::field_value(const field_value &other) = default;
field_value::field_value(field_value &&other) noexcept = default;
field_value &field_value::operator=(const field_value &other) = default;
field_value &field_value::operator=(field_value &&other) noexcept = default;
field_value::~field_value() = default;

std::string field_value::text() const
{
    if (is_null())
        return "-";
    if (const bool *flag = std::get_if<bool>(&is_))
        return *flag ? "yes" : "no";
    if (const std::string *text = std::get_if<std::string>(&is_))
        return *text;
    return json_members::text_of(std::visit(json_writer(), is_));
}

//--- tables ---------------------------------------------------------------------------------------

namespace
{

bool in_colour(int descriptor)
{
    if (settings.colour != "auto")
        return settings.colour == "always";
    return ::isatty(descriptor) && !std::getenv("NO_COLOR");
}

std::string bold(const std::string &text)
{
    return in_colour(STDOUT_FILENO) ? "\033[1m" + text + "\033[0m" : text;
}

std::string red(const std::string &text, int descriptor)
{
    return in_colour(descriptor) ? "\033[31m" + text + "\033[0m" : text;
}

std::string heading(std::string name)
{
    std::replace(name.begin(), name.end(), '_', ' ');
    return in_capitals(name);
}

struct cell {
    std::string text;
    bool is_bad = false;
};
using cells = std::vector<cell>;

// Characters, not bytes.
size_t width_of(const std::string &text)
{
    return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xc0) != 0x80;
    }));
}

size_t terminal_width()
{
    static const winsize size = [] {
        winsize asked = {};
        ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &asked);
        return asked;
    }();
    return size.ws_col ? size.ws_col : SIZE_MAX;
}

// Breaks a text that begins after the indent at blanks, so that it stays there on a terminal.
std::string wrapped(std::string text, size_t indent)
{
    const size_t width = terminal_width();
    for (size_t start = 0; width > indent + 20 && text.size() - start > width - indent;) {
        const size_t blank = text.rfind(' ', start + width - indent);
        if (blank == text.npos || blank <= start)
            break;
        text.replace(blank, 1, '\n' + std::string(indent, ' '));
        start = blank + 1 + indent;
    }
    return text;
}

std::string aligned(const cells &row, const std::vector<size_t> &widths)
{
    std::string line;
    size_t indent = 0;
    for (size_t column = 0; column < row.size(); ++column) {
        const bool is_last = column + 1 == row.size();
        const std::string &text = row[column].text;
        const std::string shown = is_last ? wrapped(text, indent) : text;
        line += row[column].is_bad ? red(shown, STDOUT_FILENO) : shown;
        if (!is_last)
            line += std::string(widths[column] - width_of(text) + 2, ' ');
        indent += widths[column] + 2;
    }
    return line;
}

std::vector<size_t> column_widths(const std::vector<cells> &lines)
{
    std::vector<size_t> widths(lines.front().size());
    for (const cells &line : lines)
        for (size_t column = 0; column < widths.size(); ++column)
            widths[column] = std::max(widths[column], width_of(line[column].text));
    return widths;
}

// The bytes of the UTF-8 character that the text begins with; 0 when that is none, or a control
// character, or one that is invisible or turns the direction of writing.
size_t printable_character(const std::string &text, size_t at)
{
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[at + i]); };
    const size_t size = byte(0) < 0x80   ? 1
                        : byte(0) < 0xc2 ? 0
                        : byte(0) < 0xe0 ? 2
                        : byte(0) < 0xf0 ? 3
                        : byte(0) < 0xf5 ? 4
                                         : 0;
    if (size == 0 || at + size > text.size())
        return 0;
    uint32_t code = size == 1 ? byte(0) : byte(0) & (0xffu >> (size + 1));
    for (size_t i = 1; i < size; ++i) {
        if ((byte(i) & 0xc0) != 0x80)
            return 0;
        code = code << 6 | (byte(i) & 0x3fu);
    }
    constexpr uint32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
    constexpr std::pair<uint32_t, uint32_t> refused[] = {
        {0, 0x1f},        {0x7f, 0x9f},     {0x200b, 0x200f}, {0x2028, 0x202e}, {0x2060, 0x206f},
        {0xd800, 0xf8ff}, {0xfe00, 0xfe0f}, {0xfeff, 0xfeff}, {0xfff0, 0xffff}, {0xe0000, ~0u}};
    const bool bad = std::any_of(std::begin(refused), std::end(refused), [&](const auto &range) {
        return code >= range.first && code <= range.second;
    });
    return bad || code < smallest[size] ? 0 : size;
}

} // namespace

void print_table(const record_set &set)
{
    if (set.rows.empty()) {
        std::cout << "no " << set.name << '\n';
        return;
    }
    std::vector<cells> lines(1);
    for (const record::field &f : set.rows.front().fields_for_people())
        lines[0].push_back({heading(f.name)});
    for (const record &row : set.rows)
        for (lines.emplace_back(); const record::field &f : row.fields_for_people())
            lines.back().push_back({f.text, f.is_bad});

    const std::vector<size_t> widths = column_widths(lines);
    std::cout << bold(aligned(lines[0], widths)) << '\n';
    for (size_t line = 1; line < lines.size(); ++line)
        std::cout << aligned(lines[line], widths) << '\n';
}

void print_csv_row(const record &row, bool is_heading)
{
    const auto quoted = [](std::string text) {
        if (text.find_first_of(",\"") == text.npos)
            return text;
        for (size_t at = 0; (at = text.find('"', at)) != text.npos; at += 2)
            text.insert(at, 1, '"');
        return '"' + text + '"';
    };
    const char *separator = "";
    for (const record::field &f : row.fields_) {
        const std::string text = is_heading       ? f.name
                                 : f.is.is_null() ? ""
                                 : std::holds_alternative<std::string>(f.is.get())
                                     ? f.is.text()
                                     : json_members::text_of(std::visit(json_writer(), f.is.get()));
        std::cout << separator << quoted(text);
        separator = ",";
    }
    std::cout << '\n';
}

std::string hex(uint64_t value, int digits)
{
    return fmt::format("0x{:0{}x}", value, digits);
}

std::string printable(const std::string &bytes)
{
    const std::string text = bytes.substr(0, bytes.find('\0'));
    std::string shown;
    for (size_t at = 0; at < text.size();) {
        const size_t size = printable_character(text, at);
        if (size == 0)
            shown += fmt::format("\\x{:02x}", static_cast<unsigned char>(text[at]));
        else
            shown += text[at] == '\\' ? "\\\\" : text.substr(at, size);
        at += std::max<size_t>(size, 1);
    }
    return shown;
}

bool tells_failure(const std::string &message)
{
    const std::string capitals = in_capitals(message);
    return capitals.find("FAIL") != capitals.npos || capitals.starts_with("ERROR") ||
           capitals.starts_with("E:");
}

record::record(const record &other) = default;
record::record(record &&other) noexcept = default;
record &record::operator=(const record &other) = default;
record &record::operator=(record &&other) noexcept = default;
record::~record() = default;

record &record::add(const std::string &name, const field_value &is)
{
    return add(name, is, is.text());
}

record &record::add(const std::string &name, const field_value &is, const std::string &text)
{
    fields_.push_back({name, is, text, true});
    return *this;
}

record &record::add_hex(const std::string &name, uint64_t value, int digits)
{
    return add(name, value, hex(value, digits));
}

record &record::warn_if(bool is_bad)
{
    fields_.back().is_bad = is_bad;
    return *this;
}

record &record::add_message(const std::string &bytes)
{
    const std::string text = printable(bytes);
    return add("message", text).warn_if(tells_failure(text));
}

record &record::add_hidden(const std::string &name, const field_value &is)
{
    fields_.push_back({name, is, "", false});
    return *this;
}

record &record::add_time(const std::string &name, time_t seconds)
{
    add(name, time_text(seconds));
    return add_hidden(name + "_raw", static_cast<int64_t>(seconds));
}

record &record::add(record_set set)
{
    sets_.push_back(std::move(set));
    return *this;
}

record &record::append(const record &other)
{
    fields_.insert(fields_.end(), other.fields_.begin(), other.fields_.end());
    sets_.insert(sets_.end(), other.sets_.begin(), other.sets_.end());
    return *this;
}

std::vector<record::field> record::fields_for_people() const
{
    std::vector<field> result;
    std::copy_if(fields_.begin(), fields_.end(), std::back_inserter(result),
                 [](const field &f) { return f.for_people; });
    return result;
}

void record::print_as_text() const
{
    const std::vector<field> shown = fields_for_people();
    size_t width = 0;
    for (const field &f : shown)
        width = std::max(width, f.name.size());
    for (const field &f : shown)
        std::cout << aligned({{f.name + ':'}, {f.text, f.is_bad}}, {width + 1, 0}) << '\n';
    for (const record_set &set : sets_)
        print_table(set);
}

record &add_records(record &shown, record_set records)
{
    return records.rows.empty() && !settings.as_json ? shown : shown.add(std::move(records));
}

void print(const record &what)
{
    if (settings.as_json)
        std::cout << document_of(what);
    else
        what.print_as_text();
}

void print(record_set set)
{
    print(record().add(std::move(set)));
}

// Of JSON lines that have been printed.
static bool has_lines = false;
static bool has_told_problems = false;

void print_entries(record about, record_set entries)
{
    if (settings.entries_as.empty()) {
        print(about.add(std::move(entries)));
        return;
    }
    entry_printer().begin(about);
    for (const record &entry : entries.rows)
        print_line(entry);
}

//--- entries, one by one --------------------------------------------------------------------------

namespace
{

bool is_table()
{
    return !settings.as_json && settings.entries_as.empty();
}

} // namespace

void entry_printer::measure(const record &row)
{
    if (!is_table())
        return;
    const std::vector<record::field> fields = row.fields_for_people();
    widths_.resize(fields.size());
    for (size_t column = 0; column < fields.size(); ++column) {
        const record::field &f = fields[column];
        widths_[column] = std::max({widths_[column], width_of(f.text), width_of(f.name)});
    }
}

void entry_printer::begin(const record &about)
{
    if (is_table())
        return about.print_as_text();
    if (settings.entries_as == "jsonl")
        for (const record_set &set : about.sets_)
            for (const record &problem : set.rows) {
                print_line(problem);
                has_told_problems = true;
            }
    if (!settings.entries_as.empty())
        return;
    const std::string text = serialized(about, 2);
    std::cout << text.substr(0, text.rfind('\n')) << ",\n  \"entries\": [";
}

void entry_printer::print(const record &row)
{
    if (!settings.entries_as.empty())
        return print_line(row);
    if (settings.as_json) {
        std::string text = "\n" + row.as_json(2);
        for (size_t at = 0; (at = text.find('\n', at)) != text.npos; at += 5)
            text.insert(at + 1, 4, ' ');
        std::cout << (std::exchange(is_first_, false) ? "" : ",") << text;
        return;
    }
    cells heads;
    cells values;
    for (const record::field &f : row.fields_for_people()) {
        heads.push_back({heading(f.name)});
        values.push_back({f.text, f.is_bad});
    }
    if (std::exchange(is_first_, false))
        std::cout << bold(aligned(heads, widths_)) << '\n';
    std::cout << aligned(values, widths_) << '\n';
}

void entry_printer::end()
{
    if (is_table() && is_first_)
        std::cout << "no entries\n";
    if (settings.as_json && settings.entries_as.empty())
        std::cout << (is_first_ ? "]\n}\n" : "\n  ]\n}\n");
}

void print_done(const record &what)
{
    if (settings.as_json)
        print(what);
}

void print_line(const record &what)
{
    if (settings.entries_as == "csv") {
        static bool has_heading = false;
        if (!std::exchange(has_heading, true))
            print_csv_row(what, true);
        print_csv_row(what, false);
    } else if (settings.as_json || settings.entries_as == "jsonl") {
        std::cout << serialized(what, -1) << '\n';
        has_lines = true;
    } else {
        cells values;
        for (const record::field &f : what.fields_for_people())
            values.push_back({f.text, f.is_bad});
        std::cout << aligned(values, column_widths({values})) << '\n';
    }
    finish_output();
}

void print_text(const std::string &text)
{
    std::cout << text;
}

void finish_output()
{
    if (!std::cout.flush())
        throw failure("write standard output", "not all of it could be written",
                      "is a disk full, or the output closed?");
}

void settle_output()
{
    finish_output();
    // Neither a pipe nor a terminal can do that.
    if (::fsync(STDOUT_FILENO) != 0 && errno != EINVAL && errno != EROFS)
        throw failure("write standard output", std::strerror(errno),
                      "is the disk full, or does it fail?", errno);
}

void print_error_line(const std::string &text)
{
    std::cerr << red("devaccess:", STDERR_FILENO) << ' ' << text << '\n';
}

void note(const std::string &text)
{
    if (!settings.as_json)
        print_error_line(printable(text));
}

void print_failure(const std::string &command, const std::string &message, const std::string &hint,
                   int error)
{
    const std::string text = printable(message);
    const std::string advice = printable(hint);
    const auto as_object = [&](const char *name) {
        return serialized(record()
                              .add(name, text)
                              .add("command", command)
                              .add("errno", error ? field_value(error) : field_value())
                              .add("hint", advice),
                          -1);
    };
    if ((has_lines || settings.entries_as == "jsonl") && !has_told_problems)
        std::cout << as_object("problem") << std::endl;
    if (settings.as_json)
        std::cerr << as_object("message") << '\n';
    else
        print_error_line(advice.empty() ? text : text + "; " + advice);
}

} // namespace devaccess

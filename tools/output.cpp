#include "output.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <stdexcept>

#include <unistd.h>

namespace devaccess
{

output_settings settings;

namespace
{

std::string text_of(const json &value)
{
    if (value.is_null())
        return "-";
    if (value.is_boolean())
        return value.get<bool>() ? "yes" : "no";
    return value.is_string() ? value.get<std::string>() : value.dump();
}

std::string iso8601(time_t seconds)
{
    struct tm parts = {};
    char text[64] = "";
    if (::gmtime_r(&seconds, &parts))
        std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

bool in_colour(int descriptor)
{
    return ::isatty(descriptor) && !std::getenv("NO_COLOR");
}

std::string heading(std::string name)
{
    for (char &c : name)
        c = c == '_' ? ' ' : static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return name;
}

using cells = std::vector<std::string>;

std::string aligned(const cells &row, const std::vector<size_t> &widths)
{
    std::string line;
    for (size_t column = 0; column < row.size(); ++column) {
        if (column > 0)
            line += "  ";
        line += row[column];
        if (column + 1 < row.size())
            line.append(widths[column] - row[column].size(), ' ');
    }
    return line;
}

std::vector<size_t> column_widths(const std::vector<cells> &lines)
{
    std::vector<size_t> widths(lines.front().size());
    for (const cells &line : lines)
        for (size_t column = 0; column < widths.size(); ++column)
            widths[column] = std::max(widths[column], line[column].size());
    return widths;
}

std::string serialized(const json &value, int indent)
{
    return value.dump(indent, ' ', false, json::error_handler_t::replace);
}

} // namespace

void print_table(const record_set &set)
{
    if (set.rows.empty()) {
        std::cout << "no " << set.name << '\n';
        return;
    }
    std::vector<cells> lines = {set.rows.front().texts(&record::field::name)};
    std::transform(lines[0].begin(), lines[0].end(), lines[0].begin(), heading);
    for (const record &row : set.rows)
        lines.push_back(row.texts(&record::field::text));

    const std::vector<size_t> widths = column_widths(lines);
    const bool bold = in_colour(STDOUT_FILENO);
    std::cout << (bold ? "\033[1m" : "") << aligned(lines[0], widths) << (bold ? "\033[0m" : "")
              << '\n';
    for (size_t line = 1; line < lines.size(); ++line)
        std::cout << aligned(lines[line], widths) << '\n';
}

std::string hex(uint64_t value, int digits)
{
    char text[32];
    std::snprintf(text, sizeof text, "0x%0*llx", digits, static_cast<unsigned long long>(value));
    return text;
}

std::string printable(const std::string &bytes)
{
    std::string text;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte == 0)
            break;
        if (byte >= 0x20 && byte < 0x7f)
            text += c;
        else
            (text += "\\x") += hex(byte, 2).substr(2);
    }
    return text;
}

record &record::add(const std::string &name, const json &value)
{
    return add(name, value, text_of(value));
}

record &record::add(const std::string &name, const json &value, const std::string &text)
{
    fields_.push_back({name, value, text, true});
    return *this;
}

record &record::add_hex(const std::string &name, uint64_t value, int digits)
{
    return add(name, value, hex(value, digits));
}

record &record::add_time(const std::string &name, time_t seconds)
{
    add(name, iso8601(seconds));
    fields_.push_back({name + "_raw", static_cast<int64_t>(seconds), "", false});
    return *this;
}

record &record::add(record_set set)
{
    sets_.push_back(std::move(set));
    return *this;
}

json record::as_json() const
{
    json object = json::object();
    for (const field &f : fields_)
        object[f.name] = f.value;
    for (const record_set &set : sets_) {
        json &rows = object[set.name] = json::array();
        for (const record &row : set.rows)
            rows.push_back(row.as_json());
    }
    return object;
}

std::vector<std::string> record::texts(std::string field::*member) const
{
    std::vector<std::string> result;
    for (const field &f : fields_)
        if (f.for_people)
            result.push_back(f.*member);
    return result;
}

void record::print_as_text() const
{
    const cells names = texts(&field::name);
    const cells values = texts(&field::text);
    size_t width = 0;
    for (const std::string &name : names)
        width = std::max(width, name.size());
    for (size_t line = 0; line < names.size(); ++line)
        std::cout << aligned({names[line] + ':', values[line]}, {width + 1, 0}) << '\n';
    for (const record_set &set : sets_)
        print_table(set);
}

void print(const record &what)
{
    if (settings.as_json)
        std::cout << serialized(what.as_json(), 2) << '\n';
    else
        what.print_as_text();
}

void print(record_set set)
{
    print(record().add(std::move(set)));
}

void print_line(const record &what)
{
    if (settings.as_json) {
        std::cout << serialized(what.as_json(), -1) << '\n';
    } else {
        const cells values = what.texts(&record::field::text);
        std::cout << aligned(values, column_widths({values})) << '\n';
    }
    finish_output();
}

void finish_output()
{
    if (!std::cout.flush())
        throw std::runtime_error("cannot write standard output");
}

void print_error_line(const std::string &text)
{
    const bool red = in_colour(STDERR_FILENO);
    std::cerr << (red ? "\033[31m" : "") << "devaccess:" << (red ? "\033[0m" : "") << ' '
              << printable(text) << '\n';
}

} // namespace devaccess

// Reads, writes, watches, dumps and shows registers by their names.
#include "tools/registers/named_registers.h"

#include "tools/base/errors.h"
#include "tools/base/files.h"
#include "tools/base/key_press.h"
#include "tools/base/numbers.h"
#include "tools/base/settings.h"

#include <algorithm>
#include <map>
#include <memory>
#include <set>

#include <fmt/format.h>
#include <unistd.h>

namespace devaccess
{
namespace
{

using register_map::place;
using register_map::reg;

std::string name_of(const place &what)
{
    return what.part ? what.is->name + "." + what.part->name : what.is->name;
}

// The registers of a device that its map names.
class named_registers
{
public:
    named_registers(register_source &source, const register_arguments &arguments)
        : source_(source), width_(arguments.width)
    {
        const std::string file = map_file(arguments.map, source.map_names());
        if (file.empty())
            throw failure("name registers of " + source.name(), "no register map is for it",
                          fmt::format("--map FILE names one; so does a file {} in a directory of "
                                      "DEVACCESS_MAPS; offsets need none",
                                      looked_for()));
        map_ = std::make_unique<device_map>(file);
    }

    const device_map &map() const { return *map_; }
    register_source &source() const { return source_; }

    unsigned bits_of(const place &what) const
    {
        if (width_ > what.is->size)
            throw usage_error(fmt::format("{} has {} bits", what.is->name, what.is->size));
        return width_ != 0 ? width_ : what.is->size;
    }

    // Refuses what lies outside of its window, before anything is touched.
    void expect_within(const place &what)
    {
        const register_bank &its = bank(what);
        const uint64_t end = what.is->offset + uint64_t{bits_of(what)} / 8;
        const uint64_t size = its.window.size() - (its.origin - its.start);
        if (end > size)
            throw failure(fmt::format("reach {} of {}", what.is->name, its.name),
                          fmt::format("it lies at {:#x}, and the window has {:#x} bytes",
                                      what.is->offset, size),
                          "is this the map of that device? " + map_->file());
        offset_in(its, place_of(what), bits_of(what) / 8, bits_of(what));
    }

    uint64_t read(const place &what)
    {
        return read_register(bank(what).window, offset_of(what), bits_of(what));
    }
    void write(const place &what, uint64_t value)
    {
        write_register(bank(what).window, offset_of(what), bits_of(what), value);
    }

    const std::string &directory(const place &what) { return bank(what).directory; }
    const std::string &window_name(const place &what) { return bank(what).name; }

    const char *place_word(const place &what) { return bank(what).place; }
    uint64_t place_of(const place &what) { return bank(what).origin + what.is->offset; }

    record place_row(const place &what)
    {
        record row;
        if (source_.window_word())
            row.add(source_.window_word(), what.is->window);
        return row.add_hex(place_word(what), place_of(what), 2).add("width", bits_of(what));
    }
    record row(const place &what, uint64_t value)
    {
        record made = place_row(what);
        made.add_hex("value", value, digits_of(bits_of(what)));
        return made.add_hidden("value_hex", hex(value))
            .append(meaning_of(what, bits_of(what), value));
    }
    record unread_row(const place &what)
    {
        record made = place_row(what).add("value", nullptr).add_hidden("value_hex", nullptr);
        return made.add("register", what.is->name)
            .add("fields", field_value::object(), "not read: " + why_unread(*what.is))
            .add_hidden("not_read", why_unread(*what.is));
    }

private:
    std::string looked_for() const
    {
        const std::vector<std::string> names = source_.map_names();
        return names.empty() ? "NAME.json" : fmt::format("{}.json", fmt::join(names, ".json or "));
    }

    const register_bank &bank(const place &what)
    {
        const unsigned window = what.is->window;
        auto found = banks_.find(window);
        if (found == banks_.end())
            found = banks_.emplace(window, source_.bank_of(map_->map(), window)).first;
        return found->second;
    }
    size_t offset_of(const place &what)
    {
        const register_bank &its = bank(what);
        return static_cast<size_t>(its.origin + what.is->offset - its.start);
    }

    register_source &source_;
    unsigned width_;
    std::unique_ptr<device_map> map_;
    std::map<unsigned, register_bank> banks_;
};

// The device and a row, or a table of several.
record with_rows(const register_source &source, std::vector<record> rows)
{
    record all = source.identity();
    if (rows.size() == 1)
        return all.append(rows[0]);
    return all.add({"registers", std::move(rows)});
}

} // namespace

//--- read and write -------------------------------------------------------------------------------

void read_named(register_source &source, const register_arguments &arguments)
{
    named_registers registers(source, arguments);
    std::vector<place> wanted;
    for (const std::string &word : arguments.words)
        wanted.push_back(registers.map().find(word));
    for (const place &one : wanted)
        registers.expect_within(one);
    std::vector<record> rows;
    for (const place &one : wanted)
        rows.push_back(registers.row(one, registers.read(one)));
    print(with_rows(source, std::move(rows)));
}

namespace
{

[[noreturn]] void refuse_word(const place &what, const std::string &text)
{
    std::vector<std::string> words;
    for (const auto &[word, value] : what.part->values)
        words.push_back(word);
    throw usage_error(fmt::format("'{}' is no value of {}: {}, or a number", text, name_of(what),
                                  fmt::join(words, ", ")));
}

// A word of the field's, or VALUE or VALUE/MASK.
masked_value parse_value(const place &what, const std::string &text, unsigned bits)
{
    if (what.part) {
        const unsigned width = what.part->msb - what.part->lsb + 1;
        for (const auto &[word, value] : what.part->values)
            if (word == text)
                return {value, highest(width), highest(width)};
        const bool is_number = !text.empty() && text[0] >= '0' && text[0] <= '9';
        if (!is_number && !what.part->values.empty())
            refuse_word(what, text);
        return parse_masked(text, highest(width));
    }
    return parse_masked(text, highest(bits));
}

struct named_change {
    place what;
    masked_value wanted; // of the register
};

named_change parse_change(const named_registers &registers, const std::string &word)
{
    const size_t equals = word.find('=');
    if (equals == word.npos)
        throw usage_error("'" + word + "' has no value; write " + word + "=VALUE");
    named_change change = {registers.map().find(word.substr(0, equals)), {}};
    const unsigned bits = registers.bits_of(change.what);
    change.wanted = parse_value(change.what, word.substr(equals + 1), bits);
    change.wanted.value <<= change.what.shift();
    change.wanted.mask <<= change.what.shift();
    change.wanted.all = highest(bits);
    return change;
}

// Bits of a register that a write has to leave as they are: those that have to be written as they
// were read, and those where a 1 leaves them alone.
struct other_bits {
    uint64_t kept = 0;
    uint64_t ones = 0;
};

other_bits others_of(const reg &one, uint64_t mask)
{
    using register_map::write_values;
    other_bits others;
    const auto add = [&](const register_map::behaviour &how, uint64_t bits) {
        const bool is_written = how.access != register_map::access::read_only;
        if (how.write_values == write_values::modify)
            others.kept |= is_written ? bits : 0;
        else if (how.write_values == write_values::zero_to_clear ||
                 how.write_values == write_values::zero_to_set ||
                 how.write_values == write_values::zero_to_toggle)
            others.ones |= bits;
    };
    uint64_t unnamed = highest(one.size) & ~mask;
    for (const register_map::field &part : one.fields) {
        add(part.bits, part.mask() & ~mask);
        unnamed &= ~part.mask();
    }
    add(one.bits, unnamed);
    return others;
}

void expect_writable(const named_registers &registers, const place &what)
{
    const auto is_written = [](const register_map::behaviour &how) {
        return how.access != register_map::access::read_only;
    };
    const auto &fields = what.is->fields;
    const bool writable =
        what.part ? is_written(what.part->bits)
                  : is_written(what.is->bits) ||
                        std::any_of(fields.begin(), fields.end(),
                                    [&](const auto &part) { return is_written(part.bits); });
    if (!writable)
        throw failure(fmt::format("write {} of {}", name_of(what), registers.source().name()),
                      "its map says that it can only be read",
                      "its offset takes any value: " + registers.map().file());
}

record written(named_registers &registers, const named_change &change, bool is_dry)
{
    const place &what = change.what;
    const uint64_t rest = change.wanted.all & ~change.wanted.mask;
    const other_bits others = rest ? others_of(*what.is, change.wanted.mask) : other_bits();
    const std::string obstacle = why_unread(*what.is);
    if ((others.kept & rest) != 0 && !obstacle.empty())
        throw failure(fmt::format("write {} of {}", name_of(what), registers.source().name()),
                      "the other bits have to be read before, and " + obstacle,
                      fmt::format("{}=VALUE writes all of it", what.is->name));
    std::optional<uint64_t> before; // not read unless needed: that may have effects
    if ((others.kept & rest) != 0 || (is_dry && obstacle.empty()))
        before = registers.read(what);
    const uint64_t value = (change.wanted.value & change.wanted.mask) |
                           (rest & ((before.value_or(0) & others.kept) | others.ones));
    if (!is_dry)
        registers.write(what, value);
    record row = registers.place_row(what);
    const int digits = digits_of(registers.bits_of(what));
    row.add("before", before, before ? hex(*before, digits) : "-");
    row.add_hex("value", value, digits).add_hidden("value_hex", hex(value));
    return row.append(meaning_of(what, registers.bits_of(what), value));
}

} // namespace

void write_named(register_source &source, const register_arguments &arguments)
{
    named_registers registers(source, arguments);
    std::vector<named_change> changes;
    for (const std::string &word : arguments.words)
        changes.push_back(parse_change(registers, word));
    for (const named_change &change : changes) {
        expect_writable(registers, change.what);
        registers.expect_within(change.what);
    }
    std::vector<record> rows;
    for (const named_change &change : changes)
        rows.push_back(written(registers, change, arguments.dry_run));
    const record all = with_rows(source, std::move(rows));
    arguments.dry_run ? print(all) : print_done(all);
}

//--- watch ----------------------------------------------------------------------------------------

void watch_named(register_source &source, const register_arguments &arguments)
{
    if (arguments.words.size() != 1)
        throw usage_error("one register or field can be watched; 'show --follow' has all");
    named_registers registers(source, arguments);
    const place what = registers.map().find(arguments.words[0]);
    registers.expect_within(what);
    const unsigned bits = registers.bits_of(what);
    const unsigned width = what.part ? what.part->msb - what.part->lsb + 1 : bits;
    wait_options options = arguments.wait;
    if (!options.until.empty()) {
        const masked_value until = parse_value(what, options.until, bits);
        options.until = fmt::format("{:#x}/{:#x}", until.value, until.mask);
    }
    uint64_t whole = 0; // the register, of which the value watched may be a part
    watch_register(
        fmt::format("{} of {}", name_of(what), registers.window_name(what)),
        registers.directory(what), width, options,
        [&] {
            whole = registers.read(what);
            return what.part ? what.of(whole) : whole;
        },
        [&](uint64_t) { return registers.row(what, whole); });
}

//--- dump -----------------------------------------------------------------------------------------

namespace
{

struct look {
    place what;
    std::optional<uint64_t> value; // none: it is not read
};

// Those that are named, or all of which the reading has no effect.
std::vector<look> places_of(named_registers &registers, const std::vector<std::string> &names)
{
    std::vector<look> looks;
    if (names.empty())
        for (const place &one : registers.map().registers())
            looks.push_back({one, std::nullopt});
    for (const std::string &name : names)
        looks.push_back({registers.map().find(name), std::nullopt});
    for (const look &one : looks)
        registers.expect_within(one.what);
    return looks;
}

void read_all(named_registers &registers, std::vector<look> &looks, bool are_named)
{
    for (look &one : looks)
        if (are_named || why_unread(*one.what.is).empty())
            one.value = registers.read(one.what);
}

record_set rows_of(named_registers &registers, const std::vector<look> &looks)
{
    record_set set = {"registers", {}};
    for (const look &one : looks)
        set.rows.push_back(one.value ? registers.row(one.what, *one.value)
                                     : registers.unread_row(one.what));
    return set;
}

} // namespace

record dump_of(register_source &source, const register_arguments &arguments)
{
    named_registers registers(source, arguments);
    std::vector<look> looks = places_of(registers, arguments.words);
    read_all(registers, looks, !arguments.words.empty());
    return source.identity().add(rows_of(registers, looks));
}

void dump_named(register_source &source, const register_arguments &arguments)
{
    const record dump = dump_of(source, arguments);
    if (arguments.out.empty())
        print(dump);
    else
        write_file(arguments.out, document_of(dump), false);
}

//--- show -----------------------------------------------------------------------------------------

namespace
{

// For people, registers and their fields are rows of one table.
class field_table
{
public:
    field_table(named_registers &registers, bool has_was) : registers_(registers), has_was_(has_was)
    {
    }

    void add(const look &now, const look &before)
    {
        const reg &one = *now.what.is;
        const bool changed = now.value && before.value && *now.value != *before.value;
        const int digits = digits_of(registers_.bits_of(now.what));
        add_row(now.what, one.name, now.value ? hex(*now.value, digits) : "-",
                changed ? hex(*before.value, digits) : "",
                now.value ? one.description : "not read: " + why_unread(one));
        if (now.value)
            add_fields(now, before);
    }

    record_set take() { return {"registers", std::move(rows_)}; }

private:
    void add_row(const place &what, const std::string &name, const std::string &value,
                 const std::string &was, const std::string &text)
    {
        const bool is_field = name != what.is->name;
        record row;
        if (const char *const word = registers_.source().window_word())
            row.add(word, what.is->window, is_field ? "" : std::to_string(what.is->window));
        const uint64_t at = registers_.place_of(what);
        row.add(registers_.place_word(what), at, is_field ? "" : hex(at, 2))
            .add("name", printable(name))
            .add("value", value)
            .warn_if(!was.empty());
        if (has_was_)
            row.add("was", was).warn_if(!was.empty());
        rows_.push_back(row.add("description", printable(text)));
    }

    void add_fields(const look &now, const look &before)
    {
        const reg &one = *now.what.is;
        const unsigned bits = registers_.bits_of(now.what);
        const auto then = register_map::fields_of(one, one.offset, bits, before.value.value_or(0));
        size_t i = 0;
        for (const auto &field : register_map::fields_of(one, one.offset, bits, *now.value)) {
            const auto &old = then[i++];
            if (now.what.part && field.is != now.what.part)
                continue;
            const bool changed = before.value && old.value != field.value;
            add_row(now.what, "  " + field.is->name, value_as_text(field),
                    changed ? value_as_text(old) : "", field.is->description);
        }
    }

    named_registers &registers_;
    bool has_was_;
    std::vector<record> rows_;
};

record_set table_of(named_registers &registers, const std::vector<look> &now,
                    const std::vector<look> &before, bool follows)
{
    field_table table(registers, follows);
    for (size_t i = 0; i < now.size(); ++i)
        table.add(now[i], before[i]);
    return table.take();
}

// For programs: as a dump, and which registers have another value than at the look before.
record_set described_rows(named_registers &registers, const std::vector<look> &now,
                          const std::vector<look> &before, bool follows)
{
    record_set set = rows_of(registers, now);
    for (size_t i = 0; i < now.size(); ++i) {
        set.rows[i].add("description", now[i].what.is->description);
        if (follows)
            set.rows[i].add("changed", before[i].value && now[i].value != before[i].value);
    }
    return set;
}

void print_look(named_registers &registers, const std::vector<look> &now,
                const std::vector<look> &before, const record &times, bool redraws)
{
    record shown = times;
    shown.append(registers.source().identity());
    if (settings.as_json)
        return print_line(shown.add(described_rows(registers, now, before, true)));
    print_text(redraws ? "\033[H\033[J" : "");
    print(shown.add(table_of(registers, now, before, true)));
    finish_output();
}

void show_live(named_registers &registers, std::vector<look> looks, bool are_named,
               const register_arguments &arguments)
{
    uint64_t left = UINT64_MAX;
    if (!arguments.looks.empty())
        left = parse_count("the count", arguments.looks, UINT32_MAX);
    std::set<std::string> directories;
    for (const look &one : looks)
        directories.insert(registers.directory(one.what));
    const failure removed("show " + registers.source().name(), "it has been removed",
                          "it can be shown again when the device is back", ENODEV);
    const key_press key;
    waiting wait("any key ends it", arguments.wait.timeout);
    const bool redraws = ::isatty(STDOUT_FILENO) && !settings.as_json;
    std::vector<look> before = looks;
    for (bool goes_on = true; goes_on;) {
        look_while_there(directories, removed, [&] { read_all(registers, looks, are_named); });
        wait.clear();
        print_look(registers, looks, before, wait.now(), redraws);
        before = looks;
        goes_on = --left > 0 && key.sleep(wait, std::chrono::milliseconds(arguments.wait.every));
    }
}

} // namespace

void show_named(register_source &source, const register_arguments &arguments)
{
    named_registers registers(source, arguments);
    std::vector<look> looks = places_of(registers, arguments.words);
    const bool are_named = !arguments.words.empty();
    if (arguments.follow)
        return show_live(registers, std::move(looks), are_named, arguments);
    if (!arguments.looks.empty())
        throw usage_error("--count says how often --follow looks");
    read_all(registers, looks, are_named);
    record shown = source.identity();
    print(shown.add(settings.as_json ? described_rows(registers, looks, looks, false)
                                     : table_of(registers, looks, looks, false)));
}

} // namespace devaccess

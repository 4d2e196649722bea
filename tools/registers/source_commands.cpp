// Takes registers as the command line says them: places in numbers, or names.
#include "tools/registers/source_commands.h"

#include "tools/base/errors.h"
#include "tools/base/numbers.h"
#include "tools/cli/options.h"
#include "tools/registers/named_registers.h"
#include "tools/registers/saved_dump.h"

#include <fmt/format.h>

namespace devaccess
{
namespace
{

bool is_named(const register_arguments &arguments)
{
    const std::vector<std::string> &words = arguments.words;
    return words.empty() || (!words[0].empty() && (words[0][0] < '0' || words[0][0] > '9'));
}

// A place in numbers, "MAP OFFSET", and the word that follows, if any.
struct numbered_place {
    unsigned window = 0;
    uint64_t place = 0;
    std::string last;
    unsigned width;
};

numbered_place parse_place(const register_source &source, const register_arguments &arguments,
                           bool has_default = false)
{
    std::vector<std::string> words = arguments.words;
    numbered_place parsed;
    parsed.width = arguments.width != 0 ? arguments.width : 32;
    if (const char *const window = source.window_word()) {
        parsed.window = static_cast<unsigned>(
            parse_number(fmt::format("the {}", window), words[0], source.highest_window()));
        words.erase(words.begin());
    }
    if (words.empty() && !has_default)
        throw usage_error("OFFSET is required");
    if (!words.empty())
        parsed.place = source.window_word() ? parse_number("the offset", words[0], SIZE_MAX)
                                            : parse_number("the address", words[0], UINT64_MAX);
    if (words.size() > 2)
        throw usage_error("The following argument was not expected: " + words[2]);
    parsed.last = words.size() > 1 ? words[1] : "";
    return parsed;
}

register_bank bank_at(register_source &source, const numbered_place &where, uint64_t count = 1)
{
    return source.bank(where.window, where.place, count * where.width / 8);
}

} // namespace

void read_registers(register_source &source, const register_arguments &arguments)
{
    if (is_named(arguments))
        return read_named(source, arguments);
    const numbered_place where = parse_place(source, arguments);
    const uint64_t most = std::min<uint64_t>(source.most_bytes(), UINT32_MAX);
    const uint64_t count = where.last.empty() ? 1 : parse_count("the count", where.last, most);
    read_bank(bank_at(source, where, count), where.place, where.last, where.width);
}

void write_registers(register_source &source, const register_arguments &arguments)
{
    if (is_named(arguments))
        return write_named(source, arguments);
    const numbered_place where = parse_place(source, arguments);
    if (where.last.empty())
        throw usage_error("VALUE is required");
    write_bank(bank_at(source, where), where.place, where.last, where.width, arguments.dry_run);
}

void watch_registers(register_source &source, const register_arguments &arguments)
{
    if (is_named(arguments))
        return watch_named(source, arguments);
    const numbered_place where = parse_place(source, arguments);
    watch_bank(bank_at(source, where), where.place, where.width, arguments.wait);
}

void dump_registers(register_source &source, const register_arguments &arguments)
{
    if (is_named(arguments))
        return dump_named(source, arguments);
    if (!arguments.out.empty())
        throw usage_error("--out takes named registers; --json prints any for 'diff'");
    const numbered_place where = parse_place(source, arguments, true);
    uint64_t bytes = 0;
    if (!where.last.empty())
        bytes = parse_count("the length", where.last, source.most_bytes());
    const register_bank bank = source.bank(where.window, where.place, bytes);
    if (where.last.empty())
        bytes = source.dumped_bytes(bank, where.place) / (where.width / 8) * (where.width / 8);
    dump_bank(bank, where.place, bytes, where.width);
}

void show_registers(register_source &source, const register_arguments &arguments)
{
    if (!is_named(arguments))
        throw usage_error("registers are shown by their names; 'dump' takes numbers");
    show_named(source, arguments);
}

//--- command line ---------------------------------------------------------------------------------

namespace
{

option add_words(command &to, register_arguments &arguments, const std::string &meaning,
                 const source_words &words)
{
    option added = to.argument("REGISTER", arguments.words, meaning.c_str());
    added.proposals([words](const given_options &given) {
        const auto option = given.find("--map");
        const auto device = given.find(words.device);
        const std::string file = map_file(option == given.end() ? "" : option->second,
                                          device == given.end() ? std::vector<std::string>()
                                                                : words.names(device->second));
        return file.empty() ? std::vector<std::string>() : device_map(file).names();
    });
    to.add_option("--map", "FILE", arguments.map,
                  "Register map that has the names (default: that of the device)")
        .paths();
    to.add_option("--width", "BITS", arguments.width,
                  "Width of the register in bits (default: that of its name, or 32)")
        .one_of({"8", "16", "32", "64"});
    return added;
}

constexpr char named[] = ", or one or more names: STATUS, CONTROL.ENABLE";

} // namespace

void add_read(command &to, register_arguments &arguments, const source_words &words)
{
    add_words(to, arguments, words.place + " [COUNT]" + named, words).required();
}

void add_write(command &to, register_arguments &arguments, const source_words &words)
{
    add_words(to, arguments, words.place + " VALUE[/MASK], or one or more of NAME=VALUE[/MASK]",
              words)
        .required();
    to.add_flag("--dry-run", arguments.dry_run, "Only show what would be written");
}

void add_watched(command &to, register_arguments &arguments, const source_words &words)
{
    add_words(to, arguments, words.place + ", or the name of a register or field", words)
        .required();
    add_watch(to, arguments.wait);
}

void add_dump(command &to, register_arguments &arguments, const source_words &words)
{
    const size_t last = words.place.rfind(' ');
    const std::string place = last == words.place.npos
                                  ? words.place + " [LENGTH]"
                                  : words.place.substr(0, last) + " [OFFSET [LENGTH]]";
    add_words(to, arguments, place + ", or names (default: all that can be read without an effect)",
              words);
    to.add_option("--out", "FILE", arguments.out, "Write to this file, for 'diff'").paths();
}

void add_show(command &to, register_arguments &arguments, const source_words &words)
{
    add_words(to, arguments, "Names (default: all that can be read without an effect)", words);
    to.add_flag("--follow", arguments.follow,
                "Show them again and again, and what has changed, until a key is pressed");
    to.add_option("--count", "N", arguments.looks, "How often, with --follow");
    add_every(to, arguments.wait);
    add_timeout(to, arguments.wait);
}

void add_diff(command &to)
{
    const auto describe = [](command &added, diff_arguments &arguments) {
        for (const auto &[name, side] : {std::pair("A", &arguments.a), {"B", &arguments.b}})
            added.argument(name, *side, "File that 'dump' has written").paths().required();
    };
    to.add<diff_arguments>("diff", "Compare two saved dumps", describe, diff_dumps);
}

} // namespace devaccess

// Options that commands of several families have.
#include "tools/cli/options.h"

#include "tools/base/settings.h"

#include <algorithm>
#include <iterator>
#include <set>
#include <span>

namespace devaccess
{

namespace
{

struct common_option {
    const char *short_name; // or nullptr
    const char *name;
    bool *flag;
    const char *meaning;
    // Those that have a value:
    std::string *value = nullptr;
    const char *placeholder = nullptr;
    std::span<const char *const> values = {};
};

constexpr const char *colours[] = {"auto", "always", "never"};

constexpr common_option common_options[] = {
    {nullptr, "--json", &settings.as_json, "Print JSON instead of tables"},
    {"-v", "--verbose", &settings.verbose,
     "Print the library's own messages on standard error too"},
    {nullptr, "--color", nullptr,
     "Colour the output: always, never, or auto, which is on a terminal", &settings.colour, "WHEN",
     colours},
    {nullptr, "--local", &settings.local_time,
     "Print times in this machine's time zone instead of UTC"},
    {nullptr, "--chassis", nullptr, "Chassis type: n20, n10 or n4 (default: $DEVACCESS_CHASSIS)",
     &settings.chassis, "TYPE", chassis_types},
    {nullptr, "--rp2", &settings.is_rp2, "Use the cards as the software on RPSW2 sees them"},
};

const common_option *find_common(const std::string &word)
{
    for (const common_option &option : common_options)
        if (word == option.name || (option.short_name && word == option.short_name))
            return &option;
    return nullptr;
}

} // namespace

void add_common_options(command &program)
{
    for (const common_option &option : common_options) {
        const std::string names =
            (option.short_name ? option.short_name + std::string(",") : "") + option.name;
        if (option.flag)
            program.add_flag(names.c_str(), *option.flag, option.meaning);
        else
            program.add_option(names.c_str(), option.placeholder, *option.value, option.meaning)
                .one_of({option.values.begin(), option.values.end()});
    }
}

std::vector<std::string> take_common_options(const std::vector<std::string> &words)
{
    std::vector<std::string> left;
    std::set<const common_option *> taken;
    auto word = words.begin();
    for (; word != words.end() && *word != "--"; ++word) {
        const common_option *const option = find_common(*word);
        const auto value = option && option->value ? std::next(word) : word;
        const bool is_right = option && value != words.end() &&
                              (option->flag || std::ranges::count(option->values, *value) > 0);
        if (!is_right || !taken.insert(option).second) {
            left.push_back(*word);
            continue;
        }
        if (option->flag)
            *option->flag = true;
        else
            *option->value = *value;
        word = value;
    }
    left.insert(left.end(), word, words.end());
    return left;
}

namespace
{

void add_format(command &to, const char *meaning, const std::vector<std::string> &formats)
{
    to.add_option("--format", "FORMAT", settings.entries_as, meaning)
        .one_of(formats)
        .check([](const std::string &format) {
            return settings.as_json && format != "jsonl" ? format + " is not JSON" : "";
        });
}

} // namespace

void add_entry_format(command &to)
{
    add_format(to, "Print entries as JSON lines (jsonl) or as CSV (csv)", {"jsonl", "csv"});
}

void add_timeline_format(command &to)
{
    add_format(to, "Print entries as JSON lines (jsonl), as CSV (csv), or for the journal (export)",
               {"jsonl", "csv", "export"});
}

void add_time_span(command &to, time_span &span)
{
    to.add_option("--since", "TIME", span.since,
                  "Only entries from this time on: a date, today, 2h (ago), ...");
    to.add_option("--until", "TIME", span.until, "Only entries up to this time");
}

option add_archives(command &to, std::vector<std::string> &from)
{
    return to
        .add_option("--from", "ARCHIVE", from,
                    "Read the machine of an archive of 'collect' instead of this one; may be given "
                    "several times, and be a directory of archives")
        .paths();
}

void add_timeout(command &to, wait_options &wait)
{
    to.add_option("--timeout", "SECONDS", wait.timeout, "Give up after this time (default: never)")
        .check(time_problem);
}

void add_watch(command &to, wait_options &wait)
{
    to.add_option("--until", "VALUE[/MASK]", wait.until,
                  "End when the register holds this value, in the bits of the mask");
    add_every(to, wait);
    add_timeout(to, wait);
}

void add_every(command &to, wait_options &wait)
{
    to.add_option("--every", "MS", wait.every, "Milliseconds between two reads")
        .check([](const std::string &text) {
            return text.size() <= 7 && text.find_first_not_of("0123456789") == text.npos &&
                           !text.empty() && std::stoul(text) <= 3600000
                       ? ""
                       : "'" + text + "' is not a number from 0 to 3600000";
        })
        .show_default();
}

} // namespace devaccess

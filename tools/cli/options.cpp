// Options that commands of several families have.
#include "tools/cli/options.h"

#include "tools/base/settings.h"

#include <iterator>

#include <fmt/format.h>

namespace devaccess
{

void add_common_options(command &program)
{
    program.add_flag("--json", settings.as_json, "Print JSON instead of tables");
    program.add_flag("-v,--verbose", settings.verbose,
                     "Print the library's own messages on standard error too");
    program
        .add_option("--color", "WHEN", settings.colour,
                    "Colour the output: always, never, or auto, which is on a terminal")
        .one_of({"auto", "always", "never"});
    program.add_flag("--local", settings.local_time,
                     "Print times in this machine's time zone instead of UTC");
    program
        .add_option("--chassis", "TYPE", settings.chassis,
                    fmt::format("Chassis type: n20, n10 or n4 (default: ${})", chassis_variable))
        .one_of({std::begin(chassis_types), std::end(chassis_types)});
    program.add_flag("--rp2", settings.is_rp2, "Use the cards as the software on RPSW2 sees them");
}

void add_entry_format(command &to)
{
    to.add_option("--format", "FORMAT", settings.entries_as,
                  "Print entries as JSON lines (jsonl) or as CSV (csv)")
        .one_of({"jsonl", "csv"})
        .check([](const std::string &format) {
            return settings.as_json && format == "csv" ? "csv is no JSON" : "";
        });
}

void add_time_span(command &to, time_span &span)
{
    to.add_option("--since", "TIME", span.since,
                  "Only entries from this time on: a date, today, 2h (ago), ...");
    to.add_option("--until", "TIME", span.until, "Only entries up to this time");
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
    to.add_option("--every", "MS", wait.every, "Milliseconds between two reads")
        .check([](const std::string &text) {
            return text.size() <= 7 && text.find_first_not_of("0123456789") == text.npos &&
                           !text.empty() && std::stoul(text) <= 3600000
                       ? ""
                       : "'" + text + "' is no number from 0 to 3600000";
        })
        .show_default();
    add_timeout(to, wait);
}

} // namespace devaccess

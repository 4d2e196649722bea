// devaccess diff: what has changed on a machine, or is different on another.
#include "tools/base/archived_machine.h"
#include "tools/base/errors.h"
#include "tools/base/fleet.h"
#include "tools/base/settings.h"
#include "tools/machine/differences.h"
#include "tools/machine/machine_commands.h"

namespace devaccess
{
namespace
{

constexpr int exit_different = exit_failed; // as diff and cmp have it

struct diff_arguments {
    std::string before;
    std::string after;
    bool only_worse = false;
};

record row_of(const difference &one)
{
    return record()
        .add("kind", one.kind)
        .add("where", one.where)
        .add("what", text_or_null(one.what))
        .add("before", text_or_null(one.before))
        .add("after", text_or_null(one.after))
        .warn_if(one.is_worse)
        .add("worse", one.is_worse);
}

record about(const machine_facts &before, const machine_facts &after)
{
    return record()
        .add("before", before.host)
        .add_time("before_time", before.time)
        .add("after", after.host)
        .add_time("after_time", after.time);
}

void diff(const diff_arguments &arguments)
{
    const machine_model before(archived_machine(arguments.before, archive_part::all));
    std::optional<machine_model> after;
    if (arguments.after.empty())
        after.emplace(this_machine());
    else
        after.emplace(archived_machine(arguments.after, archive_part::all));
    record_set found = {"differences", {}};
    for (const difference &one : differences(before, *after))
        if (one.is_worse || !arguments.only_worse)
            found.rows.push_back(row_of(one));
    const bool is_same = found.rows.empty();
    print(about(before.facts(), after->facts()).add(std::move(found)));
    if (!is_same)
        throw ends_with{exit_different};
}

void add_sides(command &to, diff_arguments &arguments)
{
    to.argument("BEFORE", arguments.before, "Archive of 'collect'").paths().required();
    to.argument("AFTER", arguments.after, "Another archive (default: this machine)").paths();
    to.add_flag("--regressions", arguments.only_worse, "Only what got worse");
}

} // namespace

void describe_diff(command &to)
{
    to.takes(add_sides, diff);
}

} // namespace devaccess

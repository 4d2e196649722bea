// Ways out of a damaged log: save, salvage, repair, reset.
#include "tools/base/errors.h"
#include "tools/base/files.h"
#include "tools/cli/options.h"
#include "tools/podlog/podlog_commands.h"

#include <algorithm>
#include <cerrno>

#include <fmt/format.h>

namespace devaccess
{
namespace
{

// What is in a storage that is there.
log_findings expect_bytes(const log_storage &storage)
{
    log_findings found = expect_readable(storage);
    if (!found.log)
        throw failure("read " + storage.path(), "it is missing", way_out(storage, found), ENOENT);
    return found;
}

// Fails, before anything is changed, where no log can be made.
void expect_room(const log_storage &storage, const log_findings &found, const std::string &what)
{
    if (found.way_out == remedy::no_repair || found.way_out == remedy::none)
        throw failure(what, found.problem, remedy_hint(storage, found), found.error,
                      status_of(found.state));
}

//--- save -----------------------------------------------------------------------------------------

struct save_arguments {
    log_place place;
    std::string card;
    std::string target;
    bool force = false;
};

void save(const save_arguments &arguments)
{
    fleet machines(arguments.place.from, archive_part::logs);
    machines.expect_one();
    machines.for_each([&](const machine_source &machine, const std::string &) {
        const log_storage storage = storage_for_reading(arguments.card, arguments.place, machine);
        const std::string bytes = expect_bytes(storage).bytes();
        write_file(arguments.target, bytes, !arguments.force);
        if (arguments.target != standard_stream)
            print_done(record()
                           .add_hidden("table", table_of(machine))
                           .add("card", storage.card().name)
                           .add("file", arguments.target)
                           .add("bytes", bytes.size()));
    });
}

//--- salvage --------------------------------------------------------------------------------------

struct salvage_arguments {
    log_place place;
    std::string card;
    std::string file;
};

// The records that are bad, where there is a log.
std::vector<log_record> bad_records(const log_image &log)
{
    return log.holds_log() ? log.wrong() : std::vector<log_record>();
}

record &add_salvaged(record &shown, const log_image &log)
{
    record_set entries = {"entries", {}};
    std::vector<log_record> found = log.good_entries();
    const std::vector<log_record> strays = log.strays();
    found.insert(found.end(), strays.begin(), strays.end());
    for (const log_record &slot : found)
        entries.rows.push_back(record()
                                   .add("history", slot.history)
                                   .add("position", slot.position)
                                   .append(entry_row(log, slot)));
    shown.add("storage", log.layout().name).add(std::move(entries));
    return add_records(shown, record_rows(bad_records(log)));
}

void salvage_file(const std::string &file)
{
    const std::string bytes = expect_file(file, "'devaccess podlog save' makes one");
    record shown;
    print(add_salvaged(shown.add("file", file), log_image(recognise(bytes).layout, bytes)));
}

void salvage(const salvage_arguments &arguments)
{
    if (arguments.card.empty() == arguments.file.empty())
        throw usage_error("either CARD or --file FILE says what to salvage");
    if (!arguments.file.empty())
        return salvage_file(arguments.file);
    fleet machines(arguments.place.from, archive_part::logs);
    machines.print_each([&](const machine_source &machine, const std::string &) {
        const log_storage storage = storage_for_reading(arguments.card, arguments.place, machine);
        const log_findings found = expect_bytes(storage);
        record shown;
        shown.add_hidden("table", table_of(machine)).add("card", storage.card().name);
        return add_salvaged(shown,
                            found.foreign ? log_image(*found.foreign, found.bytes()) : *found.log);
    });
    machines.finish();
}

//--- repair ---------------------------------------------------------------------------------------

struct repair_arguments {
    log_place place;
    std::string card;
    std::string target;
    bool yes = false;
};

std::string plan_of(const log_image &log)
{
    return fmt::format("{} of its records are bad; {} entries would be kept",
                       log.wrong().size() + (log.missing() > 0 ? 1 : 0),
                       log_image(log.layout(), log.repaired()).good_entries().size());
}

void print_repaired(const log_storage &storage, const log_image &before, const std::string &file)
{
    const log_image now(storage.layout(), storage.bytes().value_or(""));
    record shown;
    shown.add("card", storage.card().name)
        .add("saved", text_or_null(file))
        .add("entries", now.good_entries().size());
    const size_t all = before.good_entries().size() + before.strays().size();
    const size_t kept = std::min(all, now.good_entries().size());
    kept < all ? shown.add("left_over", all - kept) : shown.add_hidden("left_over", 0);
    print(add_records(shown, record_rows(bad_records(before))));
}

void repair(const repair_arguments &arguments)
{
    const log_storage storage = storage_for_writing(arguments.card, arguments.place);
    const log_findings found = expect_bytes(storage);
    const std::string what = "repair the log of " + storage.card().name;
    if (!found.holds_log)
        throw failure(what, found.names_kind() ? found.problem : "it contains no log data",
                      way_out(storage, found), 0, status_of(found.state));
    if (found.state == storage_state::good) {
        print_repaired(storage, *found.log, "");
        return;
    }
    expect_room(storage, found, what);
    if (!arguments.yes)
        throw failure(what, plan_of(*found.log), remedy_hint(storage, found));
    const std::string file = save_aside(storage, found, arguments.target);
    storage.rewrite(
        [&](const std::string &bytes) { return log_image(storage.layout(), bytes).repaired(); });
    print_repaired(storage, *found.log, file);
}

//--- reset ----------------------------------------------------------------------------------------

struct reset_arguments {
    std::string card;
    bool yes = false;
};

std::string loss_of(const log_storage &storage, const log_image &log)
{
    return fmt::format("{} entries in {} histories{}", log.good_entries().size(),
                       log.written().size(),
                       storage.is_nvram() ? ", the status words and the fault flags" : "");
}

void reset(const reset_arguments &arguments)
{
    const log_storage storage = storage_for_writing(arguments.card, {});
    const log_findings found = expect_readable(storage);
    const log_image log(found.foreign ? *found.foreign : storage.layout(), found.bytes());
    const std::string what = "reset the log of " + storage.card().name;
    if (!arguments.yes)
        throw failure(what, loss_of(storage, log) + " would be lost",
                      podlog_command("save " + storage.card().name + " FILE") + " keeps them, " +
                          podlog_command("reset " + storage.card().name + " --yes") +
                          " saves them in /var/tmp and goes on");
    expect_room(storage, found, what);
    const bool has_something = found.log && found.state != storage_state::empty;
    const std::string file = has_something ? save_aside(storage, found) : "";
    if (const std::string lack = reset_storage(storage, what); !lack.empty())
        throw failure(what, lack, "is the storage complete, and is there space on the disk?");
    note("lost: " + loss_of(storage, log));
    print_done(record()
                   .add("card", storage.card().name)
                   .add("saved", text_or_null(file))
                   .add("lost_histories", log.written().size())
                   .add("lost_entries", log.good_entries().size()));
}

//--- command line ---------------------------------------------------------------------------------

void add_saved(command &to, save_arguments &arguments)
{
    add_card(to, arguments.card).required();
    to.argument("FILE", arguments.target, "File to make; - is standard output").paths().required();
    to.add_flag("--force", arguments.force, "Replace the file if it exists");
    add_places(to, arguments.place);
    add_archives(to, arguments.place.from);
}

void add_wanted(command &to, salvage_arguments &arguments)
{
    add_card(to, arguments.card, "Card whose log to read");
    const option file =
        to.add_option("--file", "FILE", arguments.file, "Read the saved storage FILE instead")
            .paths();
    add_places(to, arguments.place);
    add_archives(to, arguments.place.from).excludes(file);
}

void add_repaired(command &to, repair_arguments &arguments)
{
    add_card(to, arguments.card).required();
    to.add_option("--save", "FILE", arguments.target,
                  "Save the storage's bytes to FILE (default: a file in /var/tmp)")
        .paths();
    add_eeprom(to, arguments.place);
    add_yes(to, arguments.yes);
}

void add_reset(command &to, reset_arguments &arguments)
{
    add_card(to, arguments.card).required();
    add_yes(to, arguments.yes);
}

} // namespace

void describe_salvage(command &podlog)
{
    podlog.add("save", "Save the bytes of the storage to a file", add_saved, save);
    podlog.add("salvage", "Show every good entry, whatever index and headers say", add_wanted,
               salvage);
    podlog.add("repair", "Save a damaged log, then rebuild it with all good entries", add_repaired,
               repair);
    podlog.add("reset", "Format the storage, whatever it holds", add_reset, reset);
}

} // namespace devaccess

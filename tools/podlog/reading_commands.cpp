// What reads logs: cards, list, show, check.
#include "tools/base/errors.h"
#include "tools/base/numbers.h"
#include "tools/base/output.h"
#include "tools/cli/options.h"
#include "tools/podlog/podlog_commands.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>

#include <fmt/format.h>

namespace devaccess
{

record entry_row(const log_image &log, const log_record &slot)
{
    const log_entry entry = log.entry(slot);
    return record().add_time("time", entry.time).add_message(entry.message);
}

namespace
{

void cards(const log_place &place)
{
    fleet machines(place.from, archive_part::logs);
    record_set set = {"cards", {}};
    std::string table;
    machines.for_each([&](const machine_source &machine, const std::string &host) {
        for (const pod_card &card : cards_of(machine))
            set.rows.push_back(
                machines.row(host)
                    .add("card", card.name)
                    .add("id", card.registry_id)
                    .add("storage", card.storage == PODSTORAGE_NVRAM ? "nvram" : "file")
                    .add("storage_id", card.storage_id)
                    .add("secondary_eeprom", card.secondary));
        table = table_of(machine);
    });
    print(record().add_hidden("table", table).add(std::move(set)));
    machines.finish();
}

//--- histories ------------------------------------------------------------------------------------

int unreadable(const log_image &log)
{
    return static_cast<int>(
        std::count_if(log.histories().begin(), log.histories().end(),
                      [&](const log_history &history) { return log.is_unreadable(history); }));
}

// Fails when something of the log could not be read.
void expect_all_readable(const log_storage &storage, const log_findings &found)
{
    const log_image &log = *found.log;
    const int count = unreadable(log);
    if (count == 0 && log.index().state == record_state::good)
        return;
    const log_record first = log.wrong().front();
    std::string why = fmt::format("{}: {}", first.name(), first.problem);
    if (count > 0)
        why = fmt::format("{} of {} histories could not be read ({})", count,
                          log.histories().size(), why);
    throw failure("read all of the log of " + storage.card().name, why, way_out(storage, found), 0,
                  exit_damaged);
}

record &add_unreadable(record &shown, int count)
{
    return count ? shown.add("unreadable", count) : shown.add_hidden("unreadable", 0);
}

record about(const std::string &table, const std::string &card)
{
    return record().add_hidden("table", table).add("card", in_capitals(card));
}

struct list_arguments {
    log_place place;
    std::string card;
};

void list(const list_arguments &arguments)
{
    fleet machines(arguments.place.from, archive_part::logs);
    record_set set = {"histories", {}};
    std::string table;
    int lost = 0;
    machines.for_each([&](const machine_source &machine, const std::string &host) {
        const log_storage storage = storage_for_reading(arguments.card, arguments.place, machine);
        const log_findings found = expect_log(storage);
        const log_image &log = *found.log;
        for (const log_history *history : log.written()) {
            const auto entries = log.chain(*history);
            set.rows.push_back(machines.row(host)
                                   .add_hidden("card", storage.card().name)
                                   .add("history", history->number)
                                   .add("entries", entries.size())
                                   .add_time("time", log.entry(entries.front()).time));
        }
        table = table_of(machine);
        lost += unreadable(log);
        machines.expect(host, [&] { expect_all_readable(storage, found); });
    });
    record shown = about(table, arguments.card);
    print(add_unreadable(shown, lost).add(std::move(set)));
    machines.finish();
}

//--- entries --------------------------------------------------------------------------------------

struct show_arguments {
    log_place place;
    std::string card;
    std::string history;
    bool follow = false;
    bool all = false;
    time_span span;
};

const log_history *wanted_history(const show_arguments &arguments, const log_image &log)
{
    if (arguments.history.empty()) {
        const auto found = log.written();
        return found.empty() ? nullptr : found.front();
    }
    const auto number = parse_number("the history", arguments.history, INT32_MAX);
    if (number >= log.histories().size())
        throw failure(fmt::format("read history {} of {}", number, in_capitals(arguments.card)),
                      fmt::format("the log has histories 0 to {}", log.histories().size() - 1),
                      podlog_command("list " + arguments.card, arguments.place) + " shows them");
    return &log.histories()[static_cast<std::size_t>(number)];
}

// Fails when a history does not end where its header says.
void expect_whole(const log_storage &storage, const log_findings &found, const log_history &history)
{
    const auto wrong = found.log->wrong();
    const auto bad = std::find_if(wrong.begin(), wrong.end(), [&](const log_record &record) {
        return record.history == history.number;
    });
    if (bad != wrong.end())
        throw failure(
            fmt::format("read all of history {} of {}", history.number, storage.card().name),
            fmt::format("{}: {}", bad->name(), bad->problem), way_out(storage, found), 0,
            exit_damaged);
}

// Which entries are shown, and how.
struct entry_view {
    record about; // the machine
    std::string card;
    bool with_history;
    time_limits limits;

    // Nothing for one that is not wanted.
    std::optional<record> row(const log_image &log, int history, const log_record &slot) const
    {
        if (!limits.hold(log.entry(slot).time))
            return std::nullopt;
        record row = about;
        row.add_hidden("card", card);
        with_history ? row.add("history", history) : row.add_hidden("history", history);
        return row.append(entry_row(log, slot));
    }
};

// How far a follower has read.
struct bookmark {
    int history = -1;
    size_t entries = 0;
};

// The entries that came since; a history that became shorter has been started anew.
void print_new_entries(const entry_view &view, const log_image &log, bookmark &seen)
{
    const auto entries = log.chain(log.histories()[static_cast<size_t>(seen.history)]);
    if (entries.size() < seen.entries)
        seen.entries = 0;
    for (; seen.entries < entries.size(); ++seen.entries)
        if (const auto row = view.row(log, seen.history, entries[seen.entries]))
            print_line(*row);
}

void go_on(const show_arguments &arguments, const entry_view &view, const log_image &log,
           bookmark &seen)
{
    const log_history *history = wanted_history(arguments, log);
    if (!history)
        return;
    if (seen.history != history->number) {
        if (seen.history >= 0)
            print_new_entries(view, log, seen); // the last ones of the history that ended
        seen = {history->number, 0};
    }
    print_new_entries(view, log, seen);
}

[[noreturn]] void follow(const show_arguments &arguments, const entry_view &view,
                         const log_storage &storage)
{
    for (bookmark seen;;) {
        try {
            go_on(arguments, view, *expect_log(storage).log, seen);
        } catch (const failure &failed) {
            if (failed.error != EBUSY) // a writer has it open for a moment
                throw;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
    }
}

// Oldest first.
std::vector<const log_history *> wanted_histories(const show_arguments &arguments,
                                                  const log_image &log)
{
    if (!arguments.all) {
        const log_history *one = wanted_history(arguments, log);
        return one ? std::vector{one} : std::vector<const log_history *>();
    }
    std::vector<const log_history *> all = log.written();
    std::reverse(all.begin(), all.end());
    return all;
}

void follow(const show_arguments &arguments)
{
    if (!arguments.place.from.empty())
        throw usage_error("--follow is for this machine, not for an archive");
    const log_storage storage = storage_for_reading(arguments.card, arguments.place);
    follow(arguments, {record(), storage.card().name, false, arguments.span.limits()}, storage);
}

void show(const show_arguments &arguments)
{
    if (arguments.all && (!arguments.history.empty() || arguments.follow))
        throw usage_error("--all is neither for one HISTORY nor with --follow");
    if (arguments.follow)
        follow(arguments);
    fleet machines(arguments.place.from, archive_part::logs);
    const time_limits limits = arguments.span.limits();
    record_set set = {"entries", {}};
    std::string table;
    std::optional<int> only; // the history that is shown
    int lost = 0;
    machines.for_each([&](const machine_source &machine, const std::string &host) {
        const log_storage storage = storage_for_reading(arguments.card, arguments.place, machine);
        const log_findings found = expect_log(storage);
        const log_image &log = *found.log;
        const entry_view view = {machines.row(host), storage.card().name,
                                 arguments.all || machines.has_several(), limits};
        const auto histories = wanted_histories(arguments, log);
        for (const log_history *history : histories)
            for (const log_record &slot : log.chain(*history))
                if (auto row = view.row(log, history->number, slot))
                    set.rows.push_back(std::move(*row));
        table = table_of(machine);
        only = histories.empty() || machines.has_several() ? only : histories[0]->number;
        lost += unreadable(log);
        machines.expect(host, [&] {
            for (const log_history *history : histories)
                expect_whole(storage, found, *history);
            if (arguments.history.empty())
                expect_all_readable(storage, found);
        });
    });
    record shown = about(table, arguments.card);
    if (!arguments.all)
        shown.add("history", only);
    else
        shown.add_hidden("history", nullptr);
    print_entries(add_unreadable(shown, lost), std::move(set));
    machines.finish();
}

//--- check ----------------------------------------------------------------------------------------

struct check_arguments {
    log_place place;
    std::string card;
    bool all = false;
};

record storage_row(const log_storage &storage, const log_findings &found)
{
    const bool good = found.state == storage_state::good;
    return record()
        .add("card", storage.card().name)
        .add("storage", storage.layout().name)
        .add("path", storage.path())
        .add("state", name_of(found.state))
        .warn_if(!good)
        .add_hidden("good", good)
        .add("histories", found.log ? found.log->written().size() : 0)
        .add("entries", found.log ? found.log->good_entries().size() : 0)
        .add("problem", text_or_null(printable(found.problem)));
}

std::vector<log_record> records_to_show(const log_findings &found, bool all)
{
    if (!found.log || found.log->is_blank() || found.names_kind())
        return {};
    return all ? found.log->records() : found.log->wrong();
}

std::vector<pod_card> checked_cards(const check_arguments &arguments, const log_place &place,
                                    const machine_source &machine)
{
    std::vector<pod_card> cards = cards_of(machine);
    if (arguments.card.empty())
        return cards;
    return {card_of(arguments.card, cards, place)};
}

void check(const check_arguments &arguments)
{
    fleet machines(arguments.place.from, archive_part::logs);
    record_set storages = {"storages", {}};
    record_set records = {"records", {}};
    std::string table;
    std::string hint; // of the first bad one
    size_t bad = 0;
    exit_status status = exit_failed;
    machines.for_each([&](const machine_source &machine, const std::string &host) {
        const log_place place = arguments.place.in(machine);
        table = table_of(machine);
        for (const pod_card &card : checked_cards(arguments, place, machine)) {
            const log_storage storage(place, card);
            const log_findings found = storage.look();
            storages.rows.push_back(machines.row(host).append(storage_row(storage, found)));
            for (const log_record &what : records_to_show(found, arguments.all))
                records.rows.push_back(
                    machines.row(host).add("card", card.name).append(record_row(what)));
            if (found.state == storage_state::good)
                continue;
            status = worse_of(status, status_of(found.state));
            if (bad++ == 0)
                hint = fmt::format("of {}: {}", card.name, remedy_hint(storage, found));
        }
    });
    const size_t all = storages.rows.size();
    record shown;
    shown.add_hidden("table", table).add(std::move(storages));
    print(add_records(shown, std::move(records)));
    machines.finish();
    if (bad > 0)
        throw failure("confirm that all logs are good",
                      fmt::format("{} of {} storages are not", bad, all), hint, 0, status);
}

//--- command line ---------------------------------------------------------------------------------

void add_fleet(command &to, log_place &place)
{
    add_archives(to, place.from);
}

void add_listed(command &to, list_arguments &arguments)
{
    add_card(to, arguments.card).required();
    add_places(to, arguments.place);
    add_archives(to, arguments.place.from);
}

void add_shown(command &to, show_arguments &arguments)
{
    add_card(to, arguments.card).required();
    to.argument("HISTORY", arguments.history, "Number of the history (default: the newest)");
    to.add_flag("--follow", arguments.follow, "Keep printing entries as they are added");
    to.add_flag("--all", arguments.all, "Show the entries of all histories");
    add_time_span(to, arguments.span);
    add_entry_format(to);
    add_places(to, arguments.place);
    add_archives(to, arguments.place.from);
}

void add_checked(command &to, check_arguments &arguments)
{
    add_card(to, arguments.card, "Check the log of this card only");
    to.add_flag("--all", arguments.all, "Show the good records too");
    add_places(to, arguments.place);
    add_archives(to, arguments.place.from);
}

} // namespace

void describe_reading(command &podlog)
{
    podlog.add("cards", "List the cards and where each keeps its log", add_fleet, cards);
    podlog.add("list", "List the histories of a log, newest first", add_listed, list);
    podlog.add("show", "Show the entries of a history", add_shown, show);
    podlog.add("check", "Check every index, header and entry of the logs", add_checked, check);
}

} // namespace devaccess

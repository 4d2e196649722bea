// What reads logs: cards, list, show, check.
#include "tools/base/output.h"
#include "tools/cli/completion.h"
#include "tools/podlog/podlog_commands.h"

#include <algorithm>
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

record record_row(const log_record &what)
{
    const auto sum = [](record &row, const char *name, const std::optional<uint32_t> &value) {
        row.add(name, if_any(value), value ? hex(*value, 8) : "-");
    };
    record row;
    row.add("record", what.kind)
        .add("history", if_any(what.history))
        .add("entry", if_any(what.entry))
        .add("position", what.position);
    sum(row, "stored", what.stored);
    sum(row, "computed", what.computed);
    return row.add("good", what.state == record_state::good)
        .warn_if(what.state == record_state::bad)
        .add("problem", what.problem.empty() ? json() : json(what.problem));
}

record_set record_rows(const std::vector<log_record> &records)
{
    record_set set = {"records", {}};
    for (const log_record &what : records)
        set.rows.push_back(record_row(what));
    return set;
}

namespace
{

log_storage storage_for_reading(const podlog_arguments &arguments)
{
    return log_storage(arguments, card_of(arguments, cards_for_reading()));
}

void cards(const podlog_arguments &)
{
    record_set set = {"cards", {}};
    for (const pod_card &card : cards_for_reading())
        set.rows.push_back(record()
                               .add("card", card.name)
                               .add("id", if_any(card.registry_id))
                               .add("storage", card.storage == PODSTORAGE_NVRAM ? "nvram" : "file")
                               .add("storage_id", card.storage_id)
                               .add("secondary_eeprom", if_any(card.secondary)));
    print(record().add_hidden("table", table_name()).add(std::move(set)));
}

//--- histories ------------------------------------------------------------------------------------

int unreadable(const log_image &log)
{
    return static_cast<int>(
        std::count_if(log.histories().begin(), log.histories().end(),
                      [&](const log_history &history) { return log.is_unreadable(history); }));
}

// Says what of the log could not be read, when that is anything.
void complain(const log_storage &storage, const log_image &log)
{
    const int count = unreadable(log);
    if (count == 0 && log.index().state == record_state::good)
        return;
    std::string why =
        fmt::format("{} of {} histories could not be read", count, log.histories().size());
    const auto wrong = log.wrong();
    if (!wrong.empty())
        why += fmt::format(" ({}: {})", wrong.front().name(), wrong.front().problem);
    throw failure("read all of the log of " + storage.card().name, why,
                  storage.way_out(log.bytes().substr(0, log.bytes().size() - log.missing())));
}

record &add_unreadable(record &shown, const log_image &log)
{
    const int count = unreadable(log);
    return count ? shown.add("unreadable", count) : shown.add_hidden("unreadable", 0);
}

record about(const log_storage &storage)
{
    return record().add_hidden("table", table_name()).add("card", storage.card().name);
}

void list(const podlog_arguments &arguments)
{
    const log_storage storage = storage_for_reading(arguments);
    const log_image log = storage.log();
    record_set set = {"histories", {}};
    for (const log_history *history : log.written()) {
        const auto entries = log.chain(*history);
        set.rows.push_back(record()
                               .add_hidden("card", storage.card().name)
                               .add("history", history->number)
                               .add("entries", entries.size())
                               .add_time("time", log.entry(entries.front()).time));
    }
    record shown = about(storage);
    print(add_unreadable(shown, log).add(std::move(set)));
    complain(storage, log);
}

//--- entries --------------------------------------------------------------------------------------

const log_history *wanted_history(const podlog_arguments &arguments, const log_image &log)
{
    if (arguments.history.empty()) {
        const auto found = log.written();
        return found.empty() ? nullptr : found.front();
    }
    const auto number = parse_number("the history", arguments.history, INT32_MAX);
    if (number >= log.histories().size())
        throw failure(fmt::format("read history {} of {}", number, in_capitals(arguments.card)),
                      fmt::format("the log has histories 0 to {}", log.histories().size() - 1),
                      podlog_command(arguments, "list " + arguments.card) + " shows them");
    return &log.histories()[static_cast<std::size_t>(number)];
}

// Fails when a history does not end where its header says.
void expect_whole(const log_storage &storage, const log_image &log, const log_history &history)
{
    const auto wrong = log.wrong();
    const auto bad = std::find_if(wrong.begin(), wrong.end(), [&](const log_record &record) {
        return record.history == history.number;
    });
    if (bad != wrong.end())
        throw failure(
            fmt::format("read all of history {} of {}", history.number, storage.card().name),
            fmt::format("{}: {}", bad->name(), bad->problem), storage.way_out(log.bytes()));
}

// Which entries are shown, and how.
struct entry_view {
    std::string card;
    bool with_history;
    time_limits limits;

    // Nothing for one that is not wanted.
    std::optional<record> row(const log_image &log, int history, const log_record &slot) const
    {
        if (!limits.hold(log.entry(slot).time))
            return std::nullopt;
        record row = record().add_hidden("card", card);
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

void go_on(const podlog_arguments &arguments, const entry_view &view, const log_image &log,
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

[[noreturn]] void follow(const podlog_arguments &arguments, const entry_view &view,
                         const log_storage &storage)
{
    for (bookmark seen;;) {
        try {
            go_on(arguments, view, storage.log(), seen);
        } catch (const failure &failed) {
            if (failed.error != EBUSY) // a writer has it open for a moment
                throw;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
    }
}

// Oldest first.
std::vector<const log_history *> wanted_histories(const podlog_arguments &arguments,
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

void show(const podlog_arguments &arguments)
{
    if (arguments.all && (!arguments.history.empty() || arguments.follow))
        throw usage_error("--all is neither for one HISTORY nor with --follow");
    const log_storage storage = storage_for_reading(arguments);
    const entry_view view = {storage.card().name, arguments.all, arguments.span.limits()};
    if (arguments.follow)
        follow(arguments, view, storage);
    const log_image log = storage.log();
    const auto histories = wanted_histories(arguments, log);
    record_set set = {"entries", {}};
    for (const log_history *history : histories)
        for (const log_record &slot : log.chain(*history))
            if (auto row = view.row(log, history->number, slot))
                set.rows.push_back(std::move(*row));
    record shown = about(storage);
    if (!arguments.all)
        shown.add("history", histories.empty() ? json() : json(histories[0]->number));
    else
        shown.add_hidden("history", nullptr);
    print_entries(add_unreadable(shown, log), std::move(set));
    for (const log_history *history : histories)
        expect_whole(storage, log, *history);
    if (arguments.history.empty())
        complain(storage, log);
}

//--- check ----------------------------------------------------------------------------------------

// One storage's line in a check, and its records.
struct examination {
    record row;
    std::vector<log_record> records;
    std::string remedy; // empty when it is good
};

examination examine(const podlog_arguments &arguments, const log_storage &storage)
{
    const storage_state state = storage.state();
    const bool good = state.problem.empty();
    const std::optional<log_image> &log = state.log;
    record row = record()
                     .add("card", storage.card().name)
                     .add("storage", storage.layout().name)
                     .add("path", storage.path())
                     .add("good", good)
                     .warn_if(!good)
                     .add("histories", log ? log->written().size() : 0)
                     .add("entries", log ? log->good_entries().size() : 0)
                     .add("problem", good ? json() : json(state.problem));
    return {std::move(row),
            !log || log->is_blank() ? std::vector<log_record>()
            : arguments.all         ? log->records()
                                    : log->wrong(),
            state.remedy};
}

std::vector<pod_card> checked_cards(const podlog_arguments &arguments)
{
    std::vector<pod_card> cards = cards_for_reading();
    if (arguments.card.empty())
        return cards;
    return {card_of(arguments, cards)};
}

void check(const podlog_arguments &arguments)
{
    record_set storages = {"storages", {}};
    record_set records = {"records", {}};
    std::string hint; // of the first bad one
    size_t bad = 0;
    for (const pod_card &card : checked_cards(arguments)) {
        const log_storage storage(arguments, card);
        examination found = examine(arguments, storage);
        storages.rows.push_back(std::move(found.row));
        for (const log_record &what : found.records)
            records.rows.push_back(record().add("card", card.name).append(record_row(what)));
        if (found.remedy.empty())
            continue;
        if (bad++ == 0)
            hint = fmt::format("of {}: {}", card.name, found.remedy);
    }
    const size_t all = storages.rows.size();
    record shown;
    shown.add_hidden("table", table_name()).add(std::move(storages));
    print(add_records(shown, std::move(records)));
    if (bad > 0)
        throw failure("call every log good", fmt::format("{} of {} storages are not", bad, all),
                      hint);
}

} // namespace

void add_podlog_reading_commands(podlog_family &podlog)
{
    podlog.add("cards", "List the cards, and where each keeps its log", cards);
    auto listed = podlog.add_for_card("list", "List a log's histories, newest first", list);
    podlog.add_places(listed);
    auto shown = podlog.add_for_card("show", "Show the entries of a history", show);
    shown->add_option("HISTORY", podlog.arguments->history, "its number; without it, the newest");
    shown->add_flag("--follow", podlog.arguments->follow,
                    "go on with what is added, a line for each");
    shown->add_flag("--all", podlog.arguments->all, "the entries of all histories");
    podlog.arguments->span.add_options(*shown);
    add_entry_format(*shown);
    podlog.add_places(shown);
    auto checked = podlog.add("check", "Look at every index, header and entry of the logs", check);
    podlog.add_card(checked, "only this one's")->required(false);
    checked->add_flag("--all", podlog.arguments->all, "show the good records too");
    podlog.add_places(checked);
}

} // namespace devaccess

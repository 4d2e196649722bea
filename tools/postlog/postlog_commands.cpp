// POST logs: postlog list, show, check, save, salvage.
#include "tools/postlog/postlog_commands.h"

#include "tools/base/errors.h"
#include "tools/base/files.h"
#include "tools/base/numbers.h"
#include "tools/base/output.h"
#include "tools/base/times.h"
#include "tools/cli/options.h"

#include <algorithm>
#include <cerrno>
#include <optional>

#include <fmt/format.h>

namespace devaccess
{
namespace
{

struct postlog_arguments {
    std::string block;
    std::string history;
    std::string file;
    postlog_place place;
    time_span span;
    bool all = false;
    bool force = false;
};

// Does this for each wanted block of each machine, and tells of the first failure at the end, with
// the status of the worst.
class each_block
{
public:
    explicit each_block(const postlog_arguments &arguments)
        : arguments_(arguments), machines_(arguments.place.from, archive_part::logs)
    {
    }

    // The work gets a row to add to, too.
    template <typename Work>
    void operator()(Work work)
    {
        machines_.for_each([&](const machine_source &machine, const std::string &host) {
            for (const post_block &block :
                 open_blocks(arguments_.place.in(machine), arguments_.block))
                machines_.expect(host, [&] { work(block, machines_.row(host)); });
        });
    }

    bool has_several() const { return machines_.has_several(); }
    void expect_all() const { machines_.finish(); }

private:
    const postlog_arguments &arguments_;
    fleet machines_;
};

record about(const postlog_arguments &arguments)
{
    return record().add_hidden("block", text_or_null(arguments.block));
}

// Fails when a wrong record is of the index or of one of these histories.
void expect_whole(const post_block &block, const post_findings &found,
                  const std::vector<const post_history *> &histories)
{
    const auto wrong = found.log->wrong();
    const auto bad = std::find_if(wrong.begin(), wrong.end(), [&](const log_record &record) {
        return !record.history ||
               std::any_of(histories.begin(), histories.end(), [&](const post_history *history) {
                   return history->number == *record.history;
               });
    });
    if (bad != wrong.end())
        throw failure(fmt::format("read all of the POST {} log", block.name()),
                      fmt::format("{}: {}", bad->name(), bad->problem), block.way_out(found), 0,
                      exit_damaged);
}

std::vector<const post_history *> all_histories(const post_image &log)
{
    std::vector<const post_history *> all;
    for (const post_history &history : log.histories())
        all.push_back(&history);
    return all;
}

void list(const postlog_arguments &arguments)
{
    record_set set = {"histories", {}};
    each_block each(arguments);
    each([&](const post_block &block, const record &row) {
        const post_findings found = block.expect_log();
        for (const post_history *history : found.log->written())
            set.rows.push_back(record(row)
                                   .add("block", block.name())
                                   .add("history", history->number)
                                   .add_time("time", found.log->entry(history->entries[0]).time));
        expect_whole(block, found, all_histories(*found.log));
    });
    print(about(arguments).add(std::move(set)));
    each.expect_all();
}

//--- entries --------------------------------------------------------------------------------------

const post_history &history_of(const postlog_arguments &arguments, const post_block &block,
                               const post_image &log)
{
    const auto number = parse_number("the history", arguments.history, INT32_MAX);
    const auto &histories = log.histories();
    if (number < histories.size())
        return histories[static_cast<size_t>(number)];
    const std::string list = block.place().command(std::string("list ") + block.name());
    throw failure(fmt::format("read history {} of the POST {} log", number, block.name()),
                  histories.size() == 1
                      ? "the log has history 0 alone"
                      : fmt::format("the log has histories 0 to {}", histories.size() - 1),
                  list + " shows them");
}

// Oldest first.
std::vector<const post_history *> wanted_histories(const postlog_arguments &arguments,
                                                   const post_block &block, const post_image &log)
{
    if (!arguments.history.empty())
        return {&history_of(arguments, block, log)};
    std::vector<const post_history *> wanted = log.written();
    if (!arguments.all && wanted.size() > 1)
        wanted.resize(1);
    std::reverse(wanted.begin(), wanted.end());
    return wanted;
}

void show(const postlog_arguments &arguments)
{
    if (arguments.all && !arguments.history.empty())
        throw usage_error("either HISTORY or --all says which histories to show");
    const time_limits limits = arguments.span.limits();
    record_set entries = {"entries", {}};
    std::optional<int> only; // the one history that is shown
    each_block each(arguments);
    each([&](const post_block &block, const record &row) {
        const post_findings found = block.expect_log();
        const auto wanted = wanted_histories(arguments, block, *found.log);
        for (const post_history *history : wanted) {
            if (!arguments.block.empty() && !arguments.all && !each.has_several())
                only = history->number;
            for (const log_record &slot : history->chain()) {
                const post_entry entry = found.log->entry(slot);
                if (limits.hold(entry.time))
                    entries.rows.push_back(record(row)
                                               .add("block", block.name())
                                               .add("history", history->number)
                                               .add_time("time", entry.time)
                                               .add_message(entry.message));
            }
        }
        // Which is the newest cannot be said where another cannot be read.
        expect_whole(block, found, arguments.history.empty() ? all_histories(*found.log) : wanted);
    });
    if (entries.rows.empty())
        each.expect_all();
    print_entries(about(arguments).add_hidden("history", only), std::move(entries));
    each.expect_all();
}

//--- check ----------------------------------------------------------------------------------------

field_value order_of(const std::optional<post_image> &log)
{
    if (!log || log->holds_nothing())
        return {};
    return log->order() == byte_order::big ? "big" : "little";
}

record storage_row(const post_block &block, const post_findings &found)
{
    const bool good = found.state == storage_state::good;
    return record()
        .add("block", block.name())
        .add("storage", block.storage())
        .add("path", block.path())
        .add("byte_order", order_of(found.log))
        .add("state", name_of(found.state))
        .warn_if(!good)
        .add_hidden("good", good)
        .add("histories", found.log ? found.log->written().size() : 0)
        .add("entries", found.log ? found.log->good_entries().size() : 0)
        .add("problem", text_or_null(printable(found.problem)));
}

void check(const postlog_arguments &arguments)
{
    fleet machines(arguments.place.from, archive_part::logs);
    record_set storages = {"storages", {}};
    record_set records = {"records", {}};
    std::string hint; // of the first bad one
    exit_status status = exit_failed;
    size_t bad = 0;
    machines.for_each([&](const machine_source &machine, const std::string &host) {
        for (const post_block &block : open_blocks(arguments.place.in(machine), arguments.block)) {
            const post_findings found = block.look();
            storages.rows.push_back(machines.row(host).append(storage_row(block, found)));
            if (found.log && !found.log->holds_nothing())
                for (const log_record &what :
                     arguments.all ? found.log->records() : found.log->wrong())
                    records.rows.push_back(
                        machines.row(host).add("block", block.name()).append(record_row(what)));
            if (found.state == storage_state::good)
                continue;
            status = worse_of(status, status_of(found.state));
            if (bad++ == 0)
                hint = fmt::format("of {}: {}", block.name(), block.remedy(found));
        }
    });
    const size_t all = storages.rows.size();
    record shown;
    shown.add(std::move(storages));
    print(add_records(shown, std::move(records)));
    machines.finish();
    if (bad > 0)
        throw failure("confirm that all logs are good",
                      fmt::format("{} of {} storages are not", bad, all), hint, 0, status);
}

//--- save and salvage -----------------------------------------------------------------------------

void save(const postlog_arguments &arguments)
{
    fleet machines(arguments.place.from, archive_part::logs);
    machines.expect_one();
    machines.for_each([&](const machine_source &machine, const std::string &) {
        const post_block block = open_blocks(arguments.place.in(machine), arguments.block).front();
        const std::string bytes = block.expect_bytes();
        write_file(arguments.file, bytes, !arguments.force);
        print_done(record()
                       .add("block", block.name())
                       .add("file", arguments.file)
                       .add("bytes", bytes.size()));
    });
}

record &add_salvaged(record &shown, const post_image &log)
{
    record_set entries = {"entries", {}};
    for (const log_record &slot : log.good_entries()) {
        const post_entry entry = log.entry(slot);
        entries.rows.push_back(record()
                                   .add("history", *slot.history)
                                   .add("position", slot.position)
                                   .add_time("time", entry.time)
                                   .add_message(entry.message));
    }
    shown.add("byte_order", order_of(log)).add(std::move(entries));
    const bool has_log = !log.holds_nothing();
    return add_records(shown, record_rows(has_log ? log.wrong() : std::vector<log_record>()));
}

void salvage_file(const std::string &file)
{
    const std::string bytes = expect_file(file, "'devaccess postlog save' makes one");
    record shown;
    print(add_salvaged(shown.add("file", file), saved_post_image(bytes)));
}

void salvage(const postlog_arguments &arguments)
{
    if (arguments.block.empty() == arguments.file.empty())
        throw usage_error("either BLOCK or --file FILE says what to salvage");
    if (!arguments.file.empty())
        return salvage_file(arguments.file);
    fleet machines(arguments.place.from, archive_part::logs);
    machines.print_each([&](const machine_source &machine, const std::string &) {
        const post_block block = open_blocks(arguments.place.in(machine), arguments.block).front();
        const post_findings found = block.judge(block.expect_bytes());
        record shown;
        return add_salvaged(shown.add("block", block.name()), *found.log);
    });
    machines.finish();
}

//--- command line ---------------------------------------------------------------------------------

option add_block(command &to, postlog_arguments &arguments, const char *meaning)
{
    return to.argument("BLOCK", arguments.block, meaning).one_of(post_block_names);
}

void add_listed(command &to, postlog_arguments &arguments)
{
    add_block(to, arguments, "event, test or error (default: all of them)");
    add_post_place(to, arguments.place);
    add_archives(to, arguments.place.from);
}

void add_shown(command &to, postlog_arguments &arguments)
{
    add_listed(to, arguments);
    to.argument("HISTORY", arguments.history, "Number of the history (default: the newest)");
    to.add_flag("--all", arguments.all, "Show the entries of all histories");
    add_time_span(to, arguments.span);
    add_entry_format(to);
}

void add_checked(command &to, postlog_arguments &arguments)
{
    add_listed(to, arguments);
    to.add_flag("--all", arguments.all, "Show the good records too");
}

void add_saved(command &to, postlog_arguments &arguments)
{
    add_block(to, arguments, "event, test or error").required();
    to.argument("FILE", arguments.file, "File to make").paths().required();
    to.add_flag("--force", arguments.force, "Replace the file if it exists");
    add_post_place(to, arguments.place);
    add_archives(to, arguments.place.from);
}

void add_wanted(command &to, postlog_arguments &arguments)
{
    add_block(to, arguments, "event, test or error");
    const option file =
        to.add_option("--file", "FILE", arguments.file, "Read the saved block FILE instead")
            .paths();
    add_post_place(to, arguments.place);
    add_archives(to, arguments.place.from).excludes(file);
}

} // namespace

void add_post_place(command &to, postlog_place &place)
{
    const option window =
        to.add_option("--pcie", "ID:BAR", place.pcie,
                      "Read through the NVRAM controller in this window of a PCI function");
    to.add_option("--post-dir", "DIRECTORY", place.directory,
                  "Read saved blocks in DIRECTORY instead of the machine's")
        .paths()
        .excludes(window);
}

void describe_postlog(command &postlog)
{
    postlog.add("list", "List the histories of the logs, newest first", add_listed, list);
    postlog.add("show", "Show the entries of a history", add_shown, show);
    postlog.add("check", "Check every index, header and entry of the logs", add_checked, check);
    postlog.add("save", "Save the bytes of a block to a file", add_saved, save);
    postlog.add("salvage", "Show every good entry, whatever index and headers say", add_wanted,
                salvage);
}

} // namespace devaccess

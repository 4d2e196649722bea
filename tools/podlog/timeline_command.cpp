// All logs of a machine, merged by time.
#include "tools/base/errors.h"
#include "tools/cli/options.h"
#include "tools/podlog/podlog_commands.h"
#include "tools/postlog/postlog_commands.h"

#include <algorithm>

#include <fmt/format.h>

namespace devaccess
{
namespace
{

struct timeline_arguments {
    log_place place;
    bool with_post = false;
    postlog_place post;
    time_span span;
};

// Entries within the wanted times, and what is wrong with the logs that they come from.
class timeline
{
public:
    explicit timeline(const time_span &span) : limits_(span.limits()) {}

    void add(const char *log, const std::string &source, int history, time_t time,
             const std::string &message)
    {
        if (!limits_.hold(time))
            return;
        entries_.push_back({time, record()
                                      .add_time("time", time)
                                      .add("log", log)
                                      .add("source", source)
                                      .add("history", history)
                                      .add_message(message)});
    }

    void add_problem(const char *log, const std::string &source, storage_state state,
                     const std::string &problem)
    {
        problems_.rows.push_back(record()
                                     .add("log", log)
                                     .add("source", source)
                                     .add("state", name_of(state))
                                     .add("problem", problem));
        if (status_ != exit_damaged)
            status_ = status_of(state);
    }
    // By the problems; damage counts more than what could not be read.
    exit_status status() const { return status_; }

    // Entries of one moment stay as the logs have them.
    record_set entries()
    {
        std::stable_sort(
            entries_.begin(), entries_.end(),
            [](const entry &one, const entry &other) { return one.time < other.time; });
        record_set set = {"entries", {}};
        for (entry &next : entries_)
            set.rows.push_back(std::move(next.row));
        return set;
    }

    const record_set &problems() const { return problems_; }

private:
    struct entry {
        time_t time;
        record row;
    };
    time_limits limits_;
    std::vector<entry> entries_;
    record_set problems_ = {"problems", {}};
    exit_status status_ = exit_failed;
};

// A card that has never written is no problem: it may not be there.
void add_card(timeline &merged, const log_storage &storage)
{
    const std::string &card = storage.card().name;
    const log_findings found = storage.look();
    const bool is_unused = found.state == storage_state::empty ||
                           (found.state == storage_state::missing && found.advice.empty());
    if (!found.problem.empty() && !is_unused)
        merged.add_problem("pod", card, found.state, printable(found.problem));
    if (!found.log)
        return;
    std::vector<const log_history *> histories = found.log->written();
    std::reverse(histories.begin(), histories.end());
    for (const log_history *history : histories)
        for (const log_record &slot : found.log->chain(*history)) {
            const log_entry entry = found.log->entry(slot);
            merged.add("pod", card, history->number, entry.time, entry.message);
        }
}

void add_block(timeline &merged, const post_block &block)
{
    const post_findings found = block.look();
    if (!found.problem.empty())
        merged.add_problem("post", block.name(), found.state, printable(found.problem));
    if (!found.log)
        return;
    std::vector<const post_history *> histories = found.log->written();
    std::reverse(histories.begin(), histories.end());
    for (const post_history *history : histories)
        for (const log_record &slot : history->chain()) {
            const post_entry entry = found.log->entry(slot);
            merged.add("post", block.name(), history->number, entry.time, entry.message);
        }
}

void show_timeline(const timeline_arguments &arguments)
{
    timeline merged(arguments.span);
    for (const pod_card &card : cards_for_reading())
        add_card(merged, log_storage(arguments.place, card));
    const bool is_pod = !merged.problems().rows.empty();
    if (arguments.with_post)
        for (const post_block &block : open_blocks(arguments.post))
            add_block(merged, block);
    record shown = record().add_hidden("table", table_name());
    const record_set &problems = merged.problems();
    print_entries(add_records(shown, problems), merged.entries());
    if (problems.rows.empty())
        return;
    throw failure(
        "read all of the logs",
        fmt::format("{} of them are damaged or out of reach", problems.rows.size()),
        (is_pod ? podlog_command("check", arguments.place) : arguments.post.command("check")) +
            " tells more",
        0, merged.status());
}

void add_options(command &to, timeline_arguments &arguments)
{
    to.add_flag("--post", arguments.with_post, "Show the entries of the POST logs too");
    add_post_place(to, arguments.post);
    add_time_span(to, arguments.span);
    add_entry_format(to);
    add_nvram(to, arguments.place);
    add_pod_directory(to, arguments.place);
}

} // namespace

void describe_timeline(command &podlog)
{
    podlog.add("timeline", "Show the entries of all cards, merged by time", add_options,
               show_timeline);
}

} // namespace devaccess

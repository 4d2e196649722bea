// All logs of a machine, merged by time.
#include "tools/base/errors.h"
#include "tools/base/settings.h"
#include "tools/cli/options.h"
#include "tools/podlog/journal_format.h"
#include "tools/podlog/podlog_commands.h"
#include "tools/podlog/reading_position.h"
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
    std::string since_last; // the file that remembers
};

// New entries within the wanted times, and what is wrong with the logs that they come from.
class timeline
{
public:
    timeline(const time_span &span, const std::string &since_last)
        : limits_(span.limits()), position_(since_last)
    {
    }

    void add(const char *log, const std::string &source, int history, time_t time,
             const std::string &message)
    {
        const auto taken = position_.take(log + (' ' + source), time, message);
        if (limits_.hold(time) && taken.is_new)
            entries_.push_back({time, log, source, history, message, taken.id});
    }
    // In which state a log is whose entries are added.
    void note_state(const char *log, const std::string &source, storage_state state)
    {
        if (state == storage_state::good || state == storage_state::empty)
            position_.forget_what_is_gone(log + (' ' + source));
    }

    void add_problem(const char *log, const std::string &source, storage_state state,
                     const std::string &problem)
    {
        problems_.rows.push_back(record()
                                     .add("log", log)
                                     .add("source", source)
                                     .add("state", name_of(state))
                                     .add("problem", problem));
        status_ = worse_of(status_, status_of(state));
    }
    // By the worst problem.
    exit_status status() const { return status_; }

    // Entries of one moment stay as the logs have them.
    void sort()
    {
        std::stable_sort(entries_.begin(), entries_.end(),
                         [](const timeline_entry &one, const timeline_entry &other) {
                             return one.time < other.time;
                         });
    }

    record_set as_records() const
    {
        record_set set = {"entries", {}};
        for (const timeline_entry &entry : entries_)
            set.rows.push_back(record()
                                   .add_time("time", entry.time)
                                   .add("log", entry.log)
                                   .add("source", entry.source)
                                   .add("history", entry.history)
                                   .add_message(entry.message));
        return set;
    }

    std::string for_journal() const
    {
        std::string text;
        for (const timeline_entry &entry : entries_)
            text += journal_entry(entry);
        return text;
    }

    // What has been printed is not new any more.
    void remember() const { position_.save(); }

    const record_set &problems() const { return problems_; }

private:
    time_limits limits_;
    reading_position position_;
    std::vector<timeline_entry> entries_;
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
    merged.note_state("pod", card, found.state);
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
    merged.note_state("post", block.name(), found.state);
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
    if (!arguments.since_last.empty() && !arguments.span.until.empty())
        throw usage_error("--since-last reads up to the last entry; --until does not go with it");
    timeline merged(arguments.span, arguments.since_last);
    for (const pod_card &card : cards_for_reading())
        add_card(merged, log_storage(arguments.place, card));
    const bool is_pod = !merged.problems().rows.empty();
    if (arguments.with_post)
        for (const post_block &block : open_blocks(arguments.post))
            add_block(merged, block);
    record shown = record().add_hidden("table", table_name());
    const record_set &problems = merged.problems();
    merged.sort();
    if (settings.entries_as == "export")
        print_text(merged.for_journal());
    else
        print_entries(add_records(shown, problems), merged.as_records());
    finish_output();
    merged.remember();
    if (problems.rows.empty())
        return;
    throw failure(
        "read all of the logs",
        fmt::format("{} of them are damaged or unreadable", problems.rows.size()),
        (is_pod ? podlog_command("check", arguments.place) : arguments.post.command("check")) +
            " tells more",
        0, merged.status());
}

void add_options(command &to, timeline_arguments &arguments)
{
    to.add_flag("--post", arguments.with_post, "Show the entries of the POST logs too");
    add_post_place(to, arguments.post);
    add_time_span(to, arguments.span);
    to.add_option("--since-last", "FILE", arguments.since_last,
                  "Only entries that no earlier run with this FILE has printed")
        .paths();
    add_timeline_format(to);
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

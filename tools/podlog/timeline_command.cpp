// All logs of a machine, merged by time.
#include "tools/base/errors.h"
#include "tools/base/settings.h"
#include "tools/base/time_sorter.h"
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
    timeline(const fleet &machines, const time_span &span, const std::string &since_last)
        : machines_(machines), limits_(span.limits()), position_(since_last),
          needs_ids_(!since_last.empty() || settings.entries_as == "export")
    {
    }

    // What is added next is of this machine.
    void begin(const machine_source &machine, const std::string &host)
    {
        host_ = machine.is_archive() ? host : "";
        position_.begin_machine();
    }

    void add(const char *log, const std::string &source, int history, time_t time,
             const std::string &message)
    {
        const auto taken = needs_ids_ ? position_.take(position_of(log, source), time, message)
                                      : reading_position::taken_entry{true, ""};
        if (!limits_.hold(time) || !taken.is_new)
            return;
        const timeline_entry entry = {time, log, source, history, message, taken.id, host_};
        printer_.measure(row(entry));
        sorter_.add(time, packed(entry));
    }
    // In which state a log is whose entries are added.
    void note_state(const char *log, const std::string &source, storage_state state)
    {
        if (state == storage_state::good || state == storage_state::empty)
            position_.forget_what_is_gone(position_of(log, source));
    }

    void add_problem(const char *log, const std::string &source, storage_state state,
                     const std::string &problem)
    {
        problems_.rows.push_back(machines_.row(host_)
                                     .add("log", log)
                                     .add("source", source)
                                     .add("state", name_of(state))
                                     .add("problem", problem));
        status_ = worse_of(status_, status_of(state));
    }
    // By the worst problem.
    exit_status status() const { return status_; }

    // Entries of one moment stay as the logs have them.
    void print(const record &about)
    {
        printer_.begin(about);
        sorter_.for_each([&](int64_t time, const std::string &item) {
            printer_.print(row(unpacked(time, item)));
        });
        printer_.end();
    }

    void print_for_journal()
    {
        sorter_.for_each([&](int64_t time, const std::string &item) {
            print_text(journal_entry(unpacked(time, item)));
        });
    }

    // What has been printed is not new any more.
    void remember() const { position_.save(); }

    const record_set &problems() const { return problems_; }

private:
    std::string position_of(const char *log, const std::string &source) const
    {
        return host_ + (host_.empty() ? "" : " ") + log + ' ' + source;
    }

    // Texts end with a NUL, as the message does.
    static std::string packed(const timeline_entry &entry)
    {
        std::string item = entry.host + '\0' + entry.source + '\0' + entry.id + '\0';
        item += static_cast<char>(entry.history);
        item += entry.log == std::string_view("pod") ? 'd' : 't';
        return item + entry.message.substr(0, entry.message.find('\0'));
    }
    static timeline_entry unpacked(int64_t time, const std::string &item)
    {
        timeline_entry entry = {};
        entry.time = static_cast<time_t>(time);
        size_t at = 0;
        for (std::string *part : {&entry.host, &entry.source, &entry.id}) {
            *part = item.c_str() + at;
            at += part->size() + 1;
        }
        entry.history = static_cast<unsigned char>(item[at]);
        entry.log = item[at + 1] == 'd' ? "pod" : "post";
        entry.message = item.substr(at + 2);
        return entry;
    }

    record row(const timeline_entry &entry) const
    {
        return machines_.row(entry.host)
            .add_time("time", entry.time)
            .add("log", entry.log)
            .add("source", entry.source)
            .add("history", entry.history)
            .add_message(entry.message);
    }

    const fleet &machines_;
    time_limits limits_;
    reading_position position_;
    bool needs_ids_;
    std::string host_; // of an archive
    time_sorter sorter_;
    entry_printer printer_;
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

// Adds all logs of a machine; the command that tells more, if something is wrong with one.
std::string add_machine(timeline &merged, const timeline_arguments &arguments,
                        const machine_source &machine)
{
    const log_place place = arguments.place.in(machine);
    const postlog_place post = arguments.post.in(machine);
    const size_t before = merged.problems().rows.size();
    for (const pod_card &card : cards_of(machine))
        add_card(merged, log_storage(place, card));
    const bool is_pod = merged.problems().rows.size() > before;
    if (arguments.with_post)
        for (const post_block &block : open_blocks(post))
            add_block(merged, block);
    return merged.problems().rows.size() == before ? ""
           : is_pod                                ? podlog_command("check", place)
                                                   : post.command("check");
}

void show_timeline(const timeline_arguments &arguments)
{
    if (!arguments.since_last.empty() && !arguments.span.until.empty())
        throw usage_error("--since-last reads up to the last entry; --until does not go with it");
    fleet machines(arguments.place.from, archive_part::logs);
    timeline merged(machines, arguments.span, arguments.since_last);
    std::string table;
    std::string hint; // of the first problem
    machines.for_each([&](const machine_source &machine, const std::string &host) {
        merged.begin(machine, host);
        table = table_of(machine);
        const std::string tells_more = add_machine(merged, arguments, machine);
        hint = hint.empty() ? tells_more : hint;
    });
    record shown = record().add_hidden("table", table);
    const record_set &problems = merged.problems();
    if (settings.entries_as == "export")
        merged.print_for_journal();
    else
        merged.print(add_records(shown, problems));
    finish_output();
    merged.remember();
    machines.finish();
    if (!problems.rows.empty())
        throw failure("read all of the logs",
                      fmt::format("{} of them are damaged or unreadable", problems.rows.size()),
                      hint + " tells more", 0, merged.status());
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
    add_archives(to, arguments.place.from);
}

} // namespace

void describe_timeline(command &podlog)
{
    podlog.add("timeline", "Show the entries of all cards, merged by time", add_options,
               show_timeline);
}

} // namespace devaccess

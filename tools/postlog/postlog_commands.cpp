#include "tools/base/captured_call.h"
#include "tools/base/output.h"
#include "tools/base/times.h"
#include "tools/cli/completion.h"
#include "tools/postlog/reader.h"

#include <optional>

namespace devaccess
{
namespace
{

struct postlog_arguments {
    std::string block;
    std::string history;
    postlog_place place;
    time_span span;
    bool all = false;
};

// Does this for each wanted block, and tells of the first failure at the end.
class each_block
{
public:
    explicit each_block(const postlog_arguments &arguments)
        : blocks_(open_blocks(arguments.place, arguments.block))
    {
    }

    template <typename Work>
    void operator()(Work work)
    {
        for (const post_block &block : blocks_) {
            try {
                work(block);
            } catch (const failure &failed) {
                first_ = first_ ? first_ : failed;
            }
        }
    }

    void expect_all() const
    {
        if (first_)
            throw *first_;
    }

private:
    std::vector<post_block> blocks_;
    std::optional<failure> first_;
};

record about(const postlog_arguments &arguments)
{
    return record().add_hidden("block", arguments.block.empty() ? json() : json(arguments.block));
}

void list(const postlog_arguments &arguments)
{
    record_set set = {"histories", {}};
    each_block each(arguments);
    each([&](const post_block &block) {
        for (const post_block::history &history : block.histories())
            set.rows.push_back(record()
                                   .add("block", block.name())
                                   .add("history", history.number)
                                   .add_time("time", history.time));
    });
    print(about(arguments).add(std::move(set)));
    each.expect_all();
}

// Oldest first.
std::vector<int> wanted_histories(const postlog_arguments &arguments, const post_block &block)
{
    if (!arguments.history.empty())
        return {static_cast<int>(parse_number("the history", arguments.history, INT32_MAX))};
    std::vector<int> numbers;
    for (const post_block::history &history : block.histories()) {
        numbers.insert(numbers.begin(), history.number);
        if (!arguments.all)
            break;
    }
    return numbers;
}

void show(const postlog_arguments &arguments)
{
    if (arguments.all && !arguments.history.empty())
        throw usage_error("either HISTORY or --all says which histories to show");
    const time_limits limits = arguments.span.limits();
    record_set entries = {"entries", {}};
    std::optional<int> only; // the one history that is shown
    each_block each(arguments);
    each([&](const post_block &block) {
        for (const int history : wanted_histories(arguments, block)) {
            only = arguments.block.empty() || arguments.all ? only : history;
            block.read(history, [&](time_t time, const std::string &message) {
                if (limits.hold(time))
                    entries.rows.push_back(record()
                                               .add("block", block.name())
                                               .add("history", history)
                                               .add_time("time", time)
                                               .add_message(message));
            });
        }
    });
    if (entries.rows.empty())
        each.expect_all();
    print_entries(about(arguments).add_hidden("history", if_any(only)), std::move(entries));
    each.expect_all();
}

} // namespace

void add_postlog_commands(CLI::App &program)
{
    command_family<postlog_arguments> postlog(program, "postlog", "POST logs of the firmware");
    const auto &arguments = postlog.arguments;
    const auto add = [&](const char *name, const char *description,
                         command_family<postlog_arguments>::action act) {
        CLI::App *command = postlog.add(name, description, act);
        one_of(command->add_option("BLOCK", arguments->block,
                                   "event, test or error; without it, all of them"),
               post_block_names);
        return command;
    };
    CLI::App *listed = add("list", "List the logs' histories, newest first", list);
    CLI::App *shown = add("show", "Show the entries of a history", show);
    shown->add_option("HISTORY", arguments->history, "its number; without it, the newest");
    shown->add_flag("--all", arguments->all, "of all histories");
    arguments->span.add_options(*shown);
    add_entry_format(*shown);
    for (CLI::App *app : {&postlog.app, listed, shown})
        arguments->place.add_options(*app);
}

} // namespace devaccess

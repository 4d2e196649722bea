// POST logs: postlog list, show.
#include "tools/postlog/postlog_commands.h"

#include "tools/base/errors.h"
#include "tools/base/numbers.h"
#include "tools/base/output.h"
#include "tools/base/times.h"
#include "tools/cli/options.h"

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
    return record().add_hidden("block", text_or_null(arguments.block));
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
    print_entries(about(arguments).add_hidden("history", only), std::move(entries));
    each.expect_all();
}

void add_listed(command &to, postlog_arguments &arguments)
{
    to.argument("BLOCK", arguments.block, "event, test or error (default: all of them)")
        .one_of(post_block_names);
    add_post_place(to, arguments.place);
}

void add_shown(command &to, postlog_arguments &arguments)
{
    add_listed(to, arguments);
    to.argument("HISTORY", arguments.history, "Number of the history (default: the newest)");
    to.add_flag("--all", arguments.all, "Show the entries of all histories");
    add_time_span(to, arguments.span);
    add_entry_format(to);
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
}

} // namespace devaccess

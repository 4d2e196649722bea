// devaccess check, and pci check: whether machines are healthy.
#include "tools/base/errors.h"
#include "tools/base/fleet.h"
#include "tools/base/settings.h"
#include "tools/cli/options.h"
#include "tools/machine/findings.h"
#include "tools/machine/machine_commands.h"

#include <algorithm>

#include <fmt/format.h>

namespace devaccess
{
namespace
{

struct check_arguments {
    archive_names from;
    std::string against;
    std::vector<std::string> ignored;
};

// Findings of several machines, as they are printed.
class findings_printer
{
public:
    findings_printer(const check_arguments &arguments, const fleet &machines)
        : arguments_(arguments), machines_(machines)
    {
    }

    void add(const std::string &host, const std::vector<finding> &findings)
    {
        for (const finding &one : findings) {
            if (std::find(arguments_.ignored.begin(), arguments_.ignored.end(), one.id) !=
                arguments_.ignored.end()) {
                ++ignored_;
                continue;
            }
            ++counts_[static_cast<size_t>(one.level)];
            const std::string reason = printable(one.reason);
            const std::string next = printable(one.next);
            found_.rows.push_back(machines_.row(host)
                                      .add("severity", one.level_name())
                                      .add("finding", one.id)
                                      .add("subject", text_or_null(one.subject))
                                      .add("reason", reason)
                                      .add("next", next));
            text_ += fmt::format("{}{}: {}\n    {}\n    next: {}\n",
                                 machines_.has_several() ? host + ": " : "", one.level_name(),
                                 one.id, reason, next);
        }
    }

    void print_all()
    {
        record shown;
        shown.add("machines", machines_.size())
            .add("errors", counts_[0])
            .add("warnings", counts_[1])
            .add("unread", counts_[2])
            .add("ignored", ignored_);
        if (settings.as_json)
            print(shown.add(std::move(found_)));
        else
            print_text(text_.empty() ? "no findings\n" : text_);
    }

    // Findings count more than what could not be read.
    int status() const
    {
        return counts_[0] + counts_[1] > 0 ? exit_damaged
               : counts_[2] > 0            ? exit_unreadable
                                           : exit_done;
    }

private:
    const check_arguments &arguments_;
    const fleet &machines_;
    std::string text_; // for people
    record_set found_ = {"findings", {}};
    size_t counts_[3] = {};
    size_t ignored_ = 0;
};

template <model_part part, auto judge>
void check(const check_arguments &arguments)
{
    std::optional<machine_model> reference;
    if (!arguments.against.empty())
        reference.emplace(archived_machine(arguments.against, archive_part::all), part);
    fleet machines(arguments.from);
    findings_printer printer(arguments, machines);
    machines.for_each([&](const machine_source &machine, const std::string &host) {
        printer.add(host, judge(machine_model(machine, part), reference ? &*reference : nullptr));
    });
    printer.print_all();
    machines.finish(printer.status());
}

void add_check_options(command &to, check_arguments &arguments)
{
    add_archives(to, arguments.from);
    to.add_option("--against", "ARCHIVE", arguments.against,
                  "Compare with an archive of a machine that was good")
        .paths();
    to.add_option("--ignore", "FINDING", arguments.ignored,
                  "Leave out the finding of this name; may be given several times");
}

} // namespace

void describe_check(command &to)
{
    to.takes(add_check_options, check<model_part::all, find_wrong>);
}

void describe_link_check(command &pci)
{
    pci.add("check", "Judge the links and the errors that functions count", add_check_options,
            check<model_part::functions, find_wrong_links>);
}

} // namespace devaccess

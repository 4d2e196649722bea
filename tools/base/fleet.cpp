// Goes through machines, and tells of those that cannot be read.
#include "tools/base/fleet.h"

#include "tools/base/settings.h"

#include <filesystem>

#include <fmt/format.h>

namespace devaccess
{
namespace
{

namespace fs = std::filesystem;

std::vector<std::string> files_in(const std::string &directory)
{
    std::vector<std::string> files;
    std::error_code wrong;
    for (const auto &entry : fs::directory_iterator(directory, wrong))
        if (std::error_code none; !entry.is_directory(none))
            files.push_back(entry.path());
    if (wrong)
        throw failure("read the directory " + directory, wrong.message(), "is the name right?",
                      wrong.value(), exit_unreadable);
    if (files.empty())
        throw failure("read the directory " + directory, "there are no archives in it",
                      "'devaccess collect' makes one", 0, exit_unreadable);
    std::sort(files.begin(), files.end());
    return files;
}

} // namespace

fleet::fleet(const archive_names &from, archive_part part) : part_(part)
{
    for (const std::string &name : from) {
        std::error_code none;
        if (!fs::is_directory(name, none)) {
            files_.push_back(name);
            continue;
        }
        const auto found = files_in(name);
        files_.insert(files_.end(), found.begin(), found.end());
    }
}

std::string fleet::label_of(const machine_source &machine)
{
    const fs::path file = machine.archive();
    const std::string &host = machine.facts().host;
    for (const std::string &label :
         {host, fmt::format("{} ({})", host, printable(file.filename()))})
        if (labels_.insert(label).second)
            return label;
    return fmt::format("{} ({})", host, printable(file));
}

void fleet::work_on(const std::string &file,
                    const std::function<void(const machine_source &, const std::string &)> &work)
{
    std::string host = file;
    try {
        const archived_machine machine(file, part_);
        host = label_of(machine);
        work(machine, host);
    } catch (const failure &failed) {
        if (!has_several())
            throw;
        remember(host, failed);
    }
}

void fleet::remember(const std::string &host, const failure &failed)
{
    if (!has_several()) {
        const exit_status so_far = first_ ? first_->status : exit_failed;
        first_ = first_ ? first_ : failed;
        first_->status = worse_of(so_far, failed.status);
        return;
    }
    const std::string text = failed.what();
    const bool names_it = text.find(host) != text.npos;
    print_failure("devaccess", names_it ? text : host + ": " + text, failed.hint, failed.error);
    status_ = std::max<int>(status_, failed.status);
}

void fleet::for_each(
    const std::function<void(const machine_source &, const std::string &host)> &work)
{
    if (files_.empty())
        work(this_machine(), this_machine().facts().host);
    for (const std::string &file : files_)
        work_on(file, work);
}

record fleet::row(const std::string &host) const
{
    record made;
    return has_several() ? made.add("host", host) : made;
}

void fleet::print_each(
    const std::function<record(const machine_source &, const std::string &host)> &say)
{
    record_set all = {"machines", {}};
    for_each([&](const machine_source &machine, const std::string &host) {
        record shown = row(host);
        shown.append(say(machine, host));
        if (has_several() && settings.as_json)
            all.rows.push_back(std::move(shown));
        else
            print(shown);
    });
    if (!all.rows.empty())
        print(std::move(all));
}

void fleet::expect_one() const
{
    if (has_several())
        throw usage_error("its output is of one machine: --from takes one archive here");
}

void fleet::finish(int status) const
{
    if (first_)
        throw *first_;
    if (std::max(status, status_) != exit_done)
        throw ends_with{std::max(status, status_)};
}

} // namespace devaccess

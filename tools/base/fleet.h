// The machines that a reading command is asked about: this one, or those of its --from options, one
// after another.
#pragma once

#include "tools/base/archived_machine.h"
#include "tools/base/errors.h"
#include "tools/base/output.h"

#include <algorithm>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace devaccess
{

// Archives, and directories of archives.
using archive_names = std::vector<std::string>;

// Ends the program with this status; what there is to say has been said.
struct ends_with {
    int status;
};

class fleet
{
public:
    // Without archives it is this machine.
    explicit fleet(const archive_names &from, archive_part part = archive_part::all);

    bool has_several() const { return files_.size() > 1; }
    size_t size() const { return std::max<size_t>(files_.size(), 1); }

    // Does the work for each; only one archive is in memory at a time. An archive that cannot be
    // read is a line on standard error, and the others go on. A failure of the work is told with
    // the host, and counts as well.
    void for_each(const std::function<void(const machine_source &, const std::string &host)> &work);

    // A row for the machine of this name, with the host where there are several.
    record row(const std::string &host) const;

    // Prints what there is to say of each; as JSON, that of several is one array.
    void
    print_each(const std::function<record(const machine_source &, const std::string &host)> &say);

    // For output that cannot be of several.
    void expect_one() const;

    // What fails is told after the output.
    template <typename Check>
    void expect(const std::string &host, Check check)
    {
        try {
            check();
        } catch (const failure &failed) {
            remember(host, failed);
        }
    }

    // After the output: fails, or ends with a status, when something could not be done.
    void finish(int status = exit_done) const;

private:
    void work_on(const std::string &file,
                 const std::function<void(const machine_source &, const std::string &)> &work);
    std::string label_of(const machine_source &machine);
    void remember(const std::string &host, const failure &failed);

    archive_part part_;
    std::vector<std::string> files_;
    std::set<std::string> labels_;
    std::optional<failure> first_; // of the only machine
    int status_ = exit_done;
};

} // namespace devaccess

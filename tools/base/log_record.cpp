// Names and shows the records of logs.
#include "tools/base/log_record.h"

#include <fmt/format.h>

namespace devaccess
{

std::string log_record::name() const
{
    if (!history)
        return kind;
    return entry ? fmt::format("entry {} of history {}", *entry, *history)
                 : fmt::format("header of history {}", *history);
}

void refuse(log_record &record, const std::string &problem)
{
    if (record.state != record_state::good)
        return;
    record.state = record_state::bad;
    record.problem = problem;
}

record record_row(const log_record &what)
{
    record row;
    const auto add_sum = [&](const char *name, const std::optional<uint32_t> &sum) {
        row.add(name, sum, sum ? hex(*sum, 8) : "-");
    };
    row.add("record", what.kind)
        .add("history", what.history)
        .add("entry", what.entry)
        .add("position", what.position);
    add_sum("stored", what.stored);
    add_sum("computed", what.computed);
    return row.add("good", what.state == record_state::good)
        .warn_if(what.state == record_state::bad)
        .add("problem", text_or_null(what.problem));
}

record_set record_rows(const std::vector<log_record> &records)
{
    record_set set = {"records", {}};
    for (const log_record &what : records)
        set.rows.push_back(record_row(what));
    return set;
}

} // namespace devaccess

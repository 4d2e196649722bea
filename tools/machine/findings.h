// What is wrong with a machine, as far as the tool can judge it.
#pragma once

#include "tools/base/output.h"
#include "tools/machine/model.h"

#include <string>
#include <vector>

namespace devaccess
{

enum class finding_level {
    error,
    warning,
    unread, // it could not be read, so nobody knows
};

struct finding {
    finding_level level;
    std::string id;      // the same in every run, after a restart and with other bus numbers too
    std::string subject; // the function, node or log that it is about, as other commands name it
    std::string reason;
    std::string next; // the command that tells or does more

    const char *level_name() const;
};

// Worst first. With a reference, a machine that was good, what it had and this one lacks is wrong
// too, and only those errors count that came since.
std::vector<finding> find_wrong(const machine_model &machine, const machine_model *reference);
// Of links, and of the errors that functions count, alone.
std::vector<finding> find_wrong_links(const machine_model &machine, const machine_model *reference);

// The value of a register by its name; nothing where the function has none.
std::optional<uint32_t> register_value(const config_space &config, const char *name);

} // namespace devaccess

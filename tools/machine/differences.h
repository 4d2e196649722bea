// What is different between two machines, or between two looks at one.
#pragma once

#include "tools/machine/model.h"

#include <string>
#include <vector>

namespace devaccess
{

struct difference {
    std::string kind;  // "function", "link", "register", "errors", "log", "entry", ...
    std::string where; // the key of a function, the name of a log, and the like
    std::string what;  // a field, or empty: the thing as a whole
    std::string before;
    std::string after;
    bool is_worse; // than before
};

// In the order of functions, links, registers, errors, nodes, cards, logs, entries, settings.
std::vector<difference> differences(const machine_model &before, const machine_model &after);

} // namespace devaccess

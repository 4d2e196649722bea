#pragma once

#include <sstream>
#include <string>

namespace test_support
{

// Diagnostic lines without what may change: each prefix "OPENING LEVEL UNIT LINE:FUNCTION(): "
// (without the blanks) becomes "LEVEL FUNCTION: ".
inline std::string diagnostics(const std::string &output, const std::string &opening,
                               const std::string &unit)
{
    std::istringstream lines(output);
    std::string result;
    for (std::string line; std::getline(lines, line); result += line + "\n") {
        const size_t level_end = line.find(unit);
        const size_t number = level_end + unit.size();
        const size_t function = line.find_first_not_of("0123456789", number) + 1;
        const size_t message = line.find("(): ");
        if (line.rfind(opening, 0) != 0 || level_end == std::string::npos ||
            function <= number + 1 || message == std::string::npos)
            continue;
        line = line.substr(opening.size(), level_end - opening.size()) + " " +
               line.substr(function, message - function) + ": " + line.substr(message + 4);
    }
    return result;
}

} // namespace test_support

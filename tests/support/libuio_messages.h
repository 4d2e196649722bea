#pragma once

#include <sstream>
#include <string>

namespace test_support
{

// libuio's diagnostics without what may change: each prefix
// "log[LEVEL]: lib/device_access/libuio:LINE:FUNCTION(): " becomes "LEVEL FUNCTION: ".
inline std::string libuio_messages(const std::string &output)
{
    static const std::string unit = "]: lib/device_access/libuio:";
    std::istringstream lines(output);
    std::string result;
    for (std::string line; std::getline(lines, line); result += line + "\n") {
        const size_t level_end = line.find(unit);
        const size_t number = level_end + unit.size();
        const size_t function = line.find_first_not_of("0123456789", number) + 1;
        const size_t message = line.find("(): ");
        if (line.rfind("log[", 0) != 0 || level_end == std::string::npos ||
            function <= number + 1 || message == std::string::npos)
            continue;
        line = line.substr(4, level_end - 4) + " " + line.substr(function, message - function) +
               ": " + line.substr(message + 4);
    }
    return result;
}

} // namespace test_support

// What the command line says to every command.
#pragma once

#include <string>

namespace devaccess
{

struct program_settings {
    bool as_json = false;
    bool verbose = false;
    bool local_time = false;
    std::string colour = "auto"; // or "always", "never"
    std::string entries_as;      // "jsonl", "csv", "export"; empty: as all else
    std::string chassis;         // "n20", "n10", "n4"; empty: not said
    bool is_rp2 = false;
};
extern program_settings settings;

inline constexpr char chassis_variable[] = "DEVACCESS_CHASSIS";
inline constexpr const char *chassis_types[] = {"n20", "n10", "n4"};

// One of the types or empty: what the command line says or else the environment.
std::string chassis_type();

} // namespace devaccess

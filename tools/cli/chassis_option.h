// Which chassis this is: --chassis, before or behind the command, or the environment.
#pragma once

#include <CLI/CLI.hpp>

#include <string>

namespace devaccess
{

inline constexpr char chassis_variable[] = "DEVACCESS_CHASSIS";

void add_chassis_options(CLI::App &app);

// "n20", "n10", "n4", or empty.
std::string chassis_type();

} // namespace devaccess

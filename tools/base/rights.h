// Which right a process lacks.
#pragma once

#include <optional>
#include <string>

namespace devaccess
{

// What the process lacks, when an error (by its number, or by its text in what the library said) is
// one of rights.
std::optional<std::string> missing_right(const std::string &reason, int error);

} // namespace devaccess

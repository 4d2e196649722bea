// All commands of devaccess, by the first word of their line.
#pragma once

#include "tools/cli/command.h"

#include <span>

namespace devaccess
{

extern const std::span<const command_family> command_families;

} // namespace devaccess

// From the words of the command line to the command that they name.
#pragma once

#include "tools/cli/command.h"

#include <span>

namespace devaccess
{

// What main does: runs the command that the arguments are, and answers with the exit status.
int run_program(std::span<const command_family> families, int argc, char **argv);

} // namespace devaccess

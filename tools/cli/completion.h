// Words that can stand in a place of the command line, for shells.
#pragma once

#include "tools/cli/command_tree.h"

#include <string>
#include <vector>

namespace devaccess
{

// Commands below this one, and the options that it has or inherits.
std::vector<std::string> command_names(const CLI::App &command);
std::vector<std::string> option_names(const CLI::App *command);

// Prints what can stand in the place of the last word, a line each, with its description after a
// tab; any_path stands for paths.
void complete(command_tree &tree, const std::vector<std::string> &words);

} // namespace devaccess

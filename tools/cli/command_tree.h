// The commands that a line can name, as CLI11 parses them.
#pragma once

#include "tools/cli/command.h"

#include <CLI/CLI.hpp>

#include <span>
#include <string>
#include <vector>

namespace devaccess
{

class command_tree
{
public:
    // What the words name; below the last that they name, all commands by name and description.
    command_tree(std::span<const command_family> families, const std::vector<std::string> &words);
    // All, whole.
    explicit command_tree(std::span<const command_family> families);
    command_tree(const command_tree &) = delete;
    command_tree &operator=(const command_tree &) = delete;

    CLI::App &program() { return program_; }
    const choosers &values() const { return notes_.values; }

private:
    void describe_program(std::span<const command_family> families);
    CLI::App &add(CLI::App &parent, const listed_command &below);
    void add_all(CLI::App &parent);

    command_notes notes_;
    CLI::App program_;
};

// An option of the command, or of those that it belongs to.
const CLI::Option *find_option(const CLI::App *command, const std::string &name);

// All commands right below this one.
std::vector<const CLI::App *> commands_below(const CLI::App &command);

} // namespace devaccess

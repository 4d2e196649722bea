// The commands that a line can name, and the one that it does name, as CLI11 parses them.
#pragma once

#include "tools/cli/command.h"

#include <CLI/CLI.hpp>

#include <memory>
#include <span>
#include <string>
#include <vector>

namespace devaccess
{

// All commands, for help, for completion and for what is wrong with a line.
class command_tree
{
public:
    explicit command_tree(std::span<const command_family> families);
    command_tree(const command_tree &) = delete;
    command_tree &operator=(const command_tree &) = delete;

    CLI::App &program() { return program_; }
    const choosers &values() const { return notes_.values; }

private:
    void add_below(CLI::App &parent);

    command_notes notes_;
    CLI::App program_;
};

// The one command that the first words name, without help: to describe all of them takes longer
// than most commands do.
class named_command
{
public:
    // Takes the words that name it off the line.
    named_command(std::span<const command_family> families, std::vector<std::string> &words);

    // "devaccess pci read"
    const std::string &name() const { return name_; }
    // Parses the rest of the line and runs the command. Throws one of CLI::Error if the line is not
    // one that the command takes.
    void run(std::vector<std::string> words);

private:
    // Without CLI11's option for help.
    struct parser : CLI::App {
        parser() : CLI::App({}, {}, nullptr) {}
    };

    std::string name_ = "devaccess";
    command_notes notes_;
    std::unique_ptr<parser> parser_ = std::make_unique<parser>();
};

// An option of the command, or of those that it belongs to.
const CLI::Option *find_option(const CLI::App *command, const std::string &name);

// All commands right below this one.
std::vector<const CLI::App *> commands_below(const CLI::App &command);

} // namespace devaccess

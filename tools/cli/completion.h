// The tree of commands, of which CLI11 parses and describes the command line and the completion
// proposes words.
#pragma once

#include <CLI/CLI.hpp>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace devaccess
{

void add_pci_commands(CLI::App &program);
void add_uio_commands(CLI::App &program);
void add_mem_commands(CLI::App &program);
void add_podlog_commands(CLI::App &program);
void add_postlog_commands(CLI::App &program);
void add_inventory_commands(CLI::App &program);
void add_collect_command(CLI::App &program);
void add_metrics_command(CLI::App &program);

// The command that the line names behind its family's, if any: a family need add no other.
extern std::string named_command;

// Commands that share their arguments.
template <typename Arguments>
class command_family
{
public:
    using action = void (*)(const Arguments &);

    command_family(CLI::App &parent, const std::string &name, const std::string &description)
        : command_family(parent, name, description, std::make_shared<Arguments>())
    {
    }

    command_family(CLI::App &parent, const std::string &name, const std::string &description,
                   std::shared_ptr<Arguments> shared)
        : arguments(std::move(shared)), app(*parent.add_subcommand(name, description))
    {
        app.require_subcommand(1);
    }

    struct entry {
        const char *name;
        const char *description;
        action act;
        void (*add_options)(CLI::App &command, Arguments &arguments);
    };

    // Adds the one that the line names, or all; true when it is all.
    template <size_t Count>
    bool add(const entry (&commands)[Count])
    {
        const auto named = [](const entry &command) { return named_command == command.name; };
        const bool all = std::none_of(commands, commands + Count, named);
        for (const entry &command : commands)
            if (all || named(command))
                command.add_options(*add(command.name, command.description, command.act),
                                    *arguments);
        return all;
    }

    CLI::App *add(const std::string &name, const std::string &description, action act)
    {
        CLI::App *command = app.add_subcommand(name, description);
        command->callback([shared = arguments, act] { act(*shared); });
        return command;
    }

    const std::shared_ptr<Arguments> arguments;
    CLI::App &app;
};

//--- completion -----------------------------------------------------------------------------------

// Options on the line so far, by name, "--chassis".
using given_options = std::map<std::string, std::string>;
using chooser = std::function<std::vector<std::string>(const given_options &)>;

// What an option or argument can be, for the completion; a path, or one of these words, for the
// parser too. None can be empty, as a script's variable can: no card, say, would mean all of them.
CLI::Option *offer(CLI::Option *option, chooser choices);
CLI::Option *offer_paths(CLI::Option *option);
CLI::Option *one_of(CLI::Option *option, const std::vector<std::string> &words);

// The option that prints entries of logs as JSON lines or CSV.
void add_entry_format(CLI::App &app);

// What can stand behind a command, and the options that it has or inherits.
std::vector<std::string> command_names(const CLI::App &command);
std::vector<std::string> option_names(const CLI::App *command);

// Prints what can stand in the place of the last word, a line each, with its description behind a
// tab; ":paths" stands for paths.
void complete(CLI::App &program, const std::vector<std::string> &words);

// For a new tree.
void forget_offers();

} // namespace devaccess

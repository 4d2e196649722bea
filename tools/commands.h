// The families of commands; each adds its subcommands to the program's command line.
#pragma once

#include <CLI/CLI.hpp>

#include <memory>
#include <string>

namespace devaccess
{

void add_pci_commands(CLI::App &program);
void add_uio_commands(CLI::App &program);
void add_podlog_commands(CLI::App &program);
void add_postlog_commands(CLI::App &program);
void add_inventory_commands(CLI::App &program);

// A command: its description, and what it does with the arguments once all are known.
template <typename Arguments>
CLI::App *add_command(CLI::App &family, const std::string &name, const std::string &description,
                      const std::shared_ptr<Arguments> &arguments,
                      void (*action)(const Arguments &))
{
    CLI::App *command = family.add_subcommand(name, description);
    command->callback([arguments, action] { action(*arguments); });
    return command;
}

} // namespace devaccess

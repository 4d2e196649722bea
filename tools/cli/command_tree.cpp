// Builds all commands, or the one that a line needs.
#include "tools/cli/command_tree.h"

#include "tools/cli/options.h"

#include <algorithm>

namespace devaccess
{

namespace
{

void add_families(command &program, std::span<const command_family> families)
{
    for (const command_family &family : families)
        program.add_family(family.name, family.description, family.describe);
}

} // namespace

command_tree::command_tree(std::span<const command_family> families)
{
    program_.name("devaccess");
    program_.description("Reach a modular chassis's hardware through its hardware-access library.");
    program_.require_subcommand(1);
    program_.fallthrough();
    program_.set_version_flag("-V,--version", "devaccess " DEVICE_ACCESS_VERSION);
    command program(program_, notes_);
    add_common_options(program);
    program.footer("Also --json, --verbose and others; see devaccess --help."); // of every command
    add_families(program, families);
    add_below(program_);
    program.footer(
        "Numbers are decimal or, after 0x, hexadecimal.\n"
        "Exit status: 0 done, 1 failed, 2 the command line is wrong, 3 damage was found,\n"
        "4 something could not be read.\n"
        "Examples:\n"
        "  devaccess pci list\n"
        "  devaccess pci read 0000:03:00.0 0x10 --json\n"
        "  devaccess podlog show RPSW1 --chassis n20");
}

void command_tree::add_below(CLI::App &parent)
{
    for (const listed_command &below : std::vector(notes_.listed[&parent])) {
        CLI::App &added = *parent.add_subcommand(below.name, below.description);
        command described(added, notes_);
        below.describe(described);
        add_below(added);
    }
}

named_command::named_command(std::span<const command_family> families,
                             std::vector<std::string> &words)
{
    parser_->require_subcommand(1);
    command program(*parser_, notes_);
    add_families(program, families);
    auto word = words.begin();
    for (; word != words.end(); ++word) {
        std::vector<listed_command> below = std::move(notes_.listed[parser_.get()]);
        const auto named = std::find_if(below.begin(), below.end(),
                                        [&](const auto &one) { return one.name == *word; });
        if (named == below.end())
            break;
        parser_ = std::make_unique<parser>();
        command described(*parser_, notes_);
        named->describe(described);
        name_ += ' ' + *word;
    }
    words.erase(words.begin(), word);
}

void named_command::run(std::vector<std::string> words)
{
    std::reverse(words.begin(), words.end());
    parser_->parse(std::move(words));
}

const CLI::Option *find_option(const CLI::App *command, const std::string &name)
{
    for (; command; command = command->get_parent())
        if (const CLI::Option *option = command->get_option_no_throw(name))
            return option;
    return nullptr;
}

std::vector<const CLI::App *> commands_below(const CLI::App &command)
{
    return command.get_subcommands([](const CLI::App *) { return true; });
}

} // namespace devaccess

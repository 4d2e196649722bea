// Builds the commands that a line needs.
#include "tools/cli/command_tree.h"

#include "tools/cli/options.h"

#include <algorithm>

namespace devaccess
{

namespace
{

// The words that are neither options nor values of these options.
std::vector<std::string> plain_words(const CLI::App &program, const std::vector<std::string> &words)
{
    std::vector<std::string> plain;
    for (size_t i = 0; i < words.size(); ++i) {
        if (!words[i].starts_with('-')) {
            plain.push_back(words[i]);
            continue;
        }
        const CLI::Option *const option = program.get_option_no_throw(words[i]);
        i += option && option->get_expected_max() > 0;
    }
    return plain;
}

} // namespace

command_tree::command_tree(std::span<const command_family> families,
                           const std::vector<std::string> &words)
{
    describe_program(families);
    CLI::App *last = &program_;
    for (const std::string &word : plain_words(program_, words)) {
        const auto &below = notes_.listed[last];
        const auto named = std::find_if(below.begin(), below.end(),
                                        [&](const auto &one) { return one.name == word; });
        if (named == below.end())
            break;
        last = &add(*last, *named);
    }
    for (const listed_command &below : notes_.listed[last])
        last->add_subcommand(below.name, below.description);
}

command_tree::command_tree(std::span<const command_family> families)
{
    describe_program(families);
    add_all(program_);
}

void command_tree::describe_program(std::span<const command_family> families)
{
    program_.name("devaccess");
    program_.description("Reach a modular chassis's hardware through its hardware-access library.");
    program_.require_subcommand(1);
    program_.fallthrough();
    program_.set_version_flag("-V,--version", "devaccess " DEVICE_ACCESS_VERSION);
    command program(program_, notes_);
    add_common_options(program);
    program.footer("Also --json, --verbose and others; see devaccess --help."); // of every command
    for (const command_family &family : families)
        program.add_family(family.name, family.description, family.describe);
}

CLI::App &command_tree::add(CLI::App &parent, const listed_command &below)
{
    CLI::App &added = *parent.add_subcommand(below.name, below.description);
    command described(added, notes_);
    below.describe(described);
    return added;
}

void command_tree::add_all(CLI::App &parent)
{
    for (const listed_command &below : std::vector(notes_.listed[&parent]))
        add_all(add(parent, below));
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

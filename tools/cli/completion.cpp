// Proposes words for a place of the command line.
#include "tools/cli/completion.h"

#include <algorithm>
#include <exception>
#include <iostream>

namespace devaccess
{
namespace
{

// Where on a command line the next word stands.
struct place {
    const command_tree &tree;
    const CLI::App *command;
    const CLI::Option *expecting = nullptr; // the option whose value is next
    size_t arguments = 0;
    given_options given = {};
};

const CLI::App *child(const CLI::App &command, const std::string &name)
{
    for (const CLI::App *candidate : commands_below(command))
        if (candidate->get_name() == name)
            return candidate;
    return nullptr;
}

void pass_option(place &here, const std::string &word)
{
    const size_t equals = word.find('=');
    const std::string name = word.substr(0, equals);
    const CLI::Option *option = find_option(here.command, name);
    if (equals != word.npos)
        here.given[name] = word.substr(equals + 1);
    else if (option && option->get_expected_max() > 0)
        here.expecting = option;
}

// Keeps an argument under its name.
void pass_argument(place &here, const std::string &word)
{
    size_t position = 0;
    for (const CLI::Option *option : here.command->get_options())
        if (option->get_positional() && position++ == here.arguments)
            here.given[option->get_name(true)] = word;
    ++here.arguments;
}

void pass(place &here, const std::string &word)
{
    if (here.expecting) {
        here.given[here.expecting->get_name()] = word;
        here.expecting = nullptr;
    } else if (word.size() > 1 && word[0] == '-') {
        pass_option(here, word);
    } else if (const CLI::App *command =
                   here.arguments == 0 ? child(*here.command, word) : nullptr) {
        here.command = command;
    } else {
        pass_argument(here, word);
    }
}

std::vector<std::string> values_of(const place &here, const CLI::Option *option)
{
    const auto found = here.tree.values().find(option);
    try {
        return found == here.tree.values().end() ? std::vector<std::string>()
                                                 : found->second(here.given);
    } catch (const std::exception &) { // what is there cannot be told
        return {};
    }
}

// With their descriptions.
using described = std::map<std::string, std::string>;

described without_descriptions(const std::vector<std::string> &words)
{
    described found;
    for (const std::string &word : words)
        found[word];
    return found;
}

described commands_of(const CLI::App &command)
{
    described found;
    for (const CLI::App *child : commands_below(command))
        found[child->get_name()] = child->get_description();
    return found;
}

described options_of(const CLI::App *command)
{
    described found;
    for (; command; command = command->get_parent())
        for (const CLI::Option *option : command->get_options())
            for (const std::string &name : option->get_lnames())
                found.emplace("--" + name, option->get_description());
    return found;
}

described words_at(const place &here)
{
    described words = here.arguments == 0 ? commands_of(*here.command) : described();
    size_t position = 0;
    for (const CLI::Option *option : here.command->get_options())
        if (option->get_positional()) {
            const bool goes_on = position < here.arguments && option->get_expected_max() > 1;
            if (position++ == here.arguments || goes_on)
                words.merge(without_descriptions(values_of(here, option)));
        }
    return words;
}

described choices(const place &here, const std::string &current)
{
    if (here.expecting)
        return without_descriptions(values_of(here, here.expecting));
    const size_t equals = current.find('=');
    if (current.rfind("--", 0) == 0 && equals != current.npos) {
        const std::string name = current.substr(0, equals);
        auto values = values_of(here, find_option(here.command, name));
        for (std::string &value : values)
            value = value == any_path ? any_path : name + "=" + value;
        return without_descriptions(values);
    }
    return current.rfind('-', 0) == 0 ? options_of(here.command) : words_at(here);
}

std::vector<std::string> names_of(const described &words)
{
    std::vector<std::string> names;
    for (const auto &[name, description] : words)
        names.push_back(name);
    return names;
}

} // namespace

std::vector<std::string> command_names(const CLI::App &command)
{
    return names_of(commands_of(command));
}

std::vector<std::string> option_names(const CLI::App *command)
{
    return names_of(options_of(command));
}

void complete(command_tree &tree, const std::vector<std::string> &words)
{
    place here = {tree, &tree.program()};
    for (size_t i = 0; i + 1 < words.size(); ++i)
        pass(here, words[i]);
    const std::string current = words.empty() ? "" : words.back();
    described words_there = choices(here, current);
    const bool takes_paths = words_there.erase(any_path) > 0;
    std::erase_if(words_there, [&](const auto &one) { return !one.first.starts_with(current); });
    if (takes_paths && words_there.empty()) // a shell cannot mix the two
        words_there[any_path];
    for (const auto &[word, description] : words_there)
        std::cout << word << (description.empty() ? "" : "\t" + description) << '\n';
}

} // namespace devaccess

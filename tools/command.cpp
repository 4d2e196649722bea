#include "command.h"

#include <algorithm>
#include <iostream>

namespace devaccess
{

std::string named_command;

namespace
{

constexpr char paths[] = ":paths";

std::map<const CLI::Option *, chooser> &offers()
{
    static std::map<const CLI::Option *, chooser> all;
    return all;
}

// Where on a command line the next word stands.
struct place {
    CLI::App *command;
    CLI::Option *expecting = nullptr; // the option whose value is next
    size_t arguments = 0;
    given_options given = {};
};

CLI::App *child(CLI::App &command, const std::string &name)
{
    const auto found = command.get_subcommands(
        [&](const CLI::App *candidate) { return candidate->get_name() == name; });
    return found.empty() ? nullptr : found.front();
}

// An option of the command, or of those that it belongs to.
CLI::Option *find_option(CLI::App *command, const std::string &name)
{
    for (; command; command = command->get_parent())
        if (CLI::Option *option = command->get_option_no_throw(name))
            return option;
    return nullptr;
}

void pass_option(place &here, const std::string &word)
{
    const size_t equals = word.find('=');
    const std::string name = word.substr(0, equals);
    CLI::Option *option = find_option(here.command, name);
    if (equals != word.npos)
        here.given[name] = word.substr(equals + 1);
    else if (option && option->get_expected_max() > 0)
        here.expecting = option;
}

void pass(place &here, const std::string &word)
{
    if (here.expecting) {
        here.given[here.expecting->get_name()] = word;
        here.expecting = nullptr;
    } else if (word.size() > 1 && word[0] == '-') {
        pass_option(here, word);
    } else if (CLI::App *command = here.arguments == 0 ? child(*here.command, word) : nullptr) {
        here.command = command;
    } else {
        ++here.arguments;
    }
}

std::vector<std::string> values_of(const CLI::Option *option, const given_options &given)
{
    const auto found = offers().find(option);
    return found == offers().end() ? std::vector<std::string>() : found->second(given);
}

std::vector<std::string> option_names(CLI::App *command)
{
    std::vector<std::string> names;
    for (; command; command = command->get_parent())
        for (const CLI::Option *option : command->get_options())
            for (const std::string &name : option->get_lnames())
                names.push_back("--" + name);
    return names;
}

std::vector<std::string> words_at(const place &here)
{
    std::vector<std::string> words;
    if (here.arguments == 0)
        for (const CLI::App *command :
             here.command->get_subcommands([](CLI::App *) { return true; }))
            words.push_back(command->get_name());
    size_t position = 0;
    for (const CLI::Option *option : here.command->get_options())
        if (option->get_positional() && position++ == here.arguments)
            for (const std::string &value : values_of(option, here.given))
                words.push_back(value);
    return words;
}

std::vector<std::string> choices(const place &here, const std::string &current)
{
    if (here.expecting)
        return values_of(here.expecting, here.given);
    const size_t equals = current.find('=');
    if (current.rfind("--", 0) == 0 && equals != current.npos) {
        const std::string name = current.substr(0, equals);
        auto values = values_of(find_option(here.command, name), here.given);
        for (std::string &value : values)
            value = value == paths ? paths : name + "=" + value;
        return values;
    }
    return current.rfind('-', 0) == 0 ? option_names(here.command) : words_at(here);
}

} // namespace

CLI::Option *offer(CLI::Option *option, chooser values)
{
    offers()[option] = std::move(values);
    return option;
}

CLI::Option *offer_paths(CLI::Option *option)
{
    return offer(option, [](const given_options &) { return std::vector<std::string>{paths}; });
}

CLI::Option *one_of(CLI::Option *option, const std::vector<std::string> &words)
{
    option->check(CLI::IsMember(words));
    return offer(option, [words](const given_options &) { return words; });
}

void complete(CLI::App &program, const std::vector<std::string> &words)
{
    place here = {&program};
    for (size_t i = 0; i + 1 < words.size(); ++i)
        pass(here, words[i]);
    const std::string current = words.empty() ? "" : words.back();
    std::vector<std::string> found = choices(here, current);
    std::sort(found.begin(), found.end());
    found.erase(std::unique(found.begin(), found.end()), found.end());
    for (const std::string &word : found)
        if (word == paths || word.compare(0, current.size(), current) == 0)
            std::cout << word << '\n';
}

void forget_offers()
{
    offers().clear();
}

} // namespace devaccess

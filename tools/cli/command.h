// Commands as their families describe them: what each takes and what it does. CLI11, which nothing
// outside this folder sees, parses the command line by it and prints the help.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace CLI
{
class App;
class Option;
} // namespace CLI

namespace devaccess
{

// Options and arguments on the line so far, by name: "--chassis", "NODE".
using given_options = std::map<std::string, std::string>;
// What an option or argument can be, for the completion.
using chooser = std::function<std::vector<std::string>(const given_options &)>;
using choosers = std::map<const CLI::Option *, chooser>;

class command;

// A command that its family lists, and what makes the rest of it.
struct listed_command {
    const char *name;
    const char *description;
    std::function<void(command &)> describe;
};

// What there is besides CLI11's own description: values for the completion, and the commands below
// each that were listed.
struct command_notes {
    choosers values;
    std::map<const CLI::App *, std::vector<listed_command>> listed;
};

// Among a chooser's words, stands for the paths of files.
inline constexpr char any_path[] = ":paths";

// An option or argument of a command.
class option
{
public:
    option(CLI::Option &is, command_notes &notes) : is_(&is), notes_(&notes) {}

    option &required();
    // An error about the value, or an empty text.
    option &check(std::function<std::string(const std::string &)> problem);
    // The default is shown in the help.
    option &show_default();
    option &excludes(const option &other);
    option &takes_one();

    // What the completion offers.
    option &proposals(chooser words);
    // For these the value cannot be empty, as a script's variable can be: no card, say, would mean
    // all of them.
    option &choices(chooser words);
    option &paths();
    // The parser takes no other either.
    option &one_of(const std::vector<std::string> &words);

private:
    CLI::Option *is_;
    command_notes *notes_;
};

class command
{
public:
    command(CLI::App &is, command_notes &notes) : is_(&is), notes_(&notes) {}

    option argument(const char *name, std::string &to, const char *meaning);
    option argument(const char *name, std::vector<std::string> &to, const char *meaning);
    // The placeholder, "FILE", stands for the value in the help.
    option add_option(const char *names, const char *placeholder, std::string &to,
                      const std::string &meaning);
    // May be given several times, each with one value.
    option add_option(const char *names, const char *placeholder, std::vector<std::string> &to,
                      const std::string &meaning);
    option add_option(const char *names, const char *placeholder, unsigned &to,
                      const std::string &meaning);
    option add_option(const char *names, const char *placeholder, double &to,
                      const std::string &meaning);
    void add_flag(const char *names, bool &to, const char *meaning);

    // Commands below this one: one that has others below it, of which the line must name one; one
    // with arguments of its own; and one that takes nothing.
    void add_family(const char *name, const char *description, void (*describe)(command &family));
    template <typename Arguments>
    void add(const char *name, const char *description, void (*describe)(command &, Arguments &),
             void (*run)(const Arguments &))
    {
        list({name, description, [describe, run](command &added) { added.takes(describe, run); }});
    }
    void add(const char *name, const char *description, void (*run)());

    // What this one takes and does, if none below it is named.
    template <typename Arguments>
    void takes(void (*describe)(command &, Arguments &), void (*run)(const Arguments &))
    {
        const auto arguments = std::make_shared<Arguments>();
        describe(*this, *arguments);
        on_run([arguments, run] { run(*arguments); });
    }

    // The last line of the help of this one, and of those that are added to it afterwards.
    void footer(const char *text);

private:
    void list(listed_command below);
    void on_run(std::function<void()> run);

    CLI::App *is_;
    command_notes *notes_;
};

// The commands below a first word of the line, or the one that the word itself is.
struct command_family {
    const char *name;
    const char *description;
    void (*describe)(command &family);
};

} // namespace devaccess

// Runs the command that a line names; says what is wrong with a line, and why a command failed.

#include "tools/cli/dispatch.h"

#include "tools/base/errors.h"
#include "tools/base/fleet.h"
#include "tools/base/output.h"
#include "tools/base/settings.h"
#include "tools/base/suggest.h"
#include "tools/base/waiting.h"
#include "tools/cli/command_tree.h"
#include "tools/cli/completion.h"
#include "tools/cli/options.h"

#include <algorithm>
#include <csignal>

#include <fcntl.h>
#include <unistd.h>

namespace devaccess
{
namespace
{

// "devaccess pci read", as far as the words name commands.
std::string command_words(const CLI::App &program)
{
    std::string words = "devaccess";
    for (const CLI::App *command = &program; !command->get_subcommands().empty();) {
        command = command->get_subcommands().front();
        words += ' ' + command->get_name();
    }
    return words;
}

CLI::App &named_last(CLI::App &program)
{
    CLI::App *command = &program;
    while (!command->get_subcommands().empty())
        command = command->get_subcommands().front();
    return *command;
}

// Takes --json off the line: one that cannot be understood may have asked for it too.
bool take_json(std::vector<std::string> &words)
{
    const auto end = std::find(words.begin(), words.end(), "--");
    const auto taken = std::remove(words.begin(), end, "--json");
    const bool found = taken != end;
    words.erase(taken, end);
    return found;
}

int refuse(const std::string &command, const std::string &message,
           const std::string &suggestion = "")
{
    print_failure(command, message,
                  suggestion + (suggestion.empty() ? "see " : "See ") + command + " --help", 0);
    return exit_usage;
}

// A misspelt command or option counts as an argument that is left over.
int refuse(CLI::App &program, const CLI::ParseError &wrong)
{
    const std::string command = command_words(program);
    const std::vector<std::string> left = program.remaining(true);
    const std::string word = left.empty() ? "" : left.front();
    const CLI::App &named = named_last(program);
    if (word == "--from" || word.starts_with("--from="))
        return refuse(command,
                      "--from is for commands that read what 'collect' records, which this "
                      "one is not");
    if (word.starts_with('-')) {
        const std::string suggestion = did_you_mean(word, option_names(&named));
        const bool takes_text =
            !named.get_options([](const CLI::Option *option) { return option->get_positional(); })
                 .empty();
        return refuse(command, "unknown option '" + word + "'",
                      suggestion.empty() && takes_text ? "a word that begins with - goes after --. "
                                                       : suggestion);
    }
    if (!left.empty() && wrong.get_exit_code() == static_cast<int>(CLI::ExitCodes::RequiredError))
        return refuse(command, "unknown command '" + word + "'",
                      did_you_mean(word, command_names(named)));
    return refuse(command, wrong.what());
}

template <typename Work>
int status_after(Work work)
{
    try {
        work();
        return exit_done;
    } catch (const ends_with &told) {
        return told.status;
    }
}

// Does the work, and reports its failure as the command's; answers with the exit status.
template <typename Work, typename Name>
int run_and_report(Work work, Name command)
{
    try {
        const int status = status_after(work);
        finish_output();
        return status;
    } catch (const usage_error &wrong) {
        return refuse(command(), wrong.what(), wrong.suggestion);
    } catch (const failure &failed) {
        print_failure(command(), failed.what(), failed.hint, failed.error);
        return failed.status;
    } catch (const interrupted &by) {
        ::raise(by.signal);
    } catch (const CLI::Error &) {
        throw;
    } catch (const std::exception &failed) {
        print_failure(command(), failed.what(), "", 0);
    }
    return exit_failed;
}

// For a line that is right and wants no help.
int run_named(std::span<const command_family> families, const std::vector<std::string> &words)
{
    std::vector<std::string> left = take_common_options(words);
    named_command named(families, left);
    return run_and_report([&] { named.run(std::move(left)); }, [&] { return named.name(); });
}

// For any line: help is given and errors are explained by the tree of all commands.
int run_of_all(std::span<const command_family> families, std::vector<std::string> words)
{
    command_tree tree(families);
    CLI::App &program = tree.program();
    try {
        std::reverse(words.begin(), words.end());
        return run_and_report([&] { program.parse(std::move(words)); },
                              [&] { return command_words(program); });
    } catch (const CLI::Success &asked) { // for help or the version
        return run_and_report([&] { program.exit(asked); }, [&] { return command_words(program); });
    } catch (const CLI::ParseError &wrong) {
        return refuse(program, wrong);
    }
}

// What is closed stays useless, rather than become the number of a file that is opened next.
void occupy_closed_streams()
{
    while (true) {
        const int descriptor = ::open("/dev/null", O_RDONLY);
        if (descriptor < 0 || descriptor > 2) {
            ::close(descriptor);
            return;
        }
    }
}

} // namespace

int run_program(std::span<const command_family> families, int argc, char **argv)
{
    occupy_closed_streams();
    std::vector<std::string> words(argv + std::min(argc, 1), argv + argc);
    if (!words.empty() && words.front() == "--complete") {
        words.erase(words.begin());
        command_tree tree(families);
        complete(tree, words);
        return exit_done;
    }
    if (!words.empty() && words.front() == "help") {
        words.erase(words.begin());
        words.push_back("--help");
    }
    settings.as_json = take_json(words);
    const program_settings before = settings;
    try {
        return run_named(families, words);
    } catch (const CLI::Error &) {
        settings = before;
        return run_of_all(families, words);
    }
}

} // namespace devaccess

// Runs the command that a line names; says what is wrong with a line, and why a command failed.

#include "tools/cli/dispatch.h"

#include "tools/base/errors.h"
#include "tools/base/output.h"
#include "tools/base/settings.h"
#include "tools/base/suggest.h"
#include "tools/base/waiting.h"
#include "tools/cli/command_tree.h"
#include "tools/cli/completion.h"

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

int refuse(const CLI::App &program, const std::string &message, const std::string &suggestion = "")
{
    const std::string command = command_words(program);
    print_failure(command, message,
                  suggestion + (suggestion.empty() ? "see " : "See ") + command + " --help", 0);
    return exit_usage;
}

// A misspelt command or option counts as an argument that is left over.
int refuse(CLI::App &program, const CLI::ParseError &wrong)
{
    const std::vector<std::string> left = program.remaining(true);
    const std::string word = left.empty() ? "" : left.front();
    if (word.starts_with("--"))
        return refuse(program, "'" + word + "' is no option",
                      did_you_mean(word, option_names(&named_last(program))));
    if (!left.empty() && wrong.get_exit_code() == static_cast<int>(CLI::ExitCodes::RequiredError))
        return refuse(program, "'" + word + "' is no command",
                      did_you_mean(word, command_names(named_last(program))));
    return refuse(program, wrong.what());
}

int run(CLI::App &program, std::vector<std::string> words)
{
    try {
        std::reverse(words.begin(), words.end());
        program.parse(std::move(words));
        finish_output();
    } catch (const CLI::Success &asked) { // for help or the version
        program.exit(asked);
        finish_output();
    } catch (const CLI::ParseError &wrong) {
        return refuse(program, wrong);
    } catch (const usage_error &wrong) {
        return refuse(program, wrong.what(), wrong.suggestion);
    }
    return exit_done;
}

int run_and_report(CLI::App &program, std::vector<std::string> words)
{
    try {
        return run(program, std::move(words));
    } catch (const failure &failed) {
        print_failure(command_words(program), failed.what(), failed.hint, failed.error);
        return failed.status;
    } catch (const interrupted &by) {
        ::raise(by.signal);
    } catch (const std::exception &failed) {
        print_failure(command_words(program), failed.what(), "", 0);
    }
    return exit_failed;
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
        command_tree tree(families, words);
        complete(tree, words);
        return exit_done;
    }
    if (!words.empty() && words.front() == "help") {
        words.erase(words.begin());
        words.push_back("--help");
    }
    settings.as_json = take_json(words);
    command_tree tree(families, words);
    tree.program().footer(
        "Numbers are decimal or, after 0x, hexadecimal.\n"
        "Exit status: 0 done, 1 failed, 2 the command line is wrong, 3 damage was found,\n"
        "4 something could not be read.\n"
        "Examples:\n"
        "  devaccess pci list\n"
        "  devaccess pci read 0000:03:00.0 0x10 --json\n"
        "  devaccess podlog show RPSW1 --chassis n20");
    return run_and_report(tree.program(), words);
}

} // namespace devaccess

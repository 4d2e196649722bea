// The tree of all commands, and what is said when a line is wrong or a command fails.

#include "tools/cli/dispatch.h"
#include "tools/base/captured_call.h"
#include "tools/base/output.h"
#include "tools/base/suggest.h"
#include "tools/base/waiting.h"
#include "tools/cli/chassis_option.h"
#include "tools/cli/completion.h"
#include "tools/cli/pages.h"

#include <algorithm>
#include <iostream>
#include <iterator>

#include <csignal>

#include <fcntl.h>

namespace devaccess
{
namespace
{

enum { exit_ok = 0, exit_failed = 1, exit_usage = 2 };

constexpr struct {
    const char *name;
    void (*add)(CLI::App &program);
} command_families[] = {
    {"pci", add_pci_commands},         {"uio", add_uio_commands},
    {"mem", add_mem_commands},         {"podlog", add_podlog_commands},
    {"postlog", add_postlog_commands}, {"inventory", add_inventory_commands},
    {"collect", add_collect_command},  {"metrics", add_metrics_command},
};

// What the line names, alone: the rest would take longer to describe than most commands to run. All
// families, where it names none.
void add_families(CLI::App &program, const std::vector<std::string> &words)
{
    named_command.clear();
    for (auto word = words.begin(); word != words.end(); ++word)
        for (const auto &family : command_families)
            if (*word == family.name) {
                named_command = word + 1 == words.end() ? "" : word[1];
                return family.add(program);
            }
    for (const auto &family : command_families)
        family.add(program);
}

void add_common_options(CLI::App &program)
{
    program.set_version_flag("-V,--version", "devaccess " DEVICE_ACCESS_VERSION);
    program.add_flag("--json", settings.as_json, "print JSON instead of tables");
    program.add_flag("-v,--verbose", settings.verbose,
                     "pass what the library prints on to standard error");
    one_of(program.add_option("--color", settings.colour, "always, never, or on a terminal: auto")
               ->option_text("WHEN"),
           {"auto", "always", "never"});
    program.add_flag("--local", settings.local_time, "show times of this machine's zone, not UTC");
    add_chassis_options(program);
}

void add_everything(CLI::App &program, const std::vector<std::string> &words)
{
    program.require_subcommand(1);
    program.fallthrough();
    // A line without options needs no description of those of all commands, which would be half of
    // a short command's own time.
    if (std::any_of(words.begin(), words.end(), [](const auto &w) { return w.starts_with('-'); }))
        add_common_options(program);
    else
        program.set_help_flag();
    program.footer("Also --json and --verbose; see devaccess --help."); // of every command
    add_families(program, words);
    program.footer("Numbers are decimal or, behind 0x, hexadecimal.\n"
                   "Exit status: 0 done, 1 failed, 2 the command line is wrong.\n"
                   "Examples:\n"
                   "  devaccess pci list\n"
                   "  devaccess pci read 0000:03:00.0 0x10 --json\n"
                   "  devaccess podlog show RPSW1 --chassis n20");
}

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

// A line that cannot be understood may have asked for JSON too.
bool asks_for_json(const std::vector<std::string> &words)
{
    const auto end = std::find(words.begin(), words.end(), "--");
    return std::find(words.begin(), end, "--json") != end;
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

// For the target "pages".
void print_page(CLI::App &program, const std::string &kind)
{
    if (kind == "man")
        std::cout << manual_page(program);
    else
        std::cout << markdown_page(program, {std::istreambuf_iterator<char>(std::cin), {}});
    finish_output();
}

int run(CLI::App &program, std::vector<std::string> words)
{
    try {
        if (words.size() == 2 && words.front() == "--page") {
            print_page(program, words.back());
            return exit_ok;
        }
        settings.as_json = asks_for_json(words);
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
    return exit_ok;
}

int run_and_report(CLI::App &program, const std::vector<std::string> &words)
{
    try {
        return run(program, words);
    } catch (const failure &failed) {
        print_failure(command_words(program), failed.what(), failed.hint, failed.error);
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

int run_program(int argc, char **argv)
{
    occupy_closed_streams();
    std::vector<std::string> words(argv + std::min(argc, 1), argv + argc);
    if (!words.empty() && words.front() == "help") {
        words.erase(words.begin());
        words.push_back("--help");
    }
    forget_offers();
    CLI::App program("Reach a modular chassis's hardware through its hardware-access library.",
                     "devaccess");
    add_everything(program, words);
    if (!words.empty() && words.front() == "--complete") {
        complete(program, {words.begin() + 1, words.end()});
        return exit_ok;
    }
    return run_and_report(program, words);
}

} // namespace devaccess

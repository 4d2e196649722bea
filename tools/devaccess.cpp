// devaccess: the library's functions as commands.

#include "commands.h"
#include "library.h"
#include "output.h"

namespace
{

using namespace devaccess;

enum { exit_ok = 0, exit_failed = 1, exit_usage = 2 };

void add_everything(CLI::App &program)
{
    program.require_subcommand(1);
    program.fallthrough();
    program.add_flag("--json", settings.as_json, "print JSON instead of tables");
    program.add_flag("-v,--verbose", settings.verbose,
                     "pass what the library prints on to standard error");
    program.footer("Also --json and --verbose; see devaccess --help."); // of every command
    add_pci_commands(program);
    add_uio_commands(program);
    add_podlog_commands(program);
    add_postlog_commands(program);
    add_inventory_commands(program);
    program.footer("Numbers are decimal or, behind 0x, hexadecimal.\n"
                   "Exit status: 0 done, 1 failed, 2 the command line is wrong.\n"
                   "Examples:\n"
                   "  devaccess pci list\n"
                   "  devaccess pci read 0000:03:00.0 0x10 --json\n"
                   "  devaccess podlog show RPSW1");
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

// What is wrong with the command line; a misspelt command counts as an argument that is left over.
std::string complaint(const CLI::App &program, const CLI::ParseError &wrong)
{
    const std::vector<std::string> left = program.remaining(true);
    const bool lacks_command =
        wrong.get_exit_code() == static_cast<int>(CLI::ExitCodes::RequiredError);
    return lacks_command && !left.empty() ? "'" + left.front() + "' is no command" : wrong.what();
}

int tell(int status, const std::string &text)
{
    print_error_line(text);
    return status;
}

int run(CLI::App &program, int argc, char **argv)
{
    try {
        program.parse(argc, argv);
        finish_output();
    } catch (const CLI::CallForHelp &help) {
        return program.exit(help);
    } catch (const CLI::ParseError &wrong) {
        return tell(exit_usage,
                    complaint(program, wrong) + "; see " + command_words(program) + " --help");
    } catch (const usage_error &wrong) {
        return tell(exit_usage,
                    std::string(wrong.what()) + "; see " + command_words(program) + " --help");
    } catch (const std::exception &failed) {
        return tell(exit_failed, failed.what());
    }
    return exit_ok;
}

} // namespace

int main(int argc, char **argv)
{
    CLI::App program("Reach a modular chassis's hardware through its hardware-access library.",
                     "devaccess");
    add_everything(program);
    return run(program, argc, argv);
}

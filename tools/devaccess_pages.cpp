// devaccess-pages: the manual page of devaccess (man), or its Markdown page (md) with the notes on
// standard input, out of what describes its commands to the parser.

#include "tools/cli/command_tree.h"
#include "tools/families.h"

#include <algorithm>
#include <cctype>
#include <exception>
#include <iostream>
#include <iterator>
#include <sstream>
#include <utility>

#include <fmt/format.h>

namespace devaccess
{
namespace
{

// A command's words and itself, and so on for those that belong to it. A family, which only its
// commands can do something for, counts as none.
using commands = std::vector<std::pair<std::string, CLI::App *>>;

void add_commands(CLI::App &command, const std::string &words, commands &found)
{
    const std::vector<CLI::App *> children =
        command.get_subcommands([](const CLI::App *) { return true; });
    if (children.empty() || command.get_require_subcommand_min() == 0)
        found.emplace_back(words, &command);
    for (CLI::App *child : children)
        add_commands(*child, words + (words.empty() ? "" : " ") + child->get_name(), found);
}

commands commands_of(CLI::App &family)
{
    commands found;
    add_commands(family, family.get_name(), found);
    return found;
}

bool is_of_program(const CLI::App &program, const CLI::Option &option)
{
    const auto &names = option.get_lnames();
    return !names.empty() && program.get_option_no_throw("--" + names.front());
}

// What a command takes that the program does not, its arguments first.
std::vector<const CLI::Option *> own_options(const CLI::App &program, CLI::App &command)
{
    std::vector<const CLI::Option *> own;
    for (const CLI::Option *option : command.get_options())
        if (!is_of_program(program, *option))
            own.push_back(option);
    std::stable_partition(own.begin(), own.end(),
                          [](const CLI::Option *option) { return option->get_positional(); });
    return own;
}

// "CARD", or "-v, --verbose", and then the name of its value.
std::string name_of(const CLI::Option &option)
{
    if (option.get_positional())
        return option.get_name(true);
    std::string names;
    for (const std::string &name : option.get_snames())
        names += "-" + name + ", ";
    names += "--" + option.get_lnames().front();
    if (option.get_expected_max() == 0)
        return names;
    const std::string &value = option.get_option_text();
    return names + " " + value;
}

// " CARD [HISTORY] [OPTIONS]"
std::string usage_of(const CLI::App &program, CLI::App &command)
{
    std::string usage;
    bool has_options = false;
    for (const CLI::Option *option : own_options(program, command)) {
        has_options |= !option->get_positional();
        if (!option->get_positional())
            continue;
        const std::string name =
            option->get_name(true) + (option->get_expected_max() > 1 ? "..." : "");
        usage += option->get_required() ? " " + name : " [" + name + "]";
    }
    return usage + (has_options ? " [OPTIONS]" : "");
}

std::string in_roff(const std::string &text)
{
    std::string escaped;
    for (const char c : text)
        escaped += c == '\\' ? "\\e" : c == '-' ? "\\-" : std::string(1, c);
    return escaped.starts_with('.') || escaped.starts_with('\'') ? "\\&" + escaped : escaped;
}

std::string options_in_roff(const std::vector<const CLI::Option *> &options)
{
    std::string text;
    for (const CLI::Option *option : options)
        text += fmt::format(".TP\n\\fB{}\\fR\n{}\n", in_roff(name_of(*option)),
                            in_roff(option->get_description()));
    return text;
}

constexpr char manual_head[] = R"(.\" Made by devaccess-pages.
.TH DEVACCESS 1 "" "common_device_access" "User Commands"
.SH NAME
devaccess \- reach a modular chassis's hardware from the command line
.SH SYNOPSIS
.B devaccess
.RI [ OPTIONS ]
.I FAMILY COMMAND
.RI [ ARGUMENTS ]
.SH DESCRIPTION
Reads and writes PCI configuration registers and UIO register windows, the POD logs of the cards, the
POST logs of the firmware and the inventory, through the library
.BR libcommon_device_access .
.PP
.I ID
is a PCI function, dddd:bb:ss.f or bb:ss.f; leading zeros may be left out.
.I NODE
is a UIO node or an emulated device, sysfs_pci:REGION.SLOT[.FPGA].
Numbers are decimal or, after 0x, hexadecimal.
.SH OPTIONS
These stand anywhere on the line.
)";

constexpr char manual_tail[] = R"(.SH EXIT STATUS
.TP
.B 0
Done.
.TP
.B 1
Failed; one line on standard error, or with
.B \-\-json
one object, says what, why and what to try.
.TP
.B 2
The command line is wrong.
.TP
.B 3
Damage was found, after what could be read has been printed.
.TP
.B 4
Something could not be read: it is busy, forbidden or unreachable.
.SH FILES
.TP
.I share/common_device_access/devaccess.schema.json
A JSON schema of what all commands print with
.BR \-\-json .
.TP
.I share/common_device_access/maps, /etc/common_device_access/maps
Register maps, NAME.json for a device of that name.
.SH ENVIRONMENT
.TP
.B DEVACCESS_CHASSIS
The chassis type, where
.B \-\-chassis
does not say it.
.TP
.B DEVACCESS_MAPS
Directories of register maps, with colons between them, before the others.
.TP
.B NO_COLOR
If set, nothing is in colour, unless
.B \-\-color
says so. Elsewhere, headings and failures are on a terminal.
.TP
.B TZ
The zone of
.BR \-\-local .
.SH EXAMPLES
.nf
devaccess pci list
devaccess pci read 03:00.0 0x10 \-\-json
devaccess uio wait /dev/uio0 \-\-timeout 5
devaccess uio show regblock \-\-follow
devaccess uio write regblock CONTROL.RUN=1
devaccess podlog show RPSW1 \-\-follow \-\-chassis n20
devaccess podlog timeline \-\-post \-\-since yesterday \-\-local
devaccess postlog show error \-\-pcie 0000:03:00.0:0
devaccess metrics \-\-out /var/lib/prometheus/node-exporter/devaccess.prom
.fi
)";

// "### `pci read ID OFFSET [OPTIONS]`", what it does, and what its arguments and options mean.
std::string section_in_markdown(const CLI::App &program, const std::string &words,
                                CLI::App &command)
{
    std::string text = fmt::format("### `{}{}`\n\n{}.\n", words, usage_of(program, command),
                                   command.get_description());
    const auto options = own_options(program, command);
    text += options.empty() ? "" : "\n";
    for (const CLI::Option *option : options)
        text += fmt::format("- `{}`: {}\n", name_of(*option), option->get_description());
    return text;
}

std::string manual_page(CLI::App &program)
{
    std::vector<const CLI::Option *> general;
    for (const CLI::Option *option : program.get_options())
        general.push_back(option);
    std::string page = manual_head + options_in_roff(general);
    for (CLI::App *family : program.get_subcommands([](const CLI::App *) { return true; })) {
        std::string name = family->get_name();
        std::transform(name.begin(), name.end(), name.begin(), ::toupper);
        page += fmt::format(".SH {}\n{}.\n", name, in_roff(family->get_description()));
        for (const auto &[words, command] : commands_of(*family)) {
            page += fmt::format(".TP\n\\fB{}\\fI{}\\fR\n{}.\n", in_roff(words),
                                in_roff(usage_of(program, *command)),
                                in_roff(command->get_description()));
            if (const auto options = own_options(program, *command); !options.empty())
                page += ".RS\n" + options_in_roff(options) + ".RE\n";
        }
    }
    return page + manual_tail;
}

std::string markdown_page(CLI::App &program, const std::string &notes)
{
    commands missing;
    for (CLI::App *family : program.get_subcommands([](const CLI::App *) { return true; }))
        for (const auto &command : commands_of(*family))
            missing.push_back(command);
    const std::string mark = "### `";
    std::string page = "<!-- Made by devaccess-pages from devaccess.in.md. -->\n";
    std::istringstream lines(notes);
    for (std::string line; std::getline(lines, line);) {
        if (!line.starts_with(mark)) {
            page += line + "\n";
            continue;
        }
        const std::string words = line.substr(mark.size(), line.rfind('`') - mark.size());
        const auto found = std::find_if(missing.begin(), missing.end(),
                                        [&](const auto &one) { return one.first == words; });
        if (found == missing.end())
            throw std::runtime_error("the notes have '" + words + "' twice, or it is no command");
        page += section_in_markdown(program, words, *found->second);
        missing.erase(found);
    }
    if (!missing.empty())
        throw std::runtime_error("the notes lack '" + missing.front().first + "'");
    return page;
}

} // namespace
} // namespace devaccess

int main(int argc, char **argv)
{
    using namespace devaccess;
    const std::string kind = argc == 2 ? argv[1] : "";
    try {
        command_tree tree(command_families);
        if (kind == "man")
            std::cout << manual_page(tree.program());
        else if (kind == "md")
            std::cout << markdown_page(tree.program(),
                                       {std::istreambuf_iterator<char>(std::cin), {}});
        else
            throw std::runtime_error("usage: devaccess-pages man | md <NOTES");
        return std::cout.flush() ? 0 : 1;
    } catch (const std::exception &failed) {
        std::cerr << "devaccess-pages: " << failed.what() << '\n';
        return 1;
    }
}

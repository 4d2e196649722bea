// The family of POD log commands, and the options that many of them have.
#include "tools/podlog/podlog_commands.h"

#include "tools/cli/chassis_option.h"

namespace devaccess
{
namespace
{

std::vector<std::string> card_names(const given_options &given)
{
    if (const auto chassis = given.find("--chassis"); chassis != given.end())
        settings.chassis = chassis->second;
    std::vector<std::string> names;
    for (const pod_card &card : configure_cards(chassis_type(), false))
        names.push_back(card.name);
    return names;
}

} // namespace

CLI::App *podlog_family::add(const std::string &name, const std::string &description, action act)
{
    CLI::App *command = command_family::add(name, description, act);
    add_chassis_options(*command);
    return command;
}

CLI::Option *podlog_family::add_card(CLI::App *command, const std::string &description)
{
    return offer(command->add_option("CARD", arguments->card, description), card_names)->required();
}

CLI::App *podlog_family::add_for_card(const std::string &name, const std::string &description,
                                      action act)
{
    CLI::App *command = add(name, description, act);
    add_card(command, "e.g. RPSW1");
    return command;
}

CLI::Option *podlog_family::add_eeprom(CLI::App *command)
{
    return offer_paths(
        command
            ->add_option("--eeprom", arguments->eeprom, "the card's EEPROM, which this file holds")
            ->option_text("FILE"));
}

CLI::Option *podlog_family::add_nvram(CLI::App *command)
{
    return offer_paths(
        command->add_option("--nvram", arguments->nvram, "this file, not the machine's NVRAM")
            ->option_text("FILE"));
}

void podlog_family::add_places(CLI::App *command)
{
    CLI::Option *eeprom = add_eeprom(command);
    add_nvram(command)->excludes(eeprom);
    offer_paths(
        command->add_option("--pod-dir", arguments->pod_directory, "files of this, not /var/pod"))
        ->option_text("DIRECTORY")
        ->excludes(eeprom);
}

void podlog_family::add_yes(CLI::App *command)
{
    command->add_flag("--yes", arguments->yes, "do it; without it, say what would be done");
}

void add_podlog_commands(CLI::App &program)
{
    podlog_family podlog(program, "podlog", "POD logs of the cards");
    add_chassis_options(podlog.app);
    add_podlog_reading_commands(podlog);
    add_podlog_timeline_command(podlog);
    add_podlog_writing_commands(podlog);
    add_podlog_status_commands(podlog);
    add_podlog_salvage_commands(podlog);
}

} // namespace devaccess

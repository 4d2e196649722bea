// What the groups of POD log commands share.
#pragma once

#include "tools/base/output.h"
#include "tools/cli/completion.h"
#include "tools/podlog/storage.h"

namespace devaccess
{

// Each command takes the options that say which cards there are.
class podlog_family : public command_family<podlog_arguments>
{
public:
    using command_family::command_family;

    CLI::App *add(const std::string &name, const std::string &description, action act);
    CLI::App *add_for_card(const std::string &name, const std::string &description, action act);
    CLI::Option *add_card(CLI::App *command, const std::string &description);
    CLI::Option *add_eeprom(CLI::App *command);
    CLI::Option *add_nvram(CLI::App *command);
    // Files that can stand for the machine's storages, where a command only reads.
    void add_places(CLI::App *command);
    void add_yes(CLI::App *command);
};

void add_podlog_reading_commands(podlog_family &podlog);
void add_podlog_writing_commands(podlog_family &podlog);
void add_podlog_status_commands(podlog_family &podlog);
void add_podlog_salvage_commands(podlog_family &podlog);
void add_podlog_timeline_command(podlog_family &podlog);

// A card's POD result and fault-injection flag, out of the local NVRAM.
struct card_status {
    std::string name;
    std::string status; // "Passed", "Failed" or "Invalid"
    bool fault_injected;
};
std::vector<card_status> card_statuses(const podlog_arguments &arguments,
                                       const std::vector<pod_card> &cards);

// A record of a log as a line of a table.
record entry_row(const log_image &log, const log_record &slot);
record record_row(const log_record &what);

record_set record_rows(const std::vector<log_record> &records);

} // namespace devaccess

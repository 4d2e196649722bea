// What the commands on POD logs share, and those that other families use.
#pragma once

#include "tools/base/output.h"
#include "tools/cli/command.h"
#include "tools/podlog/storage.h"

#include <string>
#include <vector>

namespace devaccess
{

void describe_podlog(command &podlog);

//--- cards ----------------------------------------------------------------------------------------

// The cards of the chassis. Commands that read use the library's built-in table when its type is
// not said, and say so; those that write refuse.
std::vector<pod_card> cards_for_reading();
std::vector<pod_card> cards_for_writing();

// The table in use: "n20", "n10", "n4" or "built-in".
std::string table_name();

// Those of a machine: without --chassis, an archive says which.
std::vector<pod_card> cards_of(const machine_source &machine);
std::string table_of(const machine_source &machine);

// The card of this name, in any case.
pod_card card_of(const std::string &name, const std::vector<pod_card> &cards,
                 const log_place &place);
log_storage storage_for_reading(const std::string &card, const log_place &place,
                                const machine_source &machine = this_machine());
log_storage storage_for_writing(const std::string &card, const log_place &place);

//--- hints ----------------------------------------------------------------------------------------

// A command of this family, quoted, with the options that say where the logs are.
std::string podlog_command(const std::string &words, const log_place &place = {});

// What can be done about a storage; and, for those who do not know yet, where to learn what is
// wrong.
std::string remedy_hint(const log_storage &storage, const log_findings &found);
std::string way_out(const log_storage &storage, const log_findings &found);

// What is there; fails when it cannot be read.
log_findings expect_readable(const log_storage &storage);
// What is there, which has a log, but maybe a damaged one; fails when there is none.
log_findings expect_log(const log_storage &storage);

// Saves what is in a storage before it is overwritten, in the file or else in one of /var/tmp, and
// tells so. The file.
std::string save_aside(const log_storage &storage, const log_findings &found,
                       const std::string &file = "");

// A call of the library on the storage has failed. The library says nothing of a bad header; this
// does.
[[noreturn]] void fail_on(const log_storage &storage, const std::string &what, const outcome &how);

//--- options --------------------------------------------------------------------------------------

option add_card(command &to, std::string &card,
                const char *meaning = "Name of the card, e.g. RPSW1");
option add_eeprom(command &to, log_place &place);
option add_nvram(command &to, log_place &place);
option add_pod_directory(command &to, log_place &place);
// Files that can stand for the machine's storages, where a command only reads.
void add_places(command &to, log_place &place);
void add_yes(command &to, bool &yes);

//--- groups of commands ---------------------------------------------------------------------------

void describe_reading(command &podlog);
void describe_timeline(command &podlog);
void describe_writing(command &podlog);
void describe_status(command &podlog);
void describe_salvage(command &podlog);

// A card's POD result and fault-injection flag, out of the local NVRAM.
struct card_status {
    std::string name;
    std::string status; // "Passed", "Failed" or "Invalid"
    bool fault_injected;
};
std::vector<card_status> card_statuses(const std::vector<pod_card> &cards, const log_place &place);

// A record of a log as a line of a table.
record entry_row(const log_image &log, const log_record &slot);

} // namespace devaccess

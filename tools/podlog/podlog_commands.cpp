// What the commands on POD logs share: cards, hints, options.
#include "tools/podlog/podlog_commands.h"

#include "tools/base/errors.h"
#include "tools/base/files.h"
#include "tools/base/numbers.h"
#include "tools/base/settings.h"
#include "tools/base/suggest.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <utility>

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <unistd.h>

namespace devaccess
{

//--- cards ----------------------------------------------------------------------------------------

std::vector<pod_card> cards_for_reading()
{
    static bool is_told = false; // of a thousand archives, once
    const std::string chassis = chassis_type();
    if (chassis.empty() && !std::exchange(is_told, true))
        note(fmt::format("without --chassis or {}, cards are those of the library's built-in table",
                         chassis_variable));
    return configure_cards(chassis, settings.is_rp2);
}

std::vector<pod_card> cards_for_writing()
{
    const std::string chassis = chassis_type();
    if (chassis.empty())
        throw usage_error(fmt::format(
            "to write, the chassis type is needed: --chassis n20, n10 or n4, or the variable {}",
            chassis_variable));
    return configure_cards(chassis, settings.is_rp2);
}

std::string table_name()
{
    const std::string chassis = chassis_type();
    return chassis.empty() ? "built-in" : chassis;
}

std::string table_of(const machine_source &machine)
{
    const std::string &recorded = machine.facts().chassis;
    const bool is_known = std::find(std::begin(chassis_types), std::end(chassis_types), recorded) !=
                          std::end(chassis_types);
    if (machine.is_archive() && settings.chassis.empty() && is_known)
        return recorded;
    return table_name();
}

std::vector<pod_card> cards_of(const machine_source &machine)
{
    if (!machine.is_archive())
        return cards_for_reading();
    const std::string table = table_of(machine);
    if (table == "built-in")
        return cards_for_reading();
    return configure_cards(table, settings.is_rp2 || machine.facts().is_rp2);
}

pod_card card_of(const std::string &name, const std::vector<pod_card> &cards,
                 const log_place &place)
{
    const auto found = std::find_if(cards.begin(), cards.end(), [&](const pod_card &card) {
        return card.name == in_capitals(name);
    });
    if (found != cards.end())
        return *found;
    std::vector<std::string> names;
    for (const pod_card &card : cards)
        names.push_back(card.name);
    throw failure("find the card " + name, "this chassis has no card of that name",
                  did_you_mean(name, names) + podlog_command("cards", place) + " shows the cards");
}

log_storage storage_for_reading(const std::string &card, const log_place &place,
                                const machine_source &machine)
{
    const log_place there = place.in(machine);
    return log_storage(there, card_of(card, cards_of(machine), there));
}

log_storage storage_for_writing(const std::string &card, const log_place &place)
{
    return log_storage(place, card_of(card, cards_for_writing(), place));
}

//--- hints ----------------------------------------------------------------------------------------

// Commands that need the chassis type.
constexpr std::string_view writing[] = {"add", "next", "copy", "prepare", "repair", "reset"};

std::string podlog_command(const std::string &words, const log_place &place)
{
    std::string line = "devaccess podlog " + words;
    const auto add = [&](const char *name, const std::string &value) {
        const char *const quote = value.find(' ') == value.npos ? "" : "\"";
        if (!value.empty())
            line += fmt::format(" {} {}{}{}", name, quote, value, quote);
    };
    add("--eeprom", place.eeprom);
    add("--nvram", place.nvram);
    add("--pod-dir", place.pod_directory);
    line += place.machine ? place.machine->option() : "";
    const std::string verb = words.substr(0, words.find(' '));
    const bool writes =
        std::find(std::begin(writing), std::end(writing), verb) != std::end(writing);
    add("--chassis", writes && chassis_type().empty() ? "TYPE" : settings.chassis);
    return fmt::format("'{}{}'", line, settings.is_rp2 ? " --rp2" : "");
}

std::string remedy_hint(const log_storage &storage, const log_findings &found)
{
    const auto with = [&](const char *verb, const char *more = "") {
        return podlog_command(fmt::format("{} {}{}", verb, storage.card().name, more),
                              storage.place());
    };
    switch (found.way_out) {
    case remedy::try_again:
        return "its records are good; is another program using it?";
    case remedy::salvage:
        return with("salvage") + " shows what can be read";
    case remedy::empty_copy:
        return storage.place().machine ? "it was so when the archive was made"
                                       : "is it the right file?";
    case remedy::no_repair:
        return with("salvage") + " shows what can be read; no command helps until the device has "
                                 "all its bytes";
    case remedy::prepare:
        return with("prepare") + " makes a log of it";
    case remedy::prepare_over:
        return with("prepare", " --yes") + " saves what is there and makes a log in its place";
    case remedy::salvage_foreign:
    case remedy::salvage_post: {
        const std::string shown =
            (found.foreign ? with("salvage")
                           : "'devaccess postlog salvage --file " + storage.path() + "'") +
            " shows its entries";
        return storage.is_copy() ? shown
               : storage.is_eeprom()
                   ? shown + ", " + with("copy", " --force") + " replaces it by a log"
                   : shown + ", " + with("prepare", " --yes") +
                         " saves it and makes a log in its place";
    }
    case remedy::copy:
        return with("copy") + " makes a log of it";
    case remedy::copy_over:
        return with("copy", " --force") + " replaces what is there by a log";
    case remedy::repair:
        return with("repair", " --yes") + " keeps what is good";
    default:
        return found.advice;
    }
}

std::string way_out(const log_storage &storage, const log_findings &found)
{
    const bool has_more = found.state == storage_state::damaged;
    const std::string check =
        podlog_command("check " + storage.card().name, storage.place()) + " tells more, ";
    return (has_more ? check : "") + remedy_hint(storage, found);
}

log_findings expect_readable(const log_storage &storage)
{
    try {
        return storage.judge(storage.bytes());
    } catch (failure &failed) {
        failed.status = status_of(state_of_error(failed.error));
        throw;
    }
}

std::string save_aside(const log_storage &storage, const log_findings &found,
                       const std::string &file)
{
    ::close(storage.open(true)); // what cannot be written needs no copy
    std::string target = file;
    const std::string name = fmt::format("/var/tmp/podlog-{}-{:%Y%m%dT%H%M%SZ}",
                                         storage.card().name, fmt::gmtime(std::time(nullptr)));
    for (int copy = 1; target.empty(); ++copy) {
        const std::string next = copy == 1 ? name + ".bin" : fmt::format("{}-{}.bin", name, copy);
        if (!std::filesystem::exists(next))
            target = next;
    }
    write_file(target, found.bytes(), true);
    note("what was there is saved in " + target);
    return target;
}

log_findings expect_log(const log_storage &storage)
{
    log_findings found = expect_readable(storage);
    if (found.holds_log)
        return found;
    const std::string what = "read the POD log of " + storage.card().name;
    if (found.state == storage_state::missing)
        throw failure(what,
                      found.way_out == remedy::none
                          ? found.problem
                          : fmt::format("{}: {}", storage.path(), std::strerror(ENOENT)),
                      way_out(storage, found), ENOENT);
    throw failure(what,
                  found.state == storage_state::empty ? storage.path() + " is blank"
                  : found.names_kind()                ? storage.path() + ": " + found.problem
                                                      : storage.path() + " holds no POD log",
                  way_out(storage, found), 0, status_of(found.state));
}

void fail_on(const log_storage &storage, const std::string &what, const outcome &how)
{
    if (!storage.is_device())
        ::close(storage.open(true)); // tells of a right that is missing
    const log_findings found = expect_readable(storage);
    const auto wrong = found.log ? found.log->wrong() : std::vector<log_record>();
    std::string why = how.said.empty() && !wrong.empty() ? "" : how.why();
    if (!wrong.empty())
        why += fmt::format("{}{}: {}", why.empty() ? "" : ": ", wrong.front().name(),
                           wrong.front().problem);
    throw failure(what, why, way_out(storage, found), 0, status_of(found.state));
}

//--- options --------------------------------------------------------------------------------------

namespace
{

std::vector<std::string> card_names(const given_options &given)
{
    const auto chassis = given.find("--chassis");
    std::vector<std::string> names;
    for (const pod_card &card :
         configure_cards(chassis == given.end() ? chassis_type() : chassis->second, false))
        names.push_back(card.name);
    return names;
}

} // namespace

option add_card(command &to, std::string &card, const char *meaning)
{
    return to.argument("CARD", card, meaning).choices(card_names);
}

option add_eeprom(command &to, log_place &place)
{
    return to
        .add_option("--eeprom", "FILE", place.eeprom, "Use the image FILE of the card's EEPROM")
        .paths();
}

option add_nvram(command &to, log_place &place)
{
    return to
        .add_option("--nvram", "FILE", place.nvram,
                    "Read the NVRAM image FILE instead of the machine's NVRAM")
        .paths();
}

option add_pod_directory(command &to, log_place &place)
{
    return to
        .add_option("--pod-dir", "DIRECTORY", place.pod_directory,
                    "Read the POD files in DIRECTORY instead of /var/pod")
        .paths();
}

void add_places(command &to, log_place &place)
{
    const option eeprom = add_eeprom(to, place);
    add_nvram(to, place).excludes(eeprom);
    add_pod_directory(to, place).excludes(eeprom);
}

void add_yes(command &to, bool &yes)
{
    to.add_flag("--yes", yes, "Do it; without this, only say what would be done");
}

void describe_podlog(command &podlog)
{
    podlog.footer("Also --chassis TYPE, --rp2, --json and others; see devaccess --help.");
    describe_reading(podlog);
    describe_timeline(podlog);
    describe_writing(podlog);
    describe_status(podlog);
    describe_salvage(podlog);
}

} // namespace devaccess

#include "commands.h"
#include "library.h"
#include "output.h"
#include "podlog_cards.h"
#include "podlog_storage.h"

#include <device_access/pod_log.h>
#include <device_access/pod_log_nvram.h>

#include <algorithm>
#include <chrono>
#include <thread>

namespace devaccess
{
namespace
{

struct podlog_arguments {
    std::string chassis;
    bool is_rp2 = false;
    std::string card;
    std::string history;
    bool follow = false;
    std::string level;
    std::string diagnostic;
    std::string result;
    std::string text;
    std::string eeprom;
    std::string value;
};

constexpr char cards_hint[] = "'devaccess podlog cards' shows the cards";
constexpr char nvram_hint[] = "the status words and fault flags are in the local NVRAM";

std::vector<pod_card> cards_of(const podlog_arguments &arguments)
{
    return configure_cards(arguments.chassis, arguments.is_rp2);
}

pod_card find_card(const podlog_arguments &arguments)
{
    const std::vector<pod_card> cards = cards_of(arguments);
    const auto found = std::find_if(cards.begin(), cards.end(), [&](const pod_card &card) {
        return card.name == arguments.card;
    });
    if (found == cards.end())
        throw failure("find the card " + arguments.card, "this chassis has none of that name",
                      cards_hint);
    return *found;
}

//--- reading --------------------------------------------------------------------------------------

template <typename T>
json if_any(const std::optional<T> &value)
{
    return value ? json(*value) : json();
}

void cards(const podlog_arguments &arguments)
{
    record_set set = {"cards", {}};
    for (const pod_card &card : cards_of(arguments))
        set.rows.push_back(record()
                               .add("card", card.name)
                               .add("id", if_any(card.registry_id))
                               .add("storage", storage_name(card.storage))
                               .add("storage_id", card.storage_id)
                               .add("secondary_eeprom", if_any(card.secondary)));
    print(std::move(set));
}

int secondary_of(const pod_card &card)
{
    if (!card.secondary)
        throw failure("use the EEPROM of " + card.name, "the card has no secondary storage",
                      cards_hint);
    return *card.secondary;
}

// The card's log, or the one of its EEPROM when a file holds that.
pod_storage log_of(const podlog_arguments &arguments)
{
    const pod_card card = find_card(arguments);
    if (arguments.eeprom.empty())
        return pod_storage(card.name, card.storage, card.storage_id);
    const int eeprom = secondary_of(card);
    bind_eeprom_file(eeprom, arguments.eeprom, false);
    return pod_storage(card.name, PODSTORAGE_EEPROM, eeprom);
}

void list(const podlog_arguments &arguments)
{
    record_set set = {"histories", {}};
    for (const log_history &history : log_of(arguments).histories())
        set.rows.push_back(record().add("history", history.number).add_time("time", history.time));
    print(record().add("card", arguments.card).add(std::move(set)));
}

record entry_row(const log_entry &entry)
{
    return record().add_time("time", entry.time).add("message", entry.message);
}

std::optional<int> wanted_history(const podlog_arguments &arguments, const pod_storage &log)
{
    if (!arguments.history.empty())
        return static_cast<int>(parse_number("the history", arguments.history, INT32_MAX));
    const std::vector<log_history> histories = log.histories();
    return histories.empty() ? std::nullopt : std::optional(histories.front().number);
}

// How far a follower has read.
struct bookmark {
    int history = -1;
    size_t entries = 0;
};

// The entries that came since; a history that became shorter has been started anew.
void print_new_entries(const pod_storage &log, bookmark &seen)
{
    const std::vector<log_entry> entries = log.read(seen.history).entries;
    if (entries.size() < seen.entries)
        seen.entries = 0;
    for (; seen.entries < entries.size(); ++seen.entries)
        print_line(entry_row(entries[seen.entries]));
}

void go_on(const podlog_arguments &arguments, const pod_storage &log, bookmark &seen)
{
    const std::optional<int> history = wanted_history(arguments, log);
    if (!history)
        return;
    if (seen.history != *history) {
        if (seen.history >= 0)
            print_new_entries(log, seen); // the last ones of the history that ended
        seen = {*history, 0};
    }
    print_new_entries(log, seen);
}

[[noreturn]] void follow(const podlog_arguments &arguments, const pod_storage &log)
{
    for (bookmark seen;;) {
        try {
            go_on(arguments, log, seen);
        } catch (const failure &failed) {
            if (failed.error != EBUSY) // a writer has it open for a moment
                throw;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
    }
}

void show(const podlog_arguments &arguments)
{
    const pod_storage log = log_of(arguments);
    if (arguments.follow)
        follow(arguments, log);
    const std::optional<int> history = wanted_history(arguments, log);
    const log_contents contents = history ? log.read(*history) : log_contents();
    record_set entries = {"entries", {}};
    for (const log_entry &entry : contents.entries)
        entries.rows.push_back(entry_row(entry));
    print(record()
              .add("card", arguments.card)
              .add("history", if_any(history))
              .add(std::move(entries)));
    if (contents.broken)
        throw *contents.broken;
}

//--- writing --------------------------------------------------------------------------------------

// A card's storage, opened through the front end.
class open_storage
{
public:
    open_storage(const pod_card &card, bool read_only) : id_(card.id)
    {
        const auto opened = ask([&] { return podlog_init(id_, read_only); });
        if (opened.result != 1)
            fail("open the log of " + card.name, opened, log_hint);
    }
    ~open_storage()
    {
        ask([this] {
            podlog_close(id_);
            return 0;
        });
    }
    open_storage(const open_storage &) = delete;
    open_storage &operator=(const open_storage &) = delete;

private:
    int id_;
};

char *or_null(std::string &text)
{
    return text.empty() ? nullptr : text.data();
}

void add(const podlog_arguments &arguments)
{
    podlog_arguments words = arguments;
    const pod_card card = find_card(arguments);
    const open_storage storage(card, false);
    const auto added = ask([&] {
        return podlog_add(card.id, or_null(words.level), or_null(words.diagnostic),
                          or_null(words.result), "%s", words.text.c_str());
    });
    if (added.result != 1)
        fail("add to the log of " + card.name, added, log_hint);
}

void next(const podlog_arguments &arguments)
{
    const pod_card card = find_card(arguments);
    const open_storage storage(card, false);
    const auto moved = ask([&] { return podlog_use_nxt_log(card.id); });
    if (moved.result != 1)
        fail("start the next history of " + card.name, moved, log_hint);
}

void copy(const podlog_arguments &arguments)
{
    const pod_card card = find_card(arguments);
    const int eeprom = secondary_of(card);
    const pod_storage log(card.name, card.storage, card.storage_id);
    const std::vector<log_history> histories = log.histories();
    if (histories.empty())
        throw failure("copy the log of " + card.name, "it is empty",
                      "'devaccess podlog add' adds entries");
    bind_eeprom_file(eeprom, arguments.eeprom, true);
    const int copied = log.copy(histories.front().number, eeprom);
    print(record()
              .add("card", card.name)
              .add("history", histories.front().number)
              .add("copied", copied));
}

//--- storages -------------------------------------------------------------------------------------

// Why a card's storage cannot be read; null when it can.
json problem_of(const pod_card &card)
{
    const auto opened = ask([&] { return podlog_init(card.id, 1); });
    if (opened.result != 1)
        return opened.why();
    ask([&] {
        podlog_close(card.id);
        return 0;
    });
    return nullptr;
}

void check(const podlog_arguments &arguments)
{
    record_set set = {"storages", {}};
    size_t bad = 0;
    for (const pod_card &card : cards_of(arguments)) {
        const json problem = problem_of(card);
        bad += problem.is_null() ? 0 : 1;
        set.rows.push_back(record()
                               .add("card", card.name)
                               .add("storage", storage_name(card.storage))
                               .add("storage_id", card.storage_id)
                               .add("good", problem.is_null())
                               .add("problem", problem));
    }
    const size_t all = set.rows.size();
    print(std::move(set));
    if (bad > 0)
        throw failure("open every log",
                      std::to_string(bad) + " of " + std::to_string(all) + " storages are not good",
                      "'devaccess podlog prepare' makes those that hold no log");
}

void prepare(const podlog_arguments &arguments)
{
    cards_of(arguments);
    const auto prepared = ask(podlog_chk_storage_integrity);
    if (prepared.result != 1)
        fail("prepare every storage", prepared, "'devaccess podlog check' shows each");
}

//--- status and faults ----------------------------------------------------------------------------

class open_nvram
{
public:
    explicit open_nvram(bool read_only)
    {
        const auto opened = ask([&] { return podlog_nvram_init(0, read_only); });
        if (opened.result != 1)
            fail("open the POD NVRAM", opened, "is it in use, or damaged?");
    }
    ~open_nvram()
    {
        ask([] {
            podlog_nvram_close(0);
            return 0;
        });
    }
    open_nvram(const open_nvram &) = delete;
    open_nvram &operator=(const open_nvram &) = delete;
};

struct mapped_card {
    int index; // of its status word and fault flag
    int id;
    std::string name;
};

std::vector<mapped_card> mapped_cards(const podlog_arguments &arguments)
{
    cards_of(arguments);
    pod_nvram_inst_map_t map = {};
    podlog_nvram_get_inst_mapping(0, &map);
    std::vector<mapped_card> cards;
    for (int i = 0; i < map.num_inst && i < 8; ++i) {
        cards.push_back({i, map.index0[i], map.name0[i]});
        if (map.index1[i] != -1)
            cards.push_back({i, map.index1[i], map.name1[i]});
    }
    if (arguments.card.empty())
        return cards;
    std::erase_if(cards, [&](const mapped_card &card) { return card.name != arguments.card; });
    if (cards.empty())
        throw failure("find the status of " + arguments.card, "the NVRAM has no word for it",
                      "'devaccess podlog status' shows the cards");
    return cards;
}

constexpr struct {
    const char *name;
    uint32_t value;
} status_values[] = {
    {"passed", POD_STATUS_PASSED}, {"failed", POD_STATUS_FAILED}, {"invalid", POD_STATUS_INVALID}};

uint32_t status_value(const std::string &text)
{
    for (const auto &known : status_values)
        if (text == known.name)
            return known.value;
    return static_cast<uint32_t>(
        parse_number("the status (passed, failed, invalid or a number)", text, UINT32_MAX));
}

void set_status(const podlog_arguments &arguments)
{
    const auto value = static_cast<int>(status_value(arguments.value));
    const mapped_card card = mapped_cards(arguments).front();
    const open_nvram nvram(false);
    const auto stored = ask([&] { return podlog_set_pod_status(card.id, value); });
    if (stored.result != 1)
        fail("set the status of " + card.name, stored, nvram_hint);
}

void status(const podlog_arguments &arguments)
{
    if (!arguments.value.empty()) {
        set_status(arguments);
        return;
    }
    const std::vector<mapped_card> cards = mapped_cards(arguments);
    const open_nvram nvram(true);
    record_set set = {"statuses", {}};
    for (const mapped_card &card : cards) {
        const auto found = ask([&] { return podlog_get_pod_status(card.id); });
        set.rows.push_back(record()
                               .add("card", card.name)
                               .add("index", card.index)
                               .add("status", podlog_nvram_convert_pod_status_str(found.result))
                               .add_hex("value", found.result, 8));
    }
    print(std::move(set));
}

uint32_t fault_mask()
{
    uint8_t bytes[4] = {};
    const auto position = static_cast<uint32_t>(podlog_nvram_get_faultinject_pos(0));
    const auto read = ask([&] { return pod_nvram_mem_rd(0, position, bytes, sizeof bytes); });
    if (read.result != sizeof bytes)
        fail("read the fault flags", read, nvram_hint);
    return uint32_t{bytes[0]} | uint32_t{bytes[1]} << 8 | uint32_t{bytes[2]} << 16 |
           uint32_t{bytes[3]} << 24;
}

void faults(const podlog_arguments &arguments)
{
    const std::vector<mapped_card> cards = mapped_cards(arguments);
    const open_nvram nvram(true);
    const uint32_t mask = fault_mask();
    record_set set = {"faults", {}};
    for (const mapped_card &card : cards)
        set.rows.push_back(record()
                               .add("card", card.name)
                               .add("index", card.index)
                               .add("injected", (mask >> card.index & 1) != 0));
    print(record().add_hex("mask", mask, 8).add(std::move(set)));
}

void change_fault(const podlog_arguments &arguments, bool clear)
{
    const mapped_card card = mapped_cards(arguments).front();
    const open_nvram nvram(false);
    const auto changed = ask([&] { return podlog_faultinject_pod_status(card.id, clear); });
    if (changed.result != 1)
        fail("change the fault flag of " + card.name, changed, nvram_hint);
}

void inject_fault(const podlog_arguments &arguments)
{
    change_fault(arguments, false);
}

void clear_fault(const podlog_arguments &arguments)
{
    change_fault(arguments, true);
}

void clear_all_faults(const podlog_arguments &arguments)
{
    cards_of(arguments);
    const open_nvram nvram(false);
    const auto cleared = ask([] { return podlog_nvram_clr_all_faultinject(0); });
    if (cleared.result != 1)
        fail("clear the fault flags", cleared, nvram_hint);
}

//--- command line ---------------------------------------------------------------------------------

using arguments_ptr = std::shared_ptr<podlog_arguments>;

CLI::App *add_card_command(CLI::App &family, const std::string &name,
                           const std::string &description, const arguments_ptr &arguments,
                           void (*action)(const podlog_arguments &))
{
    CLI::App *command = add_command(family, name, description, arguments, action);
    command->add_option("CARD", arguments->card, "e.g. RPSW1")->required();
    return command;
}

void add_eeprom_option(CLI::App *command, const arguments_ptr &arguments, bool required)
{
    command->add_option("--eeprom", arguments->eeprom, "file that holds the card's EEPROM")
        ->option_text("FILE")
        ->required(required);
}

void add_reading_commands(CLI::App &podlog, const arguments_ptr &arguments)
{
    add_command(podlog, "cards", "the cards, and where each keeps its log", arguments, cards);
    add_eeprom_option(
        add_card_command(podlog, "list", "a log's histories, newest first", arguments, list),
        arguments, false);
    CLI::App *shown = add_card_command(podlog, "show", "the entries of a history", arguments, show);
    shown->add_option("HISTORY", arguments->history, "its number; without it, the newest");
    shown->add_flag("--follow", arguments->follow, "go on with what is added, a line for each");
    add_eeprom_option(shown, arguments, false);
}

void add_writing_commands(CLI::App &podlog, const arguments_ptr &arguments)
{
    CLI::App *adding =
        add_card_command(podlog, "add", "an entry to the current history", arguments, add);
    adding->add_option("TEXT", arguments->text, "of the entry")->required();
    adding->add_option("--level", arguments->level, "event level, with the separator behind it");
    adding->add_option("--diag", arguments->diagnostic, "name of the diagnostic");
    adding->add_option("--result", arguments->result, "its result");
    add_card_command(podlog, "next", "start the next history, which empties the oldest", arguments,
                     next);
    add_eeprom_option(add_card_command(podlog, "copy", "the newest history to the card's EEPROM",
                                       arguments, copy),
                      arguments, true);
}

void add_status_commands(CLI::App &podlog, const arguments_ptr &arguments)
{
    CLI::App *state = add_command(
        podlog, "status", "POD results of the cards; with a value, set it", arguments, status);
    state->add_option("CARD", arguments->card, "only this one");
    state->add_option("VALUE", arguments->value, "passed, failed, invalid or a number");

    CLI::App *flags = podlog.add_subcommand("faults", "fault-injection flags of the cards");
    flags->callback([flags, arguments] {
        if (flags->get_subcommands().empty())
            faults(*arguments);
    });
    add_card_command(*flags, "set", "a card's flag", arguments, inject_fault);
    add_card_command(*flags, "clear", "a card's flag", arguments, clear_fault);
    add_command(*flags, "clear-all", "every flag", arguments, clear_all_faults);
}

} // namespace

void add_podlog_commands(CLI::App &program)
{
    const auto arguments = std::make_shared<podlog_arguments>();
    CLI::App &podlog = *program.add_subcommand("podlog", "POD logs of the cards");
    podlog.require_subcommand(1);
    podlog
        .add_option("--chassis", arguments->chassis,
                    "n20, n10 or n4; without it, the library's built-in table of cards")
        ->check(CLI::IsMember({"n20", "n10", "n4"}));
    podlog.add_flag("--rp2", arguments->is_rp2, "the software runs on RPSW2");
    add_reading_commands(podlog, arguments);
    add_writing_commands(podlog, arguments);
    add_command(podlog, "check", "open every card's storage for reading", arguments, check);
    add_command(podlog, "prepare", "create and format the storages that hold no log", arguments,
                prepare);
    add_status_commands(podlog, arguments);
}

} // namespace devaccess

// POD results and fault-injection flags: status, faults.
#include "tools/base/errors.h"
#include "tools/base/numbers.h"
#include "tools/cli/options.h"
#include "tools/podlog/podlog_commands.h"

#include <device_access/pod_log.h>
#include <device_access/pod_log_nvram.h>

#include <algorithm>

#include <fmt/format.h>

namespace devaccess
{
namespace
{

constexpr char nvram_hint[] = "the status words and fault flags are in the local NVRAM";

struct status_arguments {
    log_place place;
    std::string card;
    std::string value;
};

struct mapped_card {
    int index; // of its status word and fault flag
    int id;
    std::string name;
};

// All, or the one of this name.
std::vector<mapped_card> mapped_cards(const std::string &name = "")
{
    pod_nvram_inst_map_t map = {};
    podlog_nvram_get_inst_mapping(0, &map);
    std::vector<mapped_card> cards;
    for (int i = 0; i < map.num_inst && i < 8; ++i) {
        cards.push_back({i, map.index0[i], map.name0[i]});
        if (map.index1[i] != -1)
            cards.push_back({i, map.index1[i], map.name1[i]});
    }
    if (name.empty())
        return cards;
    std::erase_if(cards, [&](const mapped_card &card) { return card.name != in_capitals(name); });
    if (cards.empty())
        throw failure("find the status of " + name, "the NVRAM has no status word for it",
                      podlog_command("status") + " shows the cards");
    return cards;
}

// The local NVRAM, whichever card's log it has.
log_storage local_nvram(const log_place &place, const std::vector<pod_card> &cards)
{
    const auto local = std::find_if(cards.begin(), cards.end(), [](const pod_card &card) {
        return card.storage == PODSTORAGE_NVRAM;
    });
    return log_storage(place, *local);
}

// The words and flags, which a damaged log beside them leaves as they are.
log_image nvram_contents(const log_storage &nvram)
{
    const log_findings found = expect_log(nvram);
    if (found.log->missing() > 0)
        throw failure("read " + nvram.path(), found.problem, way_out(nvram, found), 0,
                      exit_damaged);
    return *found.log;
}

log_image contents_of(const machine_source &machine, const log_place &place)
{
    return nvram_contents(local_nvram(place.in(machine), cards_of(machine)));
}

template <typename Call>
void change_status(const log_storage &nvram, const std::string &what, Call call)
{
    expect_log(nvram);
    const auto ready = ask_log([] { return podlog_nvram_init(0, 0); });
    if (ready.result != 1)
        fail_on(nvram, what, ready);
    const opened device([] { podlog_nvram_close(0); });
    const auto changed = ask_log(call);
    if (changed.result != 1)
        fail(what, changed, nvram_hint);
}

//--- status words ---------------------------------------------------------------------------------

constexpr struct {
    const char *name;
    uint32_t value;
} status_values[] = {
    {"PASSED", POD_STATUS_PASSED}, {"FAILED", POD_STATUS_FAILED}, {"INVALID", POD_STATUS_INVALID}};

uint32_t status_value(const std::string &text)
{
    for (const auto &known : status_values)
        if (in_capitals(text) == known.name)
            return known.value;
    return static_cast<uint32_t>(
        parse_number("the status (passed, failed, invalid or a number)", text, UINT32_MAX));
}

// As the library's users see it.
const char *meaning_of(uint32_t word)
{
    return podlog_nvram_convert_pod_status_str(word >> 31  ? POD_STATUS_INVALID
                                               : word == 0 ? POD_STATUS_PASSED
                                                           : POD_STATUS_FAILED);
}

record status_row(const mapped_card &card, uint32_t word)
{
    return record()
        .add("card", card.name)
        .add("index", card.index)
        .add("status", meaning_of(word))
        .warn_if(word != POD_STATUS_PASSED && word >> 31 == 0)
        .add_hex("value", word, 8);
}

void set_status(const status_arguments &arguments)
{
    if (!arguments.place.from.empty())
        throw usage_error("VALUE is set on this machine, not in an archive");
    const uint32_t value = status_value(arguments.value);
    const log_storage nvram = local_nvram(arguments.place, cards_for_writing());
    const mapped_card card = mapped_cards(arguments.card).front();
    change_status(nvram, "set the status of " + card.name,
                  [&] { return podlog_set_pod_status(card.id, static_cast<int>(value)); });
    record_set set = {"statuses", {status_row(card, value)}};
    print_done(record().add_hidden("table", table_name()).add(std::move(set)));
}

void status(const status_arguments &arguments)
{
    if (!arguments.value.empty()) {
        set_status(arguments);
        return;
    }
    fleet machines(arguments.place.from, archive_part::logs);
    record_set set = {"statuses", {}};
    std::string table;
    machines.for_each([&](const machine_source &machine, const std::string &host) {
        const log_image log = contents_of(machine, arguments.place);
        for (const mapped_card &card : mapped_cards(arguments.card))
            set.rows.push_back(
                machines.row(host).append(status_row(card, log.status_word(card.index))));
        table = table_of(machine);
    });
    print(record().add_hidden("table", table).add(std::move(set)));
    machines.finish();
}

//--- fault flags ----------------------------------------------------------------------------------

bool is_set(uint32_t mask, const mapped_card &card)
{
    return (mask >> card.index & 1) != 0;
}

record fault_rows(const std::string &card_name, const log_image &log, const std::string &table)
{
    const uint32_t mask = log.fault_mask();
    record_set set = {"faults", {}};
    for (const mapped_card &card : mapped_cards(card_name))
        set.rows.push_back(record()
                               .add("card", card.name)
                               .add("index", card.index)
                               .add("injected", is_set(mask, card))
                               .warn_if(is_set(mask, card)));
    return record().add_hidden("table", table).add_hex("mask", mask, 8).add(std::move(set));
}

void print_changed(const std::string &card_name, const log_storage &nvram)
{
    print_done(fault_rows(card_name, nvram_contents(nvram), table_name()));
}

void faults(const log_place &place)
{
    fleet machines(place.from, archive_part::logs);
    machines.print_each([&](const machine_source &machine, const std::string &) {
        return fault_rows("", contents_of(machine, place), table_of(machine));
    });
    machines.finish();
}

using fault_arguments = std::string; // the card

template <bool clear>
void change_fault(const fault_arguments &card_name)
{
    const log_storage nvram = local_nvram({}, cards_for_writing());
    const mapped_card card = mapped_cards(card_name).front();
    change_status(nvram, "change the fault flag of " + card.name,
                  [&] { return podlog_faultinject_pod_status(card.id, clear); });
    print_changed(card_name, nvram);
}

void clear_all_faults()
{
    const log_storage nvram = local_nvram({}, cards_for_writing());
    change_status(nvram, "clear the fault flags",
                  [] { return podlog_nvram_clr_all_faultinject(0); });
    print_changed("", nvram);
}

//--- command line ---------------------------------------------------------------------------------

void add_place_of_status(command &to, log_place &place)
{
    add_nvram(to, place);
    add_archives(to, place.from);
}

void add_status(command &to, status_arguments &arguments)
{
    add_card(to, arguments.card, "Show the result of this card only");
    to.argument("VALUE", arguments.value, "Result to set: passed, failed, invalid or a number")
        .choices([](const given_options &) {
            return std::vector<std::string>{"passed", "failed", "invalid"};
        });
    add_place_of_status(to, arguments.place);
}

void add_faulty_card(command &to, fault_arguments &card)
{
    add_card(to, card).required();
}

void describe_faults(command &flags)
{
    flags.takes(add_place_of_status, faults);
    flags.add("set", "Set the flag of a card", add_faulty_card, change_fault<false>);
    flags.add("clear", "Clear the flag of a card", add_faulty_card, change_fault<true>);
    flags.add("clear-all", "Clear every flag", clear_all_faults);
}

} // namespace

std::vector<card_status> card_statuses(const std::vector<pod_card> &cards, const log_place &place)
{
    const log_image log = nvram_contents(local_nvram(place, cards));
    std::vector<card_status> statuses;
    for (const mapped_card &card : mapped_cards())
        statuses.push_back(
            {card.name, meaning_of(log.status_word(card.index)), is_set(log.fault_mask(), card)});
    return statuses;
}

void describe_status(command &podlog)
{
    podlog.add("status", "Show the POD results of the cards, or set that of one", add_status,
               status);
    podlog.add_family("faults", "Show the fault-injection flags of the cards", describe_faults);
}

} // namespace devaccess

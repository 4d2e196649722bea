// POD results and fault-injection flags: status, faults.
#include "tools/cli/chassis_option.h"
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

struct mapped_card {
    int index; // of its status word and fault flag
    int id;
    std::string name;
};

std::vector<mapped_card> mapped_cards(const podlog_arguments &arguments)
{
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
    std::erase_if(
        cards, [&](const mapped_card &card) { return card.name != in_capitals(arguments.card); });
    if (cards.empty())
        throw failure("find the status of " + arguments.card, "the NVRAM has no word for it",
                      podlog_command(arguments, "status") + " shows the cards");
    return cards;
}

// The local NVRAM, whichever card's log it has.
log_storage local_nvram(const podlog_arguments &arguments, const std::vector<pod_card> &cards)
{
    const auto local = std::find_if(cards.begin(), cards.end(), [](const pod_card &card) {
        return card.storage == PODSTORAGE_NVRAM;
    });
    return log_storage(arguments, *local);
}

// The words and flags, which a damaged log beside them leaves as they are.
log_image nvram_contents(const log_storage &nvram)
{
    log_image log = nvram.log();
    if (log.missing() > 0)
        throw failure("read " + nvram.path(),
                      fmt::format("{} bytes of {} are missing", log.missing(), log.layout().size),
                      nvram.way_out(log.bytes()));
    return log;
}

template <typename Call>
void change_status(const log_storage &nvram, const std::string &what, Call call)
{
    nvram.log();
    const auto ready = ask_log([] { return podlog_nvram_init(0, 0); });
    if (ready.result != 1)
        nvram.fail(what, ready);
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

uint32_t status_word(const log_image &log, const mapped_card &card)
{
    return little_endian_at(log.bytes(), status_words_at + 4 * static_cast<size_t>(card.index));
}

void set_status(const podlog_arguments &arguments)
{
    const uint32_t value = status_value(arguments.value);
    const log_storage nvram = local_nvram(arguments, cards_for_writing());
    const mapped_card card = mapped_cards(arguments).front();
    change_status(nvram, "set the status of " + card.name,
                  [&] { return podlog_set_pod_status(card.id, static_cast<int>(value)); });
    record_set set = {"statuses", {status_row(card, value)}};
    print_done(record().add_hidden("table", table_name()).add(std::move(set)));
}

void status(const podlog_arguments &arguments)
{
    if (!arguments.value.empty()) {
        set_status(arguments);
        return;
    }
    const log_storage nvram = local_nvram(arguments, cards_for_reading());
    const log_image log = nvram_contents(nvram);
    record_set set = {"statuses", {}};
    for (const mapped_card &card : mapped_cards(arguments))
        set.rows.push_back(status_row(card, status_word(log, card)));
    print(record().add_hidden("table", table_name()).add(std::move(set)));
}

//--- fault flags ----------------------------------------------------------------------------------

bool is_set(uint32_t mask, const mapped_card &card)
{
    return (mask >> card.index & 1) != 0;
}

record fault_rows(const podlog_arguments &arguments, const log_storage &nvram)
{
    const uint32_t mask = little_endian_at(nvram_contents(nvram).bytes(), fault_mask_at);
    record_set set = {"faults", {}};
    for (const mapped_card &card : mapped_cards(arguments))
        set.rows.push_back(record()
                               .add("card", card.name)
                               .add("index", card.index)
                               .add("injected", is_set(mask, card))
                               .warn_if(is_set(mask, card)));
    return record().add_hidden("table", table_name()).add_hex("mask", mask, 8).add(std::move(set));
}

void faults(const podlog_arguments &arguments)
{
    print(fault_rows(arguments, local_nvram(arguments, cards_for_reading())));
}

void change_fault(const podlog_arguments &arguments, bool clear)
{
    const log_storage nvram = local_nvram(arguments, cards_for_writing());
    const mapped_card card = mapped_cards(arguments).front();
    change_status(nvram, "change the fault flag of " + card.name,
                  [&] { return podlog_faultinject_pod_status(card.id, clear); });
    print_done(fault_rows(arguments, nvram));
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
    const log_storage nvram = local_nvram(arguments, cards_for_writing());
    change_status(nvram, "clear the fault flags",
                  [] { return podlog_nvram_clr_all_faultinject(0); });
    print_done(fault_rows(arguments, nvram));
}

} // namespace

std::vector<card_status> card_statuses(const podlog_arguments &arguments,
                                       const std::vector<pod_card> &cards)
{
    const log_image log = nvram_contents(local_nvram(arguments, cards));
    const uint32_t mask = little_endian_at(log.bytes(), fault_mask_at);
    std::vector<card_status> statuses;
    for (const mapped_card &card : mapped_cards(arguments))
        statuses.push_back({card.name, meaning_of(status_word(log, card)), is_set(mask, card)});
    return statuses;
}

void add_podlog_status_commands(podlog_family &podlog)
{
    const auto &arguments = podlog.arguments;
    CLI::App *state =
        podlog.add("status", "Show the POD results of the cards; with a value, set one", status);
    podlog.add_card(state, "only this one")->required(false);
    offer(state->add_option("VALUE", arguments->value, "passed, failed, invalid or a number"),
          [](const given_options &) {
              return std::vector<std::string>{"passed", "failed", "invalid"};
          });
    podlog.add_nvram(state);

    podlog_family flags(podlog.app, "faults", "Show the fault-injection flags of the cards",
                        arguments);
    flags.app.require_subcommand(0, 1);
    add_chassis_options(flags.app);
    podlog.add_nvram(&flags.app);
    flags.app.callback([&app = flags.app, arguments] {
        if (app.get_subcommands().empty())
            faults(*arguments);
    });
    flags.add_for_card("set", "Set a card's flag", inject_fault);
    flags.add_for_card("clear", "Clear a card's flag", clear_fault);
    flags.add("clear-all", "Clear every flag", clear_all_faults);
}

} // namespace devaccess

#include "tools/podlog/cards.h"

#include <device_access/pod_log_nvram.h>

#include <algorithm>
#include <cstdio>

namespace devaccess
{
namespace
{

// Names of the registry, with the files and EEPROMs of cards that share their id with others: card
// N keeps its log in file first_file + N - 1.
struct card_family {
    const char *prefix;
    int first_card;
    int last_card;
    int first_file;
    bool has_eeprom; // of the file's number
};

constexpr card_family card_families[] = {
    {"RPSW", 1, 2, 16, false}, // the one that is not local: the mate's file
    {"ALSW", 1, 2, 0, true},   {"SW", 1, 4, 2, true},   {"FT", 1, 2, 6, false},
    {"PM", 1, 8, 8, false},    {"PEM", 1, 8, 8, false}, {"FT", 3, 6, 11, false},
};

constexpr int first_free_id = 1000; // above all slot numbers

pod_card row_of(const std::string &name, int id)
{
    pod_card card = {name, id, id, {}, 0, {}};
    pod_secondary_storage_type_t kind = POD2NDSTORAGE_NONE;
    int eeprom = -1;
    int row = 0;
    podlog_get_pod_storage_info(id, &card.storage, &card.storage_id, &kind, &eeprom, &row);
    if (kind == POD2NDSTORAGE_EEPROM)
        card.secondary = eeprom;
    return card;
}

bool has_own_id(const std::string &name, int id)
{
    char *holder = nullptr;
    return id >= 0 && podlog_get_pod_instance_name(id, &holder) == 1 && name == holder;
}

pod_card shared_row(const card_family &family, int number, const std::string &name, bool is_rp2)
{
    if (family.first_file == 16) {
        const bool local = number == (is_rp2 ? 2 : 1);
        return {name, 0, {}, local ? PODSTORAGE_NVRAM : PODSTORAGE_FILE, local ? 0 : 16, {}};
    }
    const int file = family.first_file + number - family.first_card;
    return {
        name, 0, {}, PODSTORAGE_FILE, file, family.has_eeprom ? std::optional(file) : std::nullopt};
}

std::vector<pod_card> registered_cards(bool is_rp2)
{
    std::vector<pod_card> cards;
    for (const card_family &family : card_families) {
        for (int number = family.first_card; number <= family.last_card; ++number) {
            std::string name = family.prefix + std::to_string(number);
            int id = 0;
            if (podlog_find_pod_instance(name.data(), &id) != 1)
                continue;
            cards.push_back(has_own_id(name, id) ? row_of(name, id)
                                                 : shared_row(family, number, name, is_rp2));
            if (!cards.back().registry_id)
                cards.back().id = first_free_id + static_cast<int>(cards.size());
        }
    }
    return cards;
}

void register_cards(const std::vector<pod_card> &cards)
{
    pod_storage_info_t table = {};
    for (const pod_card &card : cards) {
        storage_info_t &row = table.dev[table.num_storage++];
        std::snprintf(row.inst_name, sizeof row.inst_name, "%s", card.name.c_str());
        row.inst_id = card.id;
        row.type = card.storage;
        row.storage_inst_id = card.storage_id;
        row.secondary_storage_type = card.secondary ? POD2NDSTORAGE_EEPROM : POD2NDSTORAGE_NONE;
        row.secondary_storage_inst_id = card.secondary.value_or(-1);
    }
    podlog_config_pod_storage_info(&table);
}

void map_status_words(const std::vector<pod_card> &cards)
{
    pod_nvram_inst_map_t map = {};
    podlog_nvram_get_inst_mapping(0, &map);
    for (int i = 0; i < map.num_inst && i < 8; ++i) {
        const auto card = std::find_if(cards.begin(), cards.end(), [&](const pod_card &candidate) {
            return candidate.name == map.name0[i];
        });
        if (card != cards.end())
            map.index0[i] = card->id;
    }
    podlog_nvram_config_inst_mapping(0, &map);
}

} // namespace

std::vector<pod_card> configure_cards(const std::string &chassis, bool is_rp2)
{
    if (chassis.empty())
        return registered_cards(is_rp2);
    podlog_config_pod_storage_n20_n10(chassis == "n20"   ? ChassisType_N20
                                      : chassis == "n10" ? ChassisType_N10
                                                         : ChassisType_N4,
                                      is_rp2);
    std::vector<pod_card> cards = registered_cards(is_rp2);
    register_cards(cards);
    map_status_words(cards);
    return cards;
}

} // namespace devaccess

// Reads the registry of POD logs, and gives each card an id.
#include "tools/podlog/cards.h"

#include <device_access/pod_log_nvram.h>

#include <algorithm>
#include <cstdio>
#include <span>
#include <string_view>

namespace devaccess
{
namespace
{

constexpr int first_free_id = 1000; // above all slot numbers

bool has_own_id(const storage_info_t &row)
{
    char *holder = nullptr;
    return row.inst_id >= 0 && podlog_get_pod_instance_name(row.inst_id, &holder) == 1 &&
           std::string_view(holder) == row.inst_name;
}

std::vector<pod_card> registered_cards()
{
    pod_storage_info_t table;
    podlog_get_pod_storage_table(&table);
    std::vector<pod_card> cards;
    for (const storage_info_t &row : std::span(table.dev, static_cast<size_t>(table.num_storage))) {
        pod_card card = {row.inst_name, row.inst_id,         row.inst_id,
                         row.type,      row.storage_inst_id, {}};
        if (row.secondary_storage_type == POD2NDSTORAGE_EEPROM)
            card.secondary = row.secondary_storage_inst_id;
        if (!has_own_id(row)) {
            card.registry_id.reset();
            card.id = first_free_id + static_cast<int>(cards.size()) + 1;
        }
        cards.push_back(card);
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

// What the library has before the first chassis is configured.
class library_tables
{
public:
    library_tables() : cards_(registered_cards())
    {
        podlog_get_pod_storage_table(&registry_);
        podlog_nvram_get_inst_mapping(0, &map_);
    }

    const std::vector<pod_card> &restored() const
    {
        pod_storage_info_t registry = registry_;
        pod_nvram_inst_map_t map = map_;
        podlog_config_pod_storage_info(&registry);
        podlog_nvram_config_inst_mapping(0, &map);
        return cards_;
    }

private:
    std::vector<pod_card> cards_;
    pod_storage_info_t registry_ = {};
    pod_nvram_inst_map_t map_ = {};
};

} // namespace

std::vector<pod_card> configure_cards(const std::string &chassis, bool is_rp2)
{
    static const library_tables as_loaded;
    if (chassis.empty())
        return as_loaded.restored();
    podlog_config_pod_storage_n20_n10(chassis == "n20"   ? ChassisType_N20
                                      : chassis == "n10" ? ChassisType_N10
                                                         : ChassisType_N4,
                                      is_rp2);
    std::vector<pod_card> cards = registered_cards();
    register_cards(cards);
    map_status_words(cards);
    return cards;
}

} // namespace devaccess

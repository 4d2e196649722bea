// The cards of the POD log's registry, and where each keeps its log.
#pragma once

#include <device_access/pod_log.h>

#include <optional>
#include <string>
#include <vector>

namespace devaccess
{

struct pod_card {
    std::string name;
    int id;                         // by which the library's calls reach it while this program runs
    std::optional<int> registry_id; // the library's own, if it has one
    pod_storage_type_t storage;
    int storage_id;
    std::optional<int> secondary; // EEPROM id
};

// Configures the registry and gives its cards. Without a chassis ("n20", "n10", "n4") it is the one
// that the library has as loaded.
//
// The registry gives every card whose name the slot table lacks the same id, so that of these cards
// only one could be reached. Here each gets an id of its own, in the status mapping too.
std::vector<pod_card> configure_cards(const std::string &chassis, bool is_rp2);

} // namespace devaccess

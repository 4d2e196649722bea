// The instances of the POD log: where each card's log is kept, and which of its storages is in use.
#pragma once

#include "lib/podlog/ring.h"

#include <device_access/pod_log.h>

#include <span>

namespace device_access
{

// The rows in force, in their order.
std::span<storage_info_t> registered_instances();

// The first row of an instance, or NULL.
storage_info_t *find_instance(int inst_id);

// The same, reporting one that is missing; func is the name of the operation that asks.
const storage_info_t *find_instance_or_report(const char *func, int inst_id);
const storage_info_t *find_card_or_report(const char *func, const char *cardname);
const storage_info_t *find_secondary_or_report(const char *func, int inst_id); // with an EEPROM
int invalid_instance(const char *func, int inst_id);

// Whether the calls of a row's instance go to its primary storage. Configuring anew leaves it.
int &uses_primary(const storage_info_t *row);

// The logs of an instance: none for no row, and for a type that is none of the storages'.
pod_log_ring primary_log(const storage_info_t *row);
pod_log_ring secondary_log(const storage_info_t *row);
pod_log_ring selected_log(const storage_info_t *row); // the one it is switched to

} // namespace device_access

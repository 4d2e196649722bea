// /dev/mem, as far as a description says what is there.
#pragma once

#include "sim/devices/access_trap.h"
#include "sim/devices/node.h"
#include "sim/parts/nodes.h"

#include <vector>

namespace chassis_sim
{

void add_physical_memory(node_list &nodes, const std::vector<memory_range> &ranges,
                         window_table &windows, const opening_services &with);

} // namespace chassis_sim

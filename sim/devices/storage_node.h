// The node of an NVRAM block, and what its openings answer.
#pragma once

#include "sim/devices/devices.h"
#include "sim/devices/node.h"
#include "sim/devices/opening.h"

namespace chassis_sim
{

// A node for each storage device, and for calls that are to fail, an opening.
void add_storage_nodes(node_list &nodes, devices &all, opening_table &openings);

} // namespace chassis_sim

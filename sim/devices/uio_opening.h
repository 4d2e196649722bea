// The nodes of a UIO device, /dev/uioN and its removal notice, and what their openings answer.
#pragma once

#include "sim/devices/access_trap.h"
#include "sim/devices/devices.h"
#include "sim/devices/node.h"
#include "sim/devices/opening.h"

namespace chassis_sim
{

void add_uio_nodes(node_list &nodes, devices &all, const opening_services &with);

} // namespace chassis_sim

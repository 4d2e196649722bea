// The files of the chassis that take lines: /dev/chassis, and those of the PCI bus.
#pragma once

#include "sim/devices/control_verbs.h"
#include "sim/devices/event_loop.h"
#include "sim/devices/node.h"

namespace chassis_sim
{

void add_control_nodes(node_list &nodes, const controlled &what, event_loop &loop);

} // namespace chassis_sim

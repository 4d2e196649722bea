// The files of PCI functions that do more than plain files: configuration spaces and BARs.
#pragma once

#include "sim/devices/access_trap.h"
#include "sim/devices/node.h"
#include "sim/parts/nodes.h"

#include <vector>

namespace chassis_sim
{

void add_pci_files(node_list &nodes, const std::vector<bar_node> &bars, window_table &windows,
                   const opening_services &with);

} // namespace chassis_sim

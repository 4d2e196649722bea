// The commands on whole machines.
#pragma once

#include "tools/cli/command.h"

namespace devaccess
{

void describe_check(command &check);
// 'pci check'
void describe_link_check(command &pci);
void describe_inventory(command &inventory);
void describe_collect(command &collect);
void describe_metrics(command &metrics);
void describe_diff(command &diff);
void describe_report(command &report);

} // namespace devaccess

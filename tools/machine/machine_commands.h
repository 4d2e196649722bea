// The commands on whole machines.
#pragma once

#include "tools/cli/command.h"

namespace devaccess
{

void describe_inventory(command &inventory);
void describe_collect(command &collect);
void describe_metrics(command &metrics);

} // namespace devaccess

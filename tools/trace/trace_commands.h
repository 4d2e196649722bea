// The commands on what programs do with their devices.
#pragma once

#include "tools/cli/command.h"

namespace devaccess
{

void describe_trace(command &trace);

} // namespace devaccess

// The commands on mapped registers and their maps.
#pragma once

#include "tools/cli/command.h"

namespace devaccess
{

void describe_uio(command &uio);
void describe_mem(command &mem);
void describe_map(command &map);

} // namespace devaccess

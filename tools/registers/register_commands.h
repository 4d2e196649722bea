// The commands on mapped registers.
#pragma once

#include "tools/cli/command.h"

namespace devaccess
{

void describe_uio(command &uio);
void describe_mem(command &mem);

} // namespace devaccess

// The commands on POST logs.
#pragma once

#include "tools/cli/command.h"
#include "tools/postlog/blocks.h"

namespace devaccess
{

void describe_postlog(command &postlog);

// --pcie and --post-dir
void add_post_place(command &to, postlog_place &place);

} // namespace devaccess

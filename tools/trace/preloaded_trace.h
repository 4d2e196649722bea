// Traces a program through an object that is loaded into it.
#pragma once

#include "tools/trace/trace_writer.h"

#include <string>
#include <vector>

namespace devaccess
{

// Runs the command to its end, and that of all that it has started. Returns its exit status.
int trace_preloaded(const std::vector<std::string> &command, traced_windows &windows,
                    const std::string &format, std::FILE *to);

} // namespace devaccess

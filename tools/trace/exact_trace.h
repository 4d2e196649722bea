// Traces any program by its faults: slow, and without a gap.
#pragma once

#include "tools/trace/trace_writer.h"

#include <string>
#include <vector>

namespace devaccess
{

// Runs the command to its end, and that of all that it has started. Returns its exit status.
//
// What the program maps of a device becomes memory that it cannot reach, so that each access is a
// fault, which this process, as its tracer, is told of first: it makes the access itself, in a
// mapping of its own, and the program goes on after the instruction.
int trace_exactly(const std::vector<std::string> &command, traced_windows &windows,
                  const std::string &format, std::FILE *to);

} // namespace devaccess

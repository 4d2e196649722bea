// Chassis that were recorded on a machine.
#pragma once

#include "sim/parts/recorded_trace.h"

#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

namespace chassis_sim
{

// Builds, as build_chassis does, the machine that "devaccess collect" has recorded: a tar archive
// with the attribute files of its PCI functions, UIO devices and NVRAM blocks, and the bytes of its
// logs. trace: what its registers do; NULL: nothing.
std::vector<pid_t> build_recorded_chassis(const std::string &archive, recorded_trace *trace);

// Writes the files of a recording, given by its bytes, into the private root that the process is
// in.
void write_recorded_tree(std::string_view archive);

} // namespace chassis_sim

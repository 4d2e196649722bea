// Chassis that were recorded on a machine.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

namespace chassis_sim
{

// Builds, as build_chassis does, the machine that "devaccess collect" has recorded: a tar archive
// with the attribute files of its PCI functions, UIO devices and NVRAM blocks, and the bytes of its
// logs.
std::vector<pid_t> build_recorded_chassis(const std::string &archive);

// Writes the files of a recording, given by its bytes, into the private root that the process is
// in.
void write_recorded_tree(std::string_view archive);

} // namespace chassis_sim

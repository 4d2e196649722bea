// Chassis that were recorded on a machine.
#pragma once

#include <string>

namespace chassis_sim
{

// Builds, as build_chassis does, the machine that "devaccess collect" has recorded: a tar archive
// with the attribute files of its PCI functions, UIO devices and NVRAM blocks, and the bytes of its
// logs.
void build_recorded_chassis(const std::string &archive);

} // namespace chassis_sim

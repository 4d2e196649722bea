// Register maps as parts of other JSON documents.
#pragma once

#include "register_map/json_members.h"
#include "register_map/register_map.h"

namespace register_map
{

// The member of this name, a list of registers; arrays and derived registers are read as what they
// stand for.
void visit_registers(json_members::reader &members, const char *name, std::vector<reg> &registers);
void visit_registers(json_members::writer &members, const char *name, std::vector<reg> &registers);

// What a list of registers must be: names once, each in the window, and known where one names
// another. size: of the window in bytes; 0: not known.
void check(const std::vector<reg> &registers, const std::string &where, uint64_t size);

} // namespace register_map

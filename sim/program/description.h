// A chassis as JSON text.
#pragma once

#include "sim/program/chassis.h"

#include <string>

namespace chassis_sim
{

// A chassis as JSON text, in the format that chassis-sim.schema.json defines. Reading throws a
// failure that names what is wrong; what a description leaves out is as a fresh chassis_description
// has it, but lists are empty.
std::string description_text(const chassis_description &description);
chassis_description read_description(const std::string &path);

// Of the text in a file of that name, whose directory files of register maps are relative to.
chassis_description parse_description(const std::string &text, const std::string &name);

} // namespace chassis_sim

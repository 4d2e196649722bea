// What a description may say.
#pragma once

#include "sim/program/chassis.h"

namespace chassis_sim
{

// Throws what would break the chassis, or lead out of it, if the description were taken at its
// word: the JSON path of the member, and why.
void check(const chassis_description &chassis);

} // namespace chassis_sim

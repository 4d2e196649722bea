// What devaccess makes of the bytes of a small log: the code of its check, salvage, repair and
// prepare.
#pragma once

#include "explore/reference.h"
#include "explore/storage.h"

#include <string>

namespace explore
{

// Both write what the command does; 1, or 0 where it refuses or has nothing to do.
int repair(storage &log);
int prepare(storage &log);

// What is wrong with what the tool says of an image, of which a reader finds this; empty when
// nothing is. An image that no cut has touched must be good.
std::string objection_to_check(const layout &where, const std::string &image, const contents &log,
                               const std::string &found, bool is_cut);

// The same of an image that the operation has left.
std::string objection_to_repair(const layout &where, const std::string &before,
                                const std::string &after);
std::string objection_to_prepare(const layout &where, const std::string &before,
                                 const std::string &after);

} // namespace explore

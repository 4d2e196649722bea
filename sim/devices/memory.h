// Memory as a file, which clients map and read.
#pragma once

#include "sim/base/files.h"

#include <string>

namespace chassis_sim
{

owned_fd make_memory(const std::string &name, size_t size, const std::string &contents = {});

// A new opening of it, as open(2) on a device gives one.
owned_fd reopen(const owned_fd &memory);

// What a descriptor of this process links to in /proc: the same for all of one file.
std::string own_link(const owned_fd &fd);

} // namespace chassis_sim

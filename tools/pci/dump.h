// Configuration spaces as lspci -xxxx writes them, which lspci -F reads.
#pragma once

#include "tools/pci/config_space.h"
#include "tools/pci/names.h"

#include <string>
#include <vector>

namespace devaccess
{

std::string dump_of(const config_space &config, const pci_names &names);

// The functions in a file.
std::vector<config_space> read_dump(const std::string &path);

} // namespace devaccess

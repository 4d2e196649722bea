// Compares dumps of registers.
#pragma once

#include "tools/registers/register_source.h"

#include <string>

namespace devaccess
{

struct diff_arguments {
    std::string a, b;
};

// Two files that dump --out or --json made. Fails when they differ.
void diff_dumps(const diff_arguments &arguments);

} // namespace devaccess

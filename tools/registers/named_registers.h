// What commands do with registers that are named.
#pragma once

#include "tools/registers/register_source.h"

namespace devaccess
{

void read_named(register_source &source, const register_arguments &arguments);
void write_named(register_source &source, const register_arguments &arguments);
void watch_named(register_source &source, const register_arguments &arguments);
void dump_named(register_source &source, const register_arguments &arguments);
void show_named(register_source &source, const register_arguments &arguments);

// The object of a dump of all registers that can be read without an effect.
record dump_of(register_source &source, const register_arguments &arguments);

} // namespace devaccess

// The commands on registers that UIO devices, memory and PCI resources have alike: read, write,
// dump, watch, show, diff.
#pragma once

#include "tools/cli/command.h"
#include "tools/registers/register_source.h"

namespace devaccess
{

void read_registers(register_source &source, const register_arguments &arguments);
void write_registers(register_source &source, const register_arguments &arguments);
void watch_registers(register_source &source, const register_arguments &arguments);
void dump_registers(register_source &source, const register_arguments &arguments);
void show_registers(register_source &source, const register_arguments &arguments);

// What each takes after its device. place: the words that say a place in numbers, "MAP OFFSET".
// names: what maps of a device are called.
struct source_words {
    std::string place;
    std::vector<std::string> (*names)(const std::string &device);
    std::string device; // the argument that says it
};
void add_read(command &to, register_arguments &arguments, const source_words &words);
void add_write(command &to, register_arguments &arguments, const source_words &words);
void add_watched(command &to, register_arguments &arguments, const source_words &words);
void add_dump(command &to, register_arguments &arguments, const source_words &words);
void add_show(command &to, register_arguments &arguments, const source_words &words);
void add_diff(command &to);

template <typename Source, void (*act)(register_source &, const register_arguments &)>
void on_source(const register_arguments &arguments)
{
    Source source(arguments);
    act(source, arguments);
}

template <typename Source, void (*add)(command &, register_arguments &, const source_words &)>
void describe_on_source(command &to, register_arguments &arguments)
{
    Source::add_device(to, arguments);
    add(to, arguments, {Source::place_words, Source::map_names_of_device, Source::device_word});
}

template <typename Source>
void add_register_commands(command &family)
{
    family.add("read", "Read registers", describe_on_source<Source, add_read>,
               on_source<Source, read_registers>);
    family.add("write", "Write registers", describe_on_source<Source, add_write>,
               on_source<Source, write_registers>);
    family.add("dump", "Print registers, in hexadecimal or by name",
               describe_on_source<Source, add_dump>, on_source<Source, dump_registers>);
    family.add("watch", "Print a register's value, and each change",
               describe_on_source<Source, add_watched>, on_source<Source, watch_registers>);
    family.add("show", "Show named registers with all their fields",
               describe_on_source<Source, add_show>, on_source<Source, show_registers>);
    add_diff(family);
}

} // namespace devaccess

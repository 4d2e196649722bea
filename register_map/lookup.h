// What names and offsets mean in a register map, and where the map of a device is found.
#pragma once

#include "register_map/register_map.h"

#include <map>
#include <string_view>
#include <unordered_map>

namespace register_map
{

// What a name stands for: a register, or a field of one.
struct place {
    const reg *is = nullptr;
    const field *part = nullptr; // NULL: all of it

    unsigned shift() const { return part ? part->lsb : 0; }
    uint64_t mask() const { return part ? part->mask() : ~uint64_t{0} >> (64 - is->size); }
    // Of the register's value.
    uint64_t of(uint64_t value) const { return (value & mask()) >> shift(); }
};

// A field of a value, and the word for it; NULL: it has none.
struct field_value {
    const field *is;
    uint64_t value;
    const std::string *word;
};

// What a value means that was read from, or written to, so many bits at this offset of a register's
// window. Fields of which the access had only a part are left out.
std::vector<field_value> fields_of(const reg &one, uint32_t offset, unsigned bits, uint64_t value);

// The names and places of a map, which must outlive it and stay as it is.
class index
{
public:
    explicit index(const map &names);

    // "NAME" or "NAME.FIELD", in any case of letters where that leaves one only.
    std::optional<place> find(std::string_view name) const;

    // The register that an access of so many bits touches; of several the one that begins there, is
    // as wide, and can be accessed so. NULL: none that the map knows.
    const reg *at(uint32_t window, uint64_t offset, unsigned bits, bool is_write = false) const;

private:
    const reg *find_register(const std::string &name) const;

    const map &map_;
    std::unordered_map<std::string_view, const reg *> by_name_;
    std::multimap<std::pair<uint32_t, uint64_t>, const reg *> by_place_;
};

//--- files ----------------------------------------------------------------------------------------

// What a PCI function says of itself, the most precise first: "vvvv:dddd:ssss:ssss" with its
// subsystem, and "vvvv:dddd". directory: in sysfs, also of what is no PCI function, which has none.
std::vector<std::string> names_of_pci(const std::string &directory);

// Where maps are looked for: the directories in the environment variable DEVACCESS_MAPS, colons
// between them; /etc/common_device_access/maps; and those installed with the running program.
std::vector<std::string> directories();

// The file NAME.json of the first directory that has one, for the first name that has one. Empty:
// there is none.
std::string file_for(const std::vector<std::string> &names);

} // namespace register_map

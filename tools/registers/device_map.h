// The register map of a device: finds it, and says what its registers hold.
#pragma once

#include "register_map/lookup.h"
#include "tools/base/output.h"

#include <optional>
#include <string>
#include <vector>

namespace devaccess
{

class device_map
{
public:
    explicit device_map(const std::string &file);
    device_map(const device_map &) = delete;
    device_map &operator=(const device_map &) = delete;

    const std::string &file() const { return file_; }
    const register_map::map &map() const { return map_; }

    // "REGISTER" or "REGISTER.FIELD"; a name that the map lacks is an error of the command line.
    register_map::place find(const std::string &name) const;
    // All names, for completion.
    std::vector<std::string> names() const;
    // Those of the registers, as they lie in the windows.
    std::vector<register_map::place> registers() const;

private:
    std::string file_;
    register_map::map map_;
    register_map::index index_;
};

// The file of a map: --map's, which may name one in the directories of maps, or else that of the
// first of the names that has one. Empty when there is none.
std::string map_file(const std::string &option, const std::vector<std::string> &names);

// Why a register is not read when nobody has named it; empty: it can be.
std::string why_unread(const register_map::reg &one);

// The members "register" and "fields" of what so many bits of a register hold.
record meaning_of(const register_map::place &place, unsigned bits, uint64_t value);

// A field's value in words of tables: "fast", "3", "yes".
std::string value_as_text(const register_map::field_value &one);

} // namespace devaccess

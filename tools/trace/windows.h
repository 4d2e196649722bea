// The devices of a trace and their windows, with the names of their registers.
#pragma once

#include "register_map/lookup.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>

namespace devaccess
{

inline constexpr int32_t no_map = -1; // the device itself
inline constexpr int32_t configuration_space = -2;

struct named_registers {
    register_map::map map;
    register_map::index index{map};
};

struct traced_window {
    std::string device; // "uio0", "0000:03:00.0" or "mem"; empty: not known
    int32_t map = no_map;
    std::shared_ptr<const named_registers> names; // NULL: none
    uint64_t base = 0;                            // of the names' offsets
    uint64_t accesses = 0;                        // that were seen
    bool is_mapped = false;                       // at any time

    // NULL: the map knows none.
    const register_map::reg *register_at(uint64_t offset, unsigned width, bool is_write) const;
    std::string text() const; // "uio0 map 0"
};

class traced_windows
{
public:
    // map_file: names all registers; empty: maps are looked for by what devices say of themselves.
    explicit traced_windows(const std::string &map_file);

    traced_window &get(const std::string &device, int32_t map);

    // Devices of which windows were mapped, and no access to any was seen.
    std::vector<std::string> without_accesses() const;

private:
    std::shared_ptr<const named_registers> names_of(const std::string &device);

    std::shared_ptr<const named_registers> given_;
    std::map<std::string, std::shared_ptr<const named_registers>> by_file_;
    std::map<std::pair<std::string, int32_t>, traced_window> windows_;
};

} // namespace devaccess

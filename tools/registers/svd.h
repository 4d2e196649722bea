// Register maps out of CMSIS-SVD, in which vendors describe their devices.
#pragma once

#include "register_map/register_map.h"
#include "tools/base/xml.h"

#include <string>
#include <vector>

namespace devaccess
{

struct svd_peripheral {
    std::string name;
    uint64_t address;
    std::string description;
};

class svd_file
{
public:
    explicit svd_file(const std::string &file);

    // Arrays of them as what they stand for.
    std::vector<svd_peripheral> peripherals() const;

    // The registers of a peripheral: arrays, clusters and what is derived from something else as
    // what they stand for.
    register_map::map map_of(const std::string &peripheral) const;

private:
    std::string file_;
    xml_element device_;
};

} // namespace devaccess

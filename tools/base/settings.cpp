// The settings, and the chassis type.
#include "tools/base/settings.h"

#include "tools/base/errors.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>

#include <fmt/format.h>

namespace devaccess
{

program_settings settings;

std::string chassis_type()
{
    if (!settings.chassis.empty())
        return settings.chassis;
    const char *variable = std::getenv(chassis_variable);
    std::string type = variable ? variable : "";
    if (type.empty() || std::find(std::begin(chassis_types), std::end(chassis_types), type) !=
                            std::end(chassis_types))
        return type;
    throw usage_error(fmt::format("{} is '{}'; it must be n20, n10 or n4", chassis_variable, type));
}

} // namespace devaccess

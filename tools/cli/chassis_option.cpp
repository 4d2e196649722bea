#include "tools/cli/chassis_option.h"

#include "tools/base/captured_call.h"
#include "tools/base/output.h"
#include "tools/cli/completion.h"

#include <algorithm>
#include <cstdlib>

#include <fmt/format.h>

namespace devaccess
{
namespace
{

const std::vector<std::string> types = {"n20", "n10", "n4"};

} // namespace

void add_chassis_options(CLI::App &app)
{
    one_of(app.add_option("--chassis", settings.chassis,
                          fmt::format("n20, n10 or n4; else the variable {}", chassis_variable))
               ->option_text("TYPE"),
           types);
    app.add_flag("--rp2", settings.is_rp2, "the software runs on RPSW2");
}

std::string chassis_type()
{
    if (!settings.chassis.empty())
        return settings.chassis;
    const char *variable = std::getenv(chassis_variable);
    std::string type = variable ? variable : "";
    if (type.empty() || std::find(types.begin(), types.end(), type) != types.end())
        return type;
    throw usage_error(fmt::format("{} is '{}'; it must be n20, n10 or n4", chassis_variable, type));
}

} // namespace devaccess

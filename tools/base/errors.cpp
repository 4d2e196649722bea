// Failures of commands.
#include "tools/base/errors.h"

#include "tools/base/rights.h"

namespace devaccess
{

failure::failure(const std::string &what, const std::string &why, const std::string &hint_text,
                 int errno_value, exit_status ends_with)
    : std::runtime_error("cannot " + what + ": " + why),
      hint(missing_right(why, errno_value).value_or(hint_text)), error(errno_value),
      status(ends_with)
{
}

} // namespace devaccess

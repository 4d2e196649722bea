#pragma once

#include "support/diagnostics.h"

namespace test_support
{

// libuio's diagnostics: each prefix "log[LEVEL]: lib/device_access/libuio:LINE:FUNCTION(): "
// becomes "LEVEL FUNCTION: ".
inline std::string libuio_messages(const std::string &output)
{
    return diagnostics(output, "log[", "]: lib/device_access/libuio:");
}

} // namespace test_support

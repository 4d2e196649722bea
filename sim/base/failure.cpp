// Failures as lines.
#include "sim/base/failure.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace chassis_sim
{

void fail(const std::string &what)
{
    throw failure(what + ": " + std::strerror(errno));
}

int must(int result, const std::string &what)
{
    if (result < 0)
        fail(what);
    return result;
}

void complain(const std::string &text)
{
    std::fprintf(stderr, "chassis-sim: %s\n", text.c_str());
}

} // namespace chassis_sim

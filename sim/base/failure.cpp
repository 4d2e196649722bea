// Failures as lines.
#include "sim/base/failure.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

namespace chassis_sim
{
namespace
{

std::string one_line(std::string text)
{
    for (char &byte : text)
        if (static_cast<unsigned char>(byte) < ' ' || byte == '\x7f')
            byte = '?';
    return text;
}

} // namespace

failure::failure(std::string text) : std::runtime_error(one_line(std::move(text))) {}

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

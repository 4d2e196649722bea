// How the chassis tells what went wrong.
#pragma once

#include <stdexcept>
#include <string>

namespace chassis_sim
{

// What keeps a chassis from being built, or a device from coming or going. The text is one line:
// control characters, which a name in it may have, become question marks.
struct failure : std::runtime_error {
    explicit failure(std::string text);
};

// Throws the failure "WHAT: strerror(errno)".
[[noreturn]] void fail(const std::string &what);

// The result of a system call that cannot fail here unless something is wrong with the machine.
int must(int result, const std::string &what);

// Writes a line "chassis-sim: TEXT" to standard error.
void complain(const std::string &text);

} // namespace chassis_sim

#pragma once

#include <functional>
#include <map>
#include <string>

namespace test_support
{

// How often each system call was made, by its name ("pread64", "write"; "#N" for one without a name
// here). Names are those of the kernel, the same for 64-bit and 32-bit programs.
using system_calls = std::map<std::string, int>;

// The system calls that a piece of code makes, counted in a child process that runs it: what it
// changes in memory is lost, what it does to files stays. Code that does not end normally gives
// {{"did not end", 1}}.
system_calls count_system_calls(const std::function<void()> &code);

// The sum over all names, and one line for messages.
int total(const system_calls &calls);
std::string text(const system_calls &calls);

} // namespace test_support

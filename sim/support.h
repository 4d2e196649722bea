#pragma once

#include <functional>
#include <string>
#include <string_view>

#include <sys/types.h>

namespace chassis_sim
{

// Ends the program with one line on standard error: "chassis-sim: WHAT: strerror(errno)".
[[noreturn]] void fail(const std::string &what);

// The result of a system call that cannot fail here unless something is wrong with the machine.
int must(int result, const std::string &what);

// All below work on absolute paths, make missing parent directories, and end the program when the
// file system refuses.
void make_directory(const std::string &path);
void write_file(const std::string &path, std::string_view contents, mode_t mode = 0644);
void make_symlink(const std::string &path, const std::string &target);
void bind_mount(const std::string &from, const std::string &to);

// Runs the work in a child process that ends with this one at the latest.
pid_t background(const std::function<void()> &work);

} // namespace chassis_sim

// A traced thread that has stopped at an access to a window that it cannot reach by itself.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include <sys/ptrace.h>
#include <sys/types.h>

namespace access_trace
{

long trace(__ptrace_request request, pid_t thread, uint64_t address, void *data);

// Lets it go on as far as the request says, with a signal if there is one.
void go_on(pid_t thread, __ptrace_request how, int signal_number = 0);

// The name of the program that it runs.
std::string name_of(pid_t thread);

// Whether its registers are too wide for this process.
bool is_too_wide(pid_t thread);

// What is really done where the thread has met a window.
class accesses
{
public:
    virtual ~accesses() = default;
    // Of 1, 2, 4 or 8 bytes.
    virtual uint64_t read(uint64_t offset, size_t width) = 0;
    virtual void write(uint64_t offset, size_t width, uint64_t value) = 0;
};

// Where in which window an instruction has met it.
struct met_window {
    uint64_t address; // that the thread has used
    uint64_t offset;
    uint64_t room;           // bytes to the window's end
    const std::string &name; // of the window
};

// Does the accesses of the instruction that the thread is at, puts their result where it belongs,
// and steps over it, so that each is done once, in order, with its width. False: the thread has
// gone. Throws a std::runtime_error when it cannot be done.
bool answer(pid_t thread, const met_window &at, accesses &to);

} // namespace access_trace

// What the checks need of the guest they run in.
#pragma once

#include <functional>
#include <string>
#include <thread>

#include <time.h>

namespace guest
{

// The sections, in the order in which they run.
void check_uio_on_a_pci_device();
void check_uio_of_the_chassis();

std::string read_text(const std::string &path);
void write_text(const std::string &path, const std::string &text);
std::string real_path(const std::string &path);

// A time on CLOCK_MONOTONIC, from now.
timespec in_ms(long ms);
long ms_since(const timespec &start);

// Waits at most 5 s; whether it came true.
bool comes_true(const std::function<bool()> &condition);

// Does something in a while, on another thread; the destructor waits for it.
class later
{
public:
    later(long ms, std::function<void()> action);
    ~later() { thread_.join(); }
    later(const later &) = delete;
    later &operator=(const later &) = delete;

private:
    std::thread thread_;
};

long open_descriptors();

// Has the virtual machine's monitor execute a command.
void monitor(const std::string &command);

} // namespace guest

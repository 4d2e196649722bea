// What the checks need of the guest they run in.
#pragma once

#include <functional>
#include <string>
#include <thread>

#include <time.h>

namespace guest
{

// The sections, in the order in which they run.
void check_pci();
void check_uio_on_a_pci_device();
void check_uio_emulation();
void check_memory();
void check_hotplug();
void check_uio_of_the_chassis();
void check_pod_log();
void check_post_logs();

std::string read_text(const std::string &path);
void write_text(const std::string &path, const std::string &text);
std::string real_path(const std::string &path);

// A time on CLOCK_MONOTONIC, from now.
timespec in_ms(long ms);
long ms_since(const timespec &start);

// Waits at most a minute; whether it came true.
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

// Have the virtual machine's monitor plug a device into a port, and ask the kernel to let one go.
void plug_device(const std::string &driver, const std::string &id, const std::string &port);
void unplug_device(const std::string &id);
// Waits until the device that was to go has gone from the virtual machine.
bool device_is_deleted();

} // namespace guest

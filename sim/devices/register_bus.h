// The accesses of clients to windows of registers, and what follows them.
#pragma once

#include "sim/devices/devices.h"
#include "sim/devices/register_window.h"

#include <cstdint>
#include <deque>
#include <optional>
#include <string>

#include <sys/types.h>

namespace chassis_sim
{

class register_bus
{
public:
    // trace: answers instead of the registers, as far as it goes; NULL: there is none.
    register_bus(devices &all, event_loop &loop, recorded_trace *trace);

    uint64_t read(register_window &window, uint64_t offset, size_t width, pid_t process);
    void write(register_window &window, uint64_t offset, size_t width, uint64_t value,
               pid_t process);

    // A line of JSON for each access so far.
    std::string log() const;

private:
    // What an access did, for those who ask afterwards.
    struct access {
        steady::time_point time;
        pid_t process;
        const register_window *window;
        uint64_t offset;
        size_t width;
        bool is_write;
        uint64_t value;
    };
    std::optional<uint64_t> played(const access &done);
    void play_interrupts(const std::string &device);
    void remember(const access &done);
    void act(register_window &window, const register_map::write_action &action, uint64_t written);

    devices &devices_;
    event_loop &loop_;
    recorded_trace *trace_;
    steady::time_point start_ = steady::now();
    std::deque<access> accesses_;
};

} // namespace chassis_sim

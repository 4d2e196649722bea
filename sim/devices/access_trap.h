// Follows the accesses of clients to windows of registers that behave.
#pragma once

#include "sim/devices/asking_process.h"
#include "sim/devices/opening.h"
#include "sim/devices/register_bus.h"

#include <map>
#include <set>
#include <vector>

namespace chassis_sim
{

// What a client maps of such a window is a file of no bytes, so each access is a fault, of which
// the kernel tells a tracer before the client: the instruction is decoded, its access answered, and
// it is stepped over. So every access is seen, in order, with its width, exactly once. A process is
// traced from its first mapping of such a window on, with all its threads and children, until it
// executes another program.
class access_trap
{
public:
    access_trap(window_table &windows, register_bus &bus, event_loop &loop);

    // Begins with it; an errno when it cannot be traced.
    int follow(const asking_process &client);
    bool follows(pid_t thread) const { return threads_.contains(thread); }

private:
    struct range {
        uint64_t start, end, offset;
        register_window *window;
    };
    struct met {
        register_window *window;
        uint64_t offset;
    };
    void handle_stops();
    void handle_stop(pid_t thread, int status);
    void handle_fault(pid_t thread);
    std::vector<range> ranges_of(pid_t thread) const;
    std::optional<met> find(pid_t thread, uint64_t address);

    window_table &windows_;
    register_bus &bus_;
    owned_fd children_; // tells that a thread has stopped
    std::set<pid_t> threads_;
    std::map<pid_t, std::vector<range>> ranges_;
};

// What openings work with.
struct opening_services {
    opening_table &table;
    event_loop &loop;
    access_trap &trap;
};

} // namespace chassis_sim

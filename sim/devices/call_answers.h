// Answers the system calls that work on the chassis's devices, and lets all others pass.
#pragma once

#include "sim/devices/access_trap.h"
#include "sim/devices/devices.h"
#include "sim/devices/event_loop.h"
#include "sim/devices/node.h"
#include "sim/devices/opening.h"
#include "sim/devices/syscall_filter.h"

namespace chassis_sim
{

class call_answers
{
public:
    // Descriptors from first_number on are given to those who open a UIO device.
    call_answers(const chassis_nodes &described, devices &all, window_table &windows,
                 register_bus &bus, event_loop &loop, unsigned int first_number);

    void answer(const asked_call &call);

private:
    void answer_open(const asked_call &call, int directory, uint64_t path_address, int flags);
    void answer_mknod(const asked_call &call, int directory, uint64_t path_address);
    void answer_on_descriptor(const asked_call &call, intercepted what);

    void answer_status(const asked_call &call, intercepted what);
    void answer_trace(const asked_call &call) const;
    node *node_at(const std::string &path, int flags) const;

    devices &devices_;
    access_trap trap_;
    opening_table openings_;
    node_list nodes_;
};

} // namespace chassis_sim

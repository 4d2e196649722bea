#pragma once

#include "sim/devices/asking_process.h"
#include "sim/devices/device_model.h"

#include <memory>
#include <vector>

namespace chassis_sim
{

// Reads of the count of interrupts, which wait for the next one.
class waiting_reads
{
public:
    // Answers the read now if it can be; else later.
    void add(const asked_call &call, const std::shared_ptr<opening> &from);

    // Answers those that can be by now.
    void settle();

private:
    struct waiter {
        asked_call call;
        std::shared_ptr<opening> from;
        owned_fd socket;
    };
    static bool answer(const waiter &read);

    std::vector<waiter> waiters_;
};

} // namespace chassis_sim

// Waits for descriptors and for times, and does what is to be done then.
#pragma once

#include "sim/base/files.h"

#include <chrono>
#include <functional>
#include <map>
#include <memory>

namespace chassis_sim
{

using steady = std::chrono::steady_clock;

class event_loop
{
public:
    using action = std::function<void()>;
    enum class turn { first, last }; // among those that are ready together

    event_loop();

    // Does it whenever the descriptor can be read or its other end is closed, until it is
    // forgotten.
    void watch(int fd, action ready, turn when = turn::first);
    void forget(int fd);

    // Does it once, at that time or soon after.
    void at(steady::time_point time, action due) { timers_.emplace(time, std::move(due)); }

    void run();
    void stop() { runs_ = false; }

private:
    struct watcher {
        action ready;
        turn when;
    };
    int time_left() const;
    void do_what_is_due();
    void attend(int fd, turn when);

    owned_fd events_;
    std::map<int, std::shared_ptr<watcher>> watchers_;
    std::multimap<steady::time_point, action> timers_;
    bool runs_ = true;
};

} // namespace chassis_sim

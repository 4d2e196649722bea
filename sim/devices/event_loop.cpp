// An epoll set and a list of times.
#include "sim/devices/event_loop.h"

#include <algorithm>
#include <exception>
#include <iterator>

#include <sys/epoll.h>

namespace chassis_sim
{

using std::chrono::milliseconds;

namespace
{

// What goes wrong in one is said, and the loop goes on.
void perform(const event_loop::action &what)
{
    try {
        what();
    } catch (const std::exception &error) {
        complain(error.what());
    }
}

} // namespace

event_loop::event_loop() : events_(must(::epoll_create1(EPOLL_CLOEXEC), "epoll_create")) {}

void event_loop::watch(int fd, action ready, turn when)
{
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.fd = fd;
    must(::epoll_ctl(events_.get(), EPOLL_CTL_ADD, fd, &event), "epoll_ctl");
    watchers_[fd] = std::make_shared<watcher>(watcher{std::move(ready), when});
}

void event_loop::forget(int fd)
{
    ::epoll_ctl(events_.get(), EPOLL_CTL_DEL, fd, nullptr);
    watchers_.erase(fd);
}

void event_loop::run()
{
    while (runs_) {
        epoll_event ready[64];
        const int count = ::epoll_wait(events_.get(), ready, std::size(ready), time_left());
        do_what_is_due();
        for (const turn when : {turn::first, turn::last})
            for (int i = 0; i < count; ++i)
                attend(ready[i].data.fd, when);
    }
}

void event_loop::attend(int fd, turn when)
{
    const auto found = watchers_.find(fd);
    if (found == watchers_.end() || found->second->when != when)
        return;
    const std::shared_ptr<watcher> kept = found->second; // it may forget itself
    perform(kept->ready);
}

int event_loop::time_left() const
{
    if (timers_.empty())
        return -1;
    const auto left =
        std::chrono::ceil<milliseconds>(timers_.begin()->first - steady::now()).count();
    return static_cast<int>(std::clamp<long long>(left, 0, 3600 * 1000LL));
}

void event_loop::do_what_is_due()
{
    const steady::time_point now = steady::now();
    while (!timers_.empty() && timers_.begin()->first <= now) {
        const auto due = timers_.extract(timers_.begin());
        perform(due.mapped());
    }
}

} // namespace chassis_sim

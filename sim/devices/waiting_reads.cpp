#include "sim/devices/waiting_reads.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/socket.h>

namespace chassis_sim
{

void waiting_reads::add(const asked_call &call, const std::shared_ptr<opening> &from)
{
    waiter read = {call, from, call.process().copy_of(call.int_argument(0))};
    if (answer(read))
        return;
    if (::fcntl(read.socket.get(), F_GETFL) & O_NONBLOCK)
        call.result(-EAGAIN);
    else
        waiters_.push_back(std::move(read));
}

void waiting_reads::settle()
{
    std::erase_if(waiters_, [](const waiter &read) { return !read.call.waits() || answer(read); });
}

// False when there is nothing to answer yet.
bool waiting_reads::answer(const waiter &read)
{
    uint32_t count;
    if (!read.from->device()) {
        read.call.result(-EIO);
        return true;
    }
    if (::recv(read.socket.get(), &count, sizeof count, MSG_DONTWAIT) != sizeof count)
        return false;
    const bool done = read.call.process().write(read.call.argument(1), &count, sizeof count);
    read.call.result(done ? int64_t{sizeof count} : -EFAULT);
    return true;
}

} // namespace chassis_sim

// Turns the faces of an opening under the client's descriptor.
#include "sim/devices/two_faced_opening.h"

#include "sim/devices/memory.h"

#include <cerrno>
#include <filesystem>
#include <thread>

#include <fcntl.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace chassis_sim
{

two_faced_opening::two_faced_opening(uio_device &of, opening_table &table, event_loop &loop,
                                     int flags)
    : device_(&of), table_(table), loop_(loop)
{
    int ends[2];
    must(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), "socketpair");
    near_end_.reset(ends[0]);
    far_end_.reset(ends[1]);
    must(::fcntl(near_end_.get(), F_SETFL, flags & O_NONBLOCK), "fcntl");
    socket_link_ = own_link(near_end_);
    device_->add(*this);
    loop_.watch(far_end_.get(), [this] { far_end_is_ready(); });
}

two_faced_opening::~two_faced_opening()
{
    if (device_)
        device_->forget(*this);
    if (far_end_)
        loop_.forget(far_end_.get());
}

bool two_faced_opening::hand_out(const asked_call &call, bool close_on_exec)
{
    const std::optional<unsigned int> number = table_.free_number(call.process());
    if (!number) {
        call.result(-EMFILE);
        return false;
    }
    const owned_fd socket = near_end();
    clients_.emplace(call.process().id(), *number);
    call.descriptor(socket.get(), close_on_exec, number);
    if (with_memory_.empty())
        near_end_.reset();
    return true;
}

bool two_faced_opening::is_behind(const std::string &link, const asking_process &client,
                                  int fd) const
{
    return link == socket_link_ ||
           (link == memory_link_ && with_memory_.contains({client.id(), fd}));
}

void two_faced_opening::show(const asked_call &call, int fd, int memory)
{
    show_socket(call, fd);
    if (call.process().link_of(fd) != socket_link_)
        return;
    if (!near_end_)
        near_end_ = call.process().copy_of(fd);
    call.replace(fd, memory);
    memory_link_ = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(memory));
    with_memory_.emplace(call.process().id(), fd);
    mapper_ = call.process().thread();
    shown_ = steady::now();
}

void two_faced_opening::show_socket(const asked_call &call, int fd)
{
    if (!with_memory_.contains({call.process().id(), fd}))
        return;
    // Another thread may be about to use what it was shown.
    if (call.process().thread() != mapper_)
        std::this_thread::sleep_until(shown_ + std::chrono::milliseconds(1));
    call.replace(fd, near_end_.get());
    clients_.emplace(call.process().id(), fd);
    forget_memory(call, fd);
}

void two_faced_opening::before_wait(const asked_call &call)
{
    const auto shown = with_memory_;
    for (const auto &[client, fd] : shown)
        show_socket(call, fd);
}

void two_faced_opening::forget_memory(const asked_call &call, int fd)
{
    with_memory_.erase({call.process().id(), fd});
    if (with_memory_.empty())
        near_end_.reset();
}

void two_faced_opening::close(const asked_call &call, int fd)
{
    forget_memory(call, fd);
    call.pass();
}

void two_faced_opening::use(const asked_call &call, int fd)
{
    show_socket(call, fd);
    call.pass();
}

void two_faced_opening::duplicate(const asked_call &call, int fd, bool close_on_exec)
{
    show_socket(call, fd);
    hand_out(call, close_on_exec);
}

bool two_faced_opening::is_nonblocking(const asked_call &call, int fd) const
{
    return (::fcntl(call.process().copy_of(fd).get(), F_GETFL) & O_NONBLOCK) != 0;
}

owned_fd two_faced_opening::near_end() const
{
    if (near_end_)
        return owned_fd(::fcntl(near_end_.get(), F_DUPFD_CLOEXEC, 0));
    for (const auto &[process, fd] : clients_) {
        const asking_process client(process);
        if (client.link_of(fd) == socket_link_)
            return client.copy_of(fd);
    }
    return owned_fd();
}

void two_faced_opening::put(uint32_t count) const
{
    int unread = 0;
    ::ioctl(far_end_.get(), SIOCOUTQ, &unread);
    if (unread != 0)
        take();
    ::send(far_end_.get(), &count, sizeof count, MSG_DONTWAIT | MSG_NOSIGNAL);
}

std::optional<uint32_t> two_faced_opening::take() const
{
    uint32_t count;
    if (::recv(near_end().get(), &count, sizeof count, MSG_DONTWAIT) != sizeof count)
        return std::nullopt;
    return count;
}

void two_faced_opening::shut()
{
    // A far end that has not read all leaves an error behind, as the kernel does.
    ::send(near_end().get(), "", 1, MSG_DONTWAIT | MSG_NOSIGNAL);
    loop_.forget(far_end_.get());
    far_end_.reset();
    device_ = nullptr;
}

void two_faced_opening::far_end_is_ready()
{
    int32_t flag;
    const ssize_t length = ::recv(far_end_.get(), &flag, sizeof flag, MSG_DONTWAIT);
    if (length == sizeof flag)
        written(flag);
    if (length == 0)
        table_.forget(this); // no client has it open
}

} // namespace chassis_sim

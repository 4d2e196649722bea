// Starts the device server, and runs it.
#include "sim/devices/device_server.h"

#include "sim/base/process.h"
#include "sim/devices/call_answers.h"
#include "sim/devices/control_verbs.h"
#include "sim/devices/syscall_filter.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace chassis_sim
{
namespace
{

using std::chrono::milliseconds;

unsigned int first_descriptor()
{
    rlimit limit;
    must(::getrlimit(RLIMIT_NOFILE, &limit), "getrlimit");
    const rlim_t end = std::min<rlim_t>(limit.rlim_cur, 1024); // that of select(2)
    return static_cast<unsigned int>(end - end / 4);
}

class server
{
public:
    server(const chassis_nodes &described, unsigned int first_number)
        : windows_(described.trace()), devices_(described, loop_, windows_),
          bus_(devices_, loop_, described.trace()),
          answers_(described, devices_, windows_, bus_, loop_, first_number)
    {
        if (const std::string missing = windows_.missing(); !missing.empty())
            throw failure("the trace has accesses to " + missing + ", which this chassis has not");
        for (const timed_line &line : described.lines())
            obey_at(steady::now() + milliseconds(line.at_ms), line);
        write_file(control_path, "", 0666);
    }

    // Until nobody is left who could ask.
    void run(int listener)
    {
        // What a client has written before its call is done before it.
        loop_.watch(
            listener, [this, listener] { answer_next(listener); }, event_loop::turn::last);
        loop_.run();
    }

private:
    void answer_next(int listener)
    {
        pollfd asked = {listener, POLLIN, 0};
        ::poll(&asked, 1, 0);
        if (!(asked.revents & POLLIN))
            return asked.revents == 0 ? void() : loop_.stop();
        std::optional<asked_call> call;
        try {
            call.emplace(listener);
            answers_.answer(*call);
        } catch (const std::exception &error) {
            if (!call)
                return; // it was interrupted
            complain(error.what());
            call->result(-EIO);
        }
    }

    void obey_at(steady::time_point time, const timed_line &line)
    {
        loop_.at(time, [this, time, line] {
            if (line.every_ms > 0)
                obey_at(time + milliseconds(line.every_ms), line);
            try {
                obey({devices_, windows_, bus_}, line.line);
            } catch (const std::exception &error) {
                if (line.every_ms == 0) // else it would be said again and again
                    complain(error.what());
            }
        });
    }

    event_loop loop_;
    window_table windows_;
    devices devices_;
    register_bus bus_;
    call_answers answers_;
};

// As many as the machine lets it have: it keeps some for each opening of a client.
void raise_own_limit()
{
    rlimit limit;
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
}

void send_descriptor(int socket, int fd)
{
    char byte = 0;
    iovec data = {&byte, 1};
    alignas(cmsghdr) char space[CMSG_SPACE(sizeof fd)] = {};
    msghdr message = {};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = space;
    message.msg_controllen = sizeof space;
    cmsghdr *header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof fd);
    std::memcpy(CMSG_DATA(header), &fd, sizeof fd);
    must(static_cast<int>(::sendmsg(socket, &message, 0)), "sendmsg");
}

int receive_descriptor(int socket)
{
    char byte;
    iovec data = {&byte, 1};
    alignas(cmsghdr) char space[CMSG_SPACE(sizeof(int))] = {};
    msghdr message = {};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = space;
    message.msg_controllen = sizeof space;
    if (::recvmsg(socket, &message, MSG_CMSG_CLOEXEC) != 1)
        return -1;
    const cmsghdr *header = CMSG_FIRSTHDR(&message);
    int fd = -1;
    if (header)
        std::memcpy(&fd, CMSG_DATA(header), sizeof fd);
    return fd;
}

// Serves, at a socket whose other end learns that the devices are there, or why not.
void serve(const owned_fd &socket, const chassis_nodes &described, unsigned int first_number)
{
    ::setsid(); // signals from the terminal are for the command
    raise_own_limit();
    const auto report = [&socket](const std::string &text) {
        must(static_cast<int>(::write(socket.get(), text.c_str(), text.size())), "socketpair");
    };
    std::optional<server> devices;
    try {
        devices.emplace(described, first_number);
    } catch (const std::exception &error) {
        return report(error.what());
    }
    report("ready");
    const owned_fd listener(receive_descriptor(socket.get()));
    if (listener)
        devices->run(listener.get());
}

} // namespace

pid_t device_server::start()
{
    const unsigned int first_number = first_descriptor();
    int sockets[2];
    must(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets), "socketpair");
    owned_fd own_end(sockets[0]);
    owned_fd its_end(sockets[1]);
    const pid_t pid = separately([&] {
        own_end.reset();
        serve(its_end, *this, first_number);
    });
    its_end.reset();
    char report[4096];
    const ssize_t length = ::read(own_end.get(), report, sizeof report);
    const std::string said(report, static_cast<size_t>(std::max<ssize_t>(length, 0)));
    if (said != "ready")
        throw failure(said);
    ::prctl(PR_SET_PTRACER, pid); // lets it reach into this process where that is restricted
    const owned_fd listener(install_syscall_filter(first_number));
    send_descriptor(own_end.get(), listener.get());
    return pid;
}

} // namespace chassis_sim

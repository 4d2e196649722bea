#include "sim/devices/device_server.h"

#include "sim/base/support.h"
#include "sim/devices/call_answers.h"
#include "sim/devices/control_line.h"
#include "sim/devices/syscall_filter.h"
#include "sim/parts/pci.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <list>
#include <map>
#include <sstream>

#include <fcntl.h>
#include <sys/epoll.h>
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
    return static_cast<unsigned int>(std::max<rlim_t>(end, rlim_t{2} * uio_descriptors)) -
           uio_descriptors;
}

int number_of(const std::string &text)
{
    int number = 0;
    const char *end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    if (rest != end || error != std::errc())
        throw failure("'" + text + "' is no number");
    return number;
}

//--- the server -----------------------------------------------------------------------------------

class server
{
public:
    server(const std::vector<uio_node> &uio, const std::vector<storage_node> &storage,
           const std::vector<call_fault> &faults, const std::vector<timed_line> &lines,
           unsigned int first_fd)
        : events_(must(::epoll_create1(EPOLL_CLOEXEC), "epoll_create")),
          answers_(
              devices_, first_fd,
              [this](bool will_read, const auto &obey_it) {
                  return open_control(will_read, obey_it);
              },
              [this](const auto &made) { watch_opening(made); })
    {
        rlimit limit;
        if (::getrlimit(RLIMIT_NOFILE, &limit) == 0) {
            limit.rlim_cur = limit.rlim_max;
            ::setrlimit(RLIMIT_NOFILE, &limit);
        }
        for (const uio_node &node : uio)
            devices_.uio.emplace_back(node);
        for (const storage_node &node : storage)
            devices_.storage.emplace_back(node);
        devices_.faults = faults;
        for (const timed_line &line : lines)
            lines_.emplace(steady::now() + milliseconds(line.at_ms), line);
        write_file(control_path, "", 0666);
    }

    // Until nobody is left who could ask.
    void run(int listener)
    {
        watch(listener);
        for (;;) {
            epoll_event ready[64];
            const int count = ::epoll_wait(events_.get(), ready, std::size(ready), time_left());
            do_what_is_due();
            bool asked = false;
            // What a client has written before its call is done before it.
            for (int i = 0; i < count; ++i) {
                if (ready[i].data.fd != listener)
                    attend(ready[i].data.fd);
                else if (ready[i].events & EPOLLIN)
                    asked = true;
                else
                    return;
            }
            if (asked)
                answer_next(listener);
            answers_.settle();
        }
    }

private:
    void watch(int fd)
    {
        epoll_event event = {};
        event.events = EPOLLIN;
        event.data.fd = fd;
        must(::epoll_ctl(events_.get(), EPOLL_CTL_ADD, fd, &event), "epoll_ctl");
    }

    void watch_opening(const std::shared_ptr<opening> &made)
    {
        far_ends_[made->far_end()] = made;
        watch(made->far_end());
    }

    owned_fd open_control(bool will_read, const control_line::obey_line &obey_it)
    {
        const auto obeying = [this](const std::string &line) { obey(line); };
        control_line line(will_read, obey_it ? obey_it : obeying);
        owned_fd client_end = line.take_client_end();
        watch(line.fd());
        control_lines_.emplace(line.fd(), std::move(line));
        return client_end;
    }

    void attend(int fd)
    {
        if (const auto line = control_lines_.find(fd); line != control_lines_.end()) {
            if (!line->second.read())
                control_lines_.erase(line);
        } else if (const auto far_end = far_ends_.find(fd); far_end != far_ends_.end()) {
            if (const auto open = far_end->second.lock(); open && open->far_end() == fd)
                answers_.far_end_is_ready(open);
            if (far_end->second.expired())
                far_ends_.erase(far_end);
        }
    }

    void answer_next(int listener)
    {
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

    int time_left() const
    {
        steady::time_point next = steady::time_point::max();
        for (const uio_device &device : devices_.uio) {
            if (device.due)
                next = std::min(next, *device.due);
            if (device.present && !device.answers.empty())
                return 1;
        }
        if (!lines_.empty())
            next = std::min(next, lines_.begin()->first);
        if (next == steady::time_point::max())
            return -1;
        const auto left = std::chrono::ceil<milliseconds>(next - steady::now()).count();
        return static_cast<int>(std::clamp<long long>(left, 0, 3600 * 1000LL));
    }

    void do_what_is_due()
    {
        const steady::time_point now = steady::now();
        for (uio_device &device : devices_.uio) {
            if (device.due && *device.due <= now) {
                device.due.reset();
                device.interrupt();
            }
            if (device.present)
                device.answer_registers();
        }
        while (!lines_.empty() && lines_.begin()->first <= now) {
            const auto [time, line] = *lines_.begin();
            lines_.erase(lines_.begin());
            if (line.every_ms > 0)
                lines_.emplace(time + milliseconds(line.every_ms), line);
            try {
                obey(line.line);
            } catch (const std::exception &error) {
                if (line.every_ms == 0) // else it would be said again and again
                    complain(error.what());
            }
        }
    }

    void obey(const std::string &line)
    {
        struct verb {
            const char *name;
            bool takes_number;
            void (*act)(uio_device &device, int number);
        };
        static constexpr verb verbs[] = {
            {"interrupt", false, [](uio_device &device, int) { device.interrupt(); }},
            {"plug", false, [](uio_device &device, int) { device.plug(); }},
            {"remove", false, [](uio_device &device, int) { device.remove(); }},
            {"answer-read", true, [](uio_device &device, int n) { device.read_answer = n; }},
            {"answer-write", true, [](uio_device &device, int n) { device.write_answer = n; }},
        };
        std::istringstream words(line);
        std::string name, device, number, more;
        words >> name >> device >> number >> more;
        if (obey_on_pci(name, device, number) && more.empty())
            return;
        const auto *const found = std::find_if(std::begin(verbs), std::end(verbs),
                                               [&](const verb &v) { return v.name == name; });
        if (found == std::end(verbs))
            throw failure("unknown control line '" + line.substr(0, 60) + "'");
        if (device.empty() || number.empty() == found->takes_number || !more.empty())
            throw failure(name + " takes " +
                          (found->takes_number ? "a device and a number" : "a device"));
        found->act(devices_.named(device), found->takes_number ? number_of(number) : 0);
    }

    // Whether it is a line about a PCI function.
    static bool obey_on_pci(const std::string &verb, const std::string &id,
                            const std::string &state)
    {
        static const std::map<std::string, uint16_t> states = {
            {"up", pcie_capability::link_up},
            {"training", pcie_capability::link_training},
            {"down", pcie_capability::link_down}};
        const bool names_it_alone =
            id.find(':') != std::string::npos && id.find('/') == std::string::npos && state.empty();
        if (verb == "link" && states.contains(state)) {
            set_link(id, states.at(state));
        } else if (verb == "remove" && names_it_alone) {
            if (!unplug_pci(id))
                throw failure("there is no function '" + id + "'");
        } else if (verb == "plug" && names_it_alone) {
            if (!plug_pci(id))
                throw failure("no function '" + id + "' has been removed");
        } else {
            return false;
        }
        return true;
    }

    owned_fd events_;
    devices devices_;
    std::multimap<steady::time_point, timed_line> lines_;
    call_answers answers_;
    std::map<int, control_line> control_lines_;
    std::map<int, std::weak_ptr<opening>> far_ends_;
};

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

// Serves, behind a socket whose other end learns that the devices are there, or why not.
template <typename... Parts>
void serve(const owned_fd &socket, const Parts &...parts)
{
    ::setsid(); // signals from the terminal are for the command
    const auto report = [&socket](const std::string &text) {
        must(static_cast<int>(::write(socket.get(), text.c_str(), text.size())), "socketpair");
    };
    std::optional<server> devices;
    try {
        devices.emplace(parts...);
    } catch (const std::exception &error) {
        return report(error.what());
    }
    report("ready");
    const owned_fd listener(receive_descriptor(socket.get()));
    if (listener)
        devices->run(listener.get());
}

} // namespace

void device_server::start()
{
    const unsigned int first_fd = first_descriptor();
    int sockets[2];
    must(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets), "socketpair");
    owned_fd own_end(sockets[0]);
    owned_fd its_end(sockets[1]);
    const pid_t pid = separately([&] {
        own_end.reset();
        serve(its_end, uio_, storage_, faults_, lines_, first_fd);
    });
    its_end.reset();
    char report[4096];
    const ssize_t length = ::read(own_end.get(), report, sizeof report);
    const std::string said(report, static_cast<size_t>(std::max<ssize_t>(length, 0)));
    if (said != "ready")
        throw failure(said);
    ::prctl(PR_SET_PTRACER, pid); // lets it reach into this process where that is restricted
    const owned_fd listener(install_syscall_filter(first_fd));
    send_descriptor(own_end.get(), listener.get());
}

void control(const std::string &line)
{
    const owned_fd fd(must(::open(control_path, O_RDWR | O_CLOEXEC), control_path));
    const std::string text = line + "\n";
    must(static_cast<int>(::write(fd.get(), text.data(), text.size())), control_path);
    char answer[4096];
    const ssize_t length = ::read(fd.get(), answer, sizeof answer);
    const std::string said(answer, static_cast<size_t>(std::max<ssize_t>(length, 1)) - 1);
    if (said != "ok")
        throw failure(said);
}

} // namespace chassis_sim

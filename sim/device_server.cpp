#include "sim/device_server.h"

#include "sim/support.h"
#include "sim/syscall_filter.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <optional>
#include <sstream>
#include <tuple>

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/uio.h>
#include <unistd.h>

namespace chassis_sim
{
namespace
{

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using clock = std::chrono::steady_clock;

constexpr char control_path[] = "/dev/chassis";
constexpr unsigned int own_major = 243; // of the kernel's range for local use
constexpr unsigned int descriptors = 64;
const char *const stand_ins[] = {"/dev/null", "/dev/zero", "/dev/full", "/dev/urandom"};

// The memory device with this number.
std::string stand_in(const device_number &number)
{
    for (const char *path : stand_ins) {
        struct stat status;
        if (::stat(path, &status) == 0 && status.st_rdev == ::makedev(number.major, number.minor))
            return path;
    }
    return "/dev/null";
}

bool may_make_nodes()
{
    static const bool may = [] {
        const char probe[] = "/dev/.probe";
        const bool made = ::mknod(probe, S_IFCHR | 0600, ::makedev(own_major, 0)) == 0;
        ::unlink(probe);
        return made;
    }();
    return may;
}

unsigned int first_descriptor()
{
    rlimit limit;
    must(::getrlimit(RLIMIT_NOFILE, &limit), "getrlimit");
    return static_cast<unsigned int>(std::min<rlim_t>(limit.rlim_cur, 1024)) - descriptors;
}

//--- the asking process ---------------------------------------------------------------------------

// The memory of another process, as a file: it reaches a 64-bit one from a 32-bit one too. What
// cannot be opened gives a descriptor on which reads and writes fail.
class remote_memory
{
public:
    explicit remote_memory(pid_t pid)
        : fd_(::open(("/proc/" + std::to_string(pid) + "/mem").c_str(), O_RDWR | O_CLOEXEC))
    {
    }
    ~remote_memory() { ::close(fd_); }
    remote_memory(const remote_memory &) = delete;
    remote_memory &operator=(const remote_memory &) = delete;

    bool read(uint64_t address, void *data, size_t size) const
    {
        const auto length = static_cast<ssize_t>(size);
        return ::pread(fd_, data, size, static_cast<off_t>(address)) == length;
    }
    bool write(uint64_t address, const void *data, size_t size) const
    {
        const auto length = static_cast<ssize_t>(size);
        return ::pwrite(fd_, data, size, static_cast<off_t>(address)) == length;
    }

private:
    int fd_;
};

// Text at an address of another process; empty when it cannot be read.
std::string remote_text(pid_t pid, uint64_t address)
{
    const remote_memory memory(pid);
    std::string text;
    while (text.size() < 4096) {
        char block[256];
        // A read stops short at a page that is not there, which may follow the text's end.
        const size_t length = std::min<size_t>(sizeof block, 4096 - address % 4096);
        if (!memory.read(address, block, length))
            return {};
        const size_t end = ::strnlen(block, length);
        text.append(block, end);
        if (end < length)
            return text;
        address += length;
    }
    return {};
}

bool remote_read(pid_t pid, uint64_t address, void *data, size_t size)
{
    return remote_memory(pid).read(address, data, size);
}

bool remote_write(pid_t pid, uint64_t address, const void *data, size_t size)
{
    return remote_memory(pid).write(address, data, size);
}

std::string remote_link(pid_t pid, const std::string &entry)
{
    std::error_code error;
    return fs::read_symlink("/proc/" + std::to_string(pid) + "/" + entry, error).string();
}

std::string remote_path(pid_t pid, int directory, uint64_t address)
{
    std::string path = remote_text(pid, address);
    if (path.empty() || path[0] == '/')
        return path;
    const std::string entry = directory == AT_FDCWD ? "cwd" : "fd/" + std::to_string(directory);
    return remote_link(pid, entry) + "/" + path;
}

// A copy of another process's descriptor.
int remote_descriptor(pid_t pid, int fd)
{
    const int process = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
    if (process < 0)
        return -1;
    const int copy = static_cast<int>(::syscall(SYS_pidfd_getfd, process, fd, 0));
    ::close(process);
    return copy;
}

//--- devices --------------------------------------------------------------------------------------

constexpr char node_tag[] = "chassis-uio:";
constexpr char removal_tag[] = "chassis-gone:";

int make_memory(const std::string &name, size_t size, const std::string &contents = {})
{
    const int memory =
        must(::memfd_create(name.c_str(), MFD_CLOEXEC | MFD_ALLOW_SEALING), "memfd_create");
    must(::ftruncate(memory, static_cast<off_t>(size)), "ftruncate");
    if (!contents.empty())
        must(static_cast<int>(::pwrite(memory, contents.data(), contents.size(), 0)), "pwrite");
    return memory;
}

// A new opening of memory, as open(2) on a device gives one.
int reopen(int memory)
{
    const std::string path = "/proc/self/fd/" + std::to_string(memory);
    return must(::open(path.c_str(), O_RDWR | O_CLOEXEC), "reopen " + path);
}

struct uio_device : uio_node {
    // Maps lie at their number times the page size; a map longer than a page needs free numbers
    // behind it.
    static constexpr size_t window = size_t{80} << 20;

    explicit uio_device(const uio_node &node_)
        : uio_node(node_), memory(make_memory(node_tag + name, window)),
          removal(make_memory(removal_tag + name, 0, "maps\n"))
    {
    }

    void plug()
    {
        if (may_make_nodes()) {
            must(::mknod(node.c_str(), S_IFCHR | 0600, ::makedev(number.major, number.minor)),
                 "mknod " + node);
        } else {
            write_file(node, "");
            bind_mount(stand_in(number), node);
        }
    }

    // What the kernel does when a device leaves its driver.
    void unplug()
    {
        removed = true;
        if (!may_make_nodes())
            ::umount2(node.c_str(), MNT_DETACH);
        std::error_code gone_already;
        fs::remove(node, gone_already);
        fs::remove("/sys/class/uio/" + name, gone_already);
    }

    bool pending() const { return count != seen; }
    void interrupt()
    {
        if (enabled)
            ++count;
        else
            latched = true;
    }

    int memory;
    int removal;
    bool removed = false;
    bool enabled = false;
    bool latched = false; // occurred while disabled
    uint32_t count = 0;
    uint32_t seen = 0;
    std::optional<int> read_answer;
    std::optional<int> write_answer;
    std::optional<clock::time_point> due; // of the interrupt that answers an enabling
};

struct storage_device : storage_node {
    explicit storage_device(const storage_node &node_)
        : storage_node(node_), memory(make_memory("chassis-storage", contents.size(), contents))
    {
        if (!may_grow)
            must(::fcntl(memory, F_ADD_SEALS, F_SEAL_GROW), "keep storage from growing");
    }
    int memory;
};

//--- the server -----------------------------------------------------------------------------------

struct watched {
    pollfd asked;
    uio_device *device = nullptr; // NULL: any other descriptor, through a copy of it
    bool is_removal = false;
    int copy = -1;
};

// A call that is answered once something happens.
struct waiter {
    uint64_t id;
    pid_t pid;
    uint64_t address; // of the pollfd array, or of the buffer of a read
    bool is_read;
    std::vector<watched> set;
    std::optional<clock::time_point> deadline;
};

class server
{
public:
    server(const std::vector<uio_node> &uio, const std::vector<storage_node> &storage,
           unsigned int first_fd)
        : first_fd_(first_fd)
    {
        for (const uio_node &node : uio)
            uio_.emplace_back(node);
        for (const storage_node &node : storage)
            storage_.emplace_back(node);
        must(::mkfifo(control_path, 0600), control_path);
        control_ = must(::open(control_path, O_RDWR | O_NONBLOCK | O_CLOEXEC), control_path);
        for (uio_device &device : uio_)
            if (device.plugged)
                device.plug();
    }

    void run(int listener)
    {
        listener_ = listener;
        for (;;) {
            std::vector<pollfd> set = {{listener_, POLLIN, 0}, {control_, POLLIN, 0}};
            for (const waiter &w : waiters_)
                for (const watched &entry : w.set)
                    if (entry.copy >= 0)
                        set.push_back({entry.copy, entry.asked.events, 0});
            if (::poll(set.data(), set.size(), time_left()) < 0 && errno != EINTR)
                fail("poll");
            raise_due_interrupts();
            if (set[1].revents)
                read_control();
            if (set[0].revents & POLLIN)
                answer_notification();
            else if (set[0].revents & (POLLHUP | POLLERR))
                return;
            std::erase_if(waiters_, [this](waiter &w) { return settle(w); });
        }
    }

private:
    int time_left() const
    {
        std::optional<clock::time_point> next;
        const auto consider = [&next](const std::optional<clock::time_point> &time) {
            if (time && (!next || *time < *next))
                next = time;
        };
        for (const waiter &w : waiters_)
            consider(w.deadline);
        for (const uio_device &device : uio_)
            consider(device.due);
        if (!next)
            return -1;
        const auto left = std::chrono::ceil<milliseconds>(*next - clock::now()).count();
        return static_cast<int>(std::clamp<long long>(left, 0, 3600 * 1000LL));
    }

    void raise_due_interrupts()
    {
        for (uio_device &device : uio_) {
            if (device.due && *device.due <= clock::now()) {
                device.due.reset();
                device.interrupt();
            }
        }
    }

    void read_control()
    {
        char block[512];
        const ssize_t length = ::read(control_, block, sizeof block);
        if (length <= 0)
            return;
        std::istringstream lines(std::string(block, static_cast<size_t>(length)));
        for (std::string line; std::getline(lines, line);)
            obey(line);
    }

    void obey(const std::string &line)
    {
        std::istringstream words(line);
        std::string verb;
        std::string name;
        int number = 0;
        words >> verb >> name >> number;
        const auto device = std::find_if(uio_.begin(), uio_.end(),
                                         [&name](const uio_device &d) { return d.name == name; });
        if (device == uio_.end())
            std::fprintf(stderr, "chassis-sim: no device '%s' to '%s'\n", name.c_str(),
                         verb.c_str());
        else if (verb == "interrupt")
            device->interrupt();
        else if (verb == "plug")
            device->plug();
        else if (verb == "remove")
            device->unplug();
        else if (verb == "answer-read")
            device->read_answer = number;
        else if (verb == "answer-write")
            device->write_answer = number;
        else
            std::fprintf(stderr, "chassis-sim: unknown control '%s'\n", verb.c_str());
    }

    void respond(uint64_t id, int error, int64_t value, uint32_t flags = 0)
    {
        seccomp_notif_resp response = {id, value, error, flags};
        // Fails when the caller was killed or interrupted meanwhile; nobody waits then.
        ::ioctl(listener_, SECCOMP_IOCTL_NOTIF_SEND, &response);
    }

    void let_pass(uint64_t id) { respond(id, 0, 0, SECCOMP_USER_NOTIF_FLAG_CONTINUE); }

    void answer_notification()
    {
        seccomp_notif notification = {};
        if (::ioctl(listener_, SECCOMP_IOCTL_NOTIF_RECV, &notification) != 0)
            return;
        const seccomp_data &data = notification.data;
        const auto *arg = data.args;
        const pid_t pid = static_cast<pid_t>(notification.pid);
        const uint64_t id = notification.id;
        switch (which_call(data).value_or(intercepted::open)) {
        case intercepted::open:
            return answer_open(id, pid, AT_FDCWD, arg[0], static_cast<int>(arg[1]));
        case intercepted::openat:
            return answer_open(id, pid, static_cast<int>(arg[0]), arg[1], static_cast<int>(arg[2]));
        case intercepted::mknod:
            return answer_mknod(id, pid, AT_FDCWD, arg[0]);
        case intercepted::mknodat:
            return answer_mknod(id, pid, static_cast<int>(arg[0]), arg[1]);
        case intercepted::read:
            return answer_read(id, pid, static_cast<int>(arg[0]), arg[1], arg[2]);
        case intercepted::write:
            return answer_write(id, pid, static_cast<int>(arg[0]), arg[1], arg[2]);
        case intercepted::poll:
            return answer_poll(id, pid, arg[0], arg[1], static_cast<int>(arg[2]), 0);
        case intercepted::ppoll:
            return answer_poll(id, pid, arg[0], arg[1], -1, arg[2]);
        }
    }

    void answer_open(uint64_t id, pid_t pid, int directory, uint64_t path_address, int flags)
    {
        std::error_code error;
        const std::string path =
            fs::canonical(remote_path(pid, directory, path_address), error).string();
        if (!error) {
            for (uio_device &device : uio_) {
                if (path == device.node) {
                    device.seen = device.count;
                    return hand_out(id, pid, device.memory, flags, true);
                }
                if (path == device.removal_attr)
                    return hand_out(id, pid, device.removal, flags, true);
            }
            for (storage_device &device : storage_)
                if (path == device.node)
                    return open_storage(id, pid, device, flags);
        }
        let_pass(id);
    }

    // O_EXCL keeps every other opening out for as long as the device is open.
    void open_storage(uint64_t id, pid_t pid, const storage_device &device, int flags)
    {
        const int opening = reopen(device.memory);
        const int lock = (flags & O_EXCL) ? LOCK_EX : LOCK_SH;
        if (::flock(opening, lock | LOCK_NB) != 0)
            respond(id, -EBUSY, 0);
        else
            give(id, pid, opening, flags, false);
        ::close(opening);
    }

    void hand_out(uint64_t id, pid_t pid, int memory, int flags, bool numbered)
    {
        const int opening = reopen(memory);
        give(id, pid, opening, flags, numbered);
        ::close(opening);
    }

    // Puts a descriptor into the calling process and has its call return it.
    void give(uint64_t id, pid_t pid, int fd, int flags, bool numbered)
    {
        seccomp_notif_addfd add = {};
        add.id = id;
        add.flags = SECCOMP_ADDFD_FLAG_SEND;
        add.srcfd = static_cast<uint32_t>(fd);
        add.newfd_flags = static_cast<uint32_t>(flags & O_CLOEXEC);
        if (numbered) {
            add.flags |= SECCOMP_ADDFD_FLAG_SETFD;
            add.newfd = free_number(pid);
        }
        if (::ioctl(listener_, SECCOMP_IOCTL_NOTIF_ADDFD, &add) < 0)
            respond(id, -EMFILE, 0);
    }

    uint32_t free_number(pid_t pid) const
    {
        uint32_t number = first_fd_;
        while (number < first_fd_ + descriptors - 1 &&
               !remote_link(pid, "fd/" + std::to_string(number)).empty())
            ++number;
        return number;
    }

    // An ordinary user's mknod fails; a plain file then stands for the node.
    void answer_mknod(uint64_t id, pid_t pid, int directory, uint64_t path_address)
    {
        const std::string path = remote_path(pid, directory, path_address);
        const bool ours = std::any_of(storage_.begin(), storage_.end(),
                                      [&](const storage_device &d) { return d.node == path; });
        if (!ours || may_make_nodes() || fs::exists(path))
            return let_pass(id);
        write_file(path, "");
        respond(id, 0, 0);
    }

    // The device that a descriptor of another process belongs to, and whether it is its removal
    // notice.
    std::pair<uio_device *, bool> device_of(pid_t pid, int fd)
    {
        if (fd < static_cast<int>(first_fd_))
            return {nullptr, false};
        const std::string link = remote_link(pid, "fd/" + std::to_string(fd));
        for (uio_device &device : uio_) {
            if (link == "/memfd:" + (node_tag + device.name) + " (deleted)")
                return {&device, false};
            if (link == "/memfd:" + (removal_tag + device.name) + " (deleted)")
                return {&device, true};
        }
        return {nullptr, false};
    }

    void answer_read(uint64_t id, pid_t pid, int fd, uint64_t address, uint64_t size)
    {
        const auto [device, is_removal] = device_of(pid, fd);
        if (!device || is_removal)
            return let_pass(id);
        if (device->read_answer) {
            const int answer = *device->read_answer;
            return respond(id, std::min(answer, 0), std::max(answer, 0));
        }
        if (size != sizeof(uint32_t))
            return respond(id, -EINVAL, 0);
        watched entry;
        entry.asked = {fd, POLLIN, 0};
        entry.device = device;
        wait({id, pid, address, true, {entry}, std::nullopt});
    }

    void answer_write(uint64_t id, pid_t pid, int fd, uint64_t address, uint64_t size)
    {
        const auto [device, is_removal] = device_of(pid, fd);
        if (!device || is_removal)
            return let_pass(id);
        if (device->write_answer) {
            const int answer = *device->write_answer;
            return respond(id, std::min(answer, 0), std::max(answer, 0));
        }
        int32_t flag;
        if (device->removed || size != sizeof flag ||
            !remote_read(pid, address, &flag, sizeof flag))
            return respond(id, -EINVAL, 0);
        if (!device->irq_control)
            return respond(id, -ENOSYS, 0);
        device->enabled = flag != 0;
        device->due.reset();
        if (device->enabled && device->irq_delay_ms >= 0)
            device->due = clock::now() + milliseconds(device->irq_delay_ms);
        if (device->enabled && device->latched) {
            device->latched = false;
            device->interrupt();
        }
        respond(id, 0, sizeof flag);
    }

    void answer_poll(uint64_t id, pid_t pid, uint64_t address, uint64_t count, int timeout_ms,
                     uint64_t timeout_address)
    {
        std::vector<pollfd> asked(static_cast<size_t>(count <= 64 ? count : 0));
        if (asked.empty() ||
            !remote_read(pid, address, asked.data(), asked.size() * sizeof(pollfd)))
            return let_pass(id);
        waiter w = {id, pid, address, false, {}, std::nullopt};
        bool ours = false;
        for (const pollfd &one : asked) {
            watched entry;
            entry.asked = one;
            std::tie(entry.device, entry.is_removal) = device_of(pid, one.fd);
            ours = ours || entry.device;
            w.set.push_back(entry);
        }
        if (!ours || timeout_address != 0)
            return let_pass(id);
        for (watched &entry : w.set)
            if (!entry.device && entry.asked.fd >= 0)
                entry.copy = remote_descriptor(pid, entry.asked.fd);
        if (timeout_ms >= 0)
            w.deadline = clock::now() + milliseconds(timeout_ms);
        wait(std::move(w));
    }

    void wait(waiter &&w)
    {
        if (!settle(w))
            waiters_.push_back(std::move(w));
    }

    static short state_of(const watched &entry)
    {
        const int always = POLLERR | POLLHUP | POLLNVAL;
        int state = 0;
        if (entry.device && entry.is_removal) {
            state = entry.device->removed ? POLLIN | POLLPRI | POLLERR : 0;
        } else if (entry.device) {
            state = entry.device->removed     ? POLLIN | POLLERR | POLLHUP
                    : entry.device->pending() ? POLLIN
                                              : 0;
        } else if (entry.copy >= 0) {
            pollfd now = {entry.copy, entry.asked.events, 0};
            ::poll(&now, 1, 0);
            state = now.revents;
        }
        return static_cast<short>(state & (entry.asked.events | always));
    }

    // Answers a waiting call if it is time; false when it has to wait on.
    bool settle(waiter &w)
    {
        if (::ioctl(listener_, SECCOMP_IOCTL_NOTIF_ID_VALID, &w.id) != 0)
            return forget(w);
        int ready = 0;
        for (watched &entry : w.set) {
            entry.asked.revents = state_of(entry);
            ready += entry.asked.revents != 0;
        }
        if (!ready && !(w.deadline && *w.deadline <= clock::now()))
            return false;
        if (w.is_read)
            finish_read(w);
        else
            finish_poll(w, ready);
        return forget(w);
    }

    void finish_read(const waiter &w)
    {
        uio_device &device = *w.set.front().device;
        if (device.removed)
            return respond(w.id, -EIO, 0);
        device.seen = device.count;
        const bool done = remote_write(w.pid, w.address, &device.count, sizeof device.count);
        respond(w.id, done ? 0 : -EFAULT, done ? int{sizeof device.count} : 0);
    }

    void finish_poll(const waiter &w, int ready)
    {
        std::vector<pollfd> answer;
        for (const watched &entry : w.set)
            answer.push_back(entry.asked);
        remote_write(w.pid, w.address, answer.data(), answer.size() * sizeof(pollfd));
        respond(w.id, 0, ready);
    }

    static bool forget(const waiter &w)
    {
        for (const watched &entry : w.set)
            if (entry.copy >= 0)
                ::close(entry.copy);
        return true;
    }

    unsigned int first_fd_;
    int listener_ = -1;
    int control_ = -1;
    std::vector<uio_device> uio_;
    std::vector<storage_device> storage_;
    std::vector<waiter> waiters_;
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

} // namespace

device_number simulated_device_number(unsigned int index)
{
    if (may_make_nodes())
        return {own_major, index};
    struct stat status;
    const char *host = stand_ins[index % std::size(stand_ins)];
    must(::stat(host, &status), host);
    return {::major(status.st_rdev), ::minor(status.st_rdev)};
}

void device_server::start()
{
    const unsigned int first_fd = first_descriptor();
    int sockets[2];
    must(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets), "socketpair");
    const pid_t pid = background([&] {
        ::close(sockets[0]);
        server devices(uio_, storage_, first_fd);
        must(static_cast<int>(::write(sockets[1], "r", 1)), "socketpair");
        devices.run(receive_descriptor(sockets[1]));
    });
    ::close(sockets[1]);
    char ready;
    if (::read(sockets[0], &ready, 1) != 1)
        std::exit(125);           // the server has said why
    ::prctl(PR_SET_PTRACER, pid); // lets it reach into this process where that is restricted
    const int listener = install_syscall_filter(first_fd);
    send_descriptor(sockets[0], listener);
    ::close(listener);
    ::close(sockets[0]);
}

void control(const std::string &line)
{
    const int fd = must(::open(control_path, O_WRONLY | O_CLOEXEC), control_path);
    must(static_cast<int>(::write(fd, (line + "\n").c_str(), line.size() + 1)), control_path);
    ::close(fd);
}

} // namespace chassis_sim

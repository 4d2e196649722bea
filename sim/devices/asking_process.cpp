// Reaches into the memory and the descriptors of the process that asks.
#include "sim/devices/asking_process.h"

#include "access_trace/thread_memory.h"
#include "sim/base/files.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <linux/audit.h>
#include <linux/capability.h>
#include <linux/openat2.h>
#include <sys/fsuid.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace chassis_sim
{
namespace
{

constexpr size_t longest_path = 4096;

// The number after a word in one of the texts of /proc.
int number_after(const std::string &text, const std::string &word, int base)
{
    const size_t place = text.find(word);
    return place == std::string::npos
               ? 0
               : static_cast<int>(std::strtol(&text[place + word.size()], nullptr, base));
}

} // namespace

pid_t asking_process::id() const
{
    return number_after(file_text(proc("status")), "Tgid:", 10);
}

std::string asking_process::proc(const std::string &entry) const
{
    return "/proc/" + std::to_string(thread_) + "/" + entry;
}

bool asking_process::read(uint64_t address, void *data, size_t size) const
{
    return access_trace::copy_memory(thread_, false, address, data, size) == size;
}

bool asking_process::write(uint64_t address, const void *data, size_t size) const
{
    return access_trace::copy_memory(thread_, true, address, const_cast<void *>(data), size) ==
           size;
}

std::string asking_process::link(const std::string &entry) const
{
    char target[longest_path];
    const ssize_t length = ::readlink(proc(entry).c_str(), target, sizeof target);
    return {target, static_cast<size_t>(std::max<ssize_t>(length, 0))};
}

std::string asking_process::path(int directory, uint64_t address) const
{
    std::string name = access_trace::text_at(thread_, address);
    if (name.empty() || name[0] == '/')
        return name;
    return (directory == AT_FDCWD ? link("cwd") : link_of(directory)) + "/" + name;
}

asking_process::file asking_process::resolve(int directory, uint64_t address, int flags) const
{
    std::string name = path(directory, address);
    if (name.empty())
        return {};
    // What is its own in /proc is not this process's own.
    const std::string own = "/proc/" + std::to_string(thread_);
    for (const auto &[from, to] : {std::pair<std::string, std::string>{"/proc/self/", own + "/"},
                                   {"/proc/thread-self/", own + "/"},
                                   {"/dev/fd/", own + "/fd/"},
                                   {"/dev/stdin", own + "/fd/0"},
                                   {"/dev/stdout", own + "/fd/1"},
                                   {"/dev/stderr", own + "/fd/2"}})
        if (name.starts_with(from))
            name = to + name.substr(from.size());
    const std::string changed_root = link("root");
    open_how how = {};
    how.flags = O_PATH | O_CLOEXEC | static_cast<uint64_t>(flags & O_NOFOLLOW);
    owned_fd root;
    if (changed_root != "/" && !changed_root.empty()) {
        root.reset(::open(proc("root").c_str(), O_PATH | O_CLOEXEC));
        how.resolve = RESOLVE_IN_ROOT;
        if (name.starts_with(changed_root + "/"))
            name.erase(0, changed_root.size());
    }
    const owned_fd found(open_path(root ? root.get() : AT_FDCWD, name, how));
    struct stat status;
    char target[longest_path];
    const std::string entry = "/proc/self/fd/" + std::to_string(found.get());
    const ssize_t length = ::readlink(entry.c_str(), target, sizeof target);
    if (!found || length <= 0 || ::fstat(found.get(), &status) != 0)
        return {};
    return {{target, static_cast<size_t>(length)}, status.st_mode, status.st_rdev};
}

// With the groups of another process; only for the calling thread, unlike setgroups(3).
class borrowed_groups
{
public:
    explicit borrowed_groups(const std::vector<gid_t> &groups)
    {
        own_.resize(static_cast<size_t>(std::max(::getgroups(0, nullptr), 0)));
        own_.resize(static_cast<size_t>(
            std::max(::getgroups(static_cast<int>(own_.size()), own_.data()), 0)));
        set(groups);
    }
    ~borrowed_groups() { set(own_); }
    borrowed_groups(const borrowed_groups &) = delete;
    borrowed_groups &operator=(const borrowed_groups &) = delete;

private:
    static void set(const std::vector<gid_t> &groups)
    {
#ifdef SYS_setgroups32
        ::syscall(SYS_setgroups32, groups.size(), groups.data());
#else
        ::syscall(SYS_setgroups, groups.size(), groups.data());
#endif
    }
    std::vector<gid_t> own_;
};

bool asking_process::may_open(const std::string &path, int flags) const
{
    const std::string status = file_text(proc("status"));
    if (number_after(status, "\nCapEff:", 16) & 1 << CAP_DAC_OVERRIDE)
        return true;
    const auto effective = [&status](const std::string &word) {
        const size_t place = status.find(word);
        unsigned int id = 0;
        if (place != std::string::npos)
            std::sscanf(status.c_str() + place + word.size(), "%*u %u", &id);
        return id;
    };
    std::vector<gid_t> groups;
    const size_t place = status.find("\nGroups:");
    std::istringstream ids(
        place == std::string::npos
            ? ""
            : status.substr(place + 8, status.find('\n', place + 1) - place - 8));
    for (gid_t id; ids >> id;)
        groups.push_back(id);
    const borrowed_groups borrowed(groups);
    const int group = ::setfsgid(effective("\nGid:"));
    const int user = ::setfsuid(effective("\nUid:"));
    constexpr int modes[] = {R_OK, W_OK, R_OK | W_OK, R_OK | W_OK}; // by O_ACCMODE
    const bool may = ::faccessat(AT_FDCWD, path.c_str(), modes[flags & O_ACCMODE], AT_EACCESS) == 0;
    ::setfsuid(static_cast<uid_t>(user));
    ::setfsgid(static_cast<gid_t>(group));
    return may;
}

owned_fd asking_process::copy_of(int fd) const
{
    const owned_fd process(static_cast<int>(::syscall(SYS_pidfd_open, id(), 0)));
    return owned_fd(static_cast<int>(::syscall(SYS_pidfd_getfd, process.get(), fd, 0)));
}

bool asking_process::closes_on_exec(int fd) const
{
    const std::string info = file_text(proc("fdinfo/" + std::to_string(fd)));
    return (number_after(info, "flags:", 8) & O_CLOEXEC) != 0;
}

unsigned int asking_process::descriptor_limit() const
{
    rlimit limit = {};
    ::prlimit(thread_, RLIMIT_NOFILE, nullptr, &limit);
    return static_cast<unsigned int>(std::min<rlim_t>(limit.rlim_cur, 1 << 20));
}

asked_call::asked_call(int listener) : listener_(listener), process_(0)
{
    seccomp_notif notification = {};
    must(::ioctl(listener, SECCOMP_IOCTL_NOTIF_RECV, &notification), "receive a call");
    id_ = notification.id;
    data_ = notification.data;
    process_ = asking_process(static_cast<pid_t>(notification.pid));
}

bool asked_call::waits() const
{
    return ::ioctl(listener_, SECCOMP_IOCTL_NOTIF_ID_VALID, &id_) == 0;
}

void asked_call::respond(int error, int64_t value, uint32_t flags) const
{
    seccomp_notif_resp response = {id_, value, error, flags};
    // Fails when the caller was killed or interrupted meanwhile; nobody waits then.
    ::ioctl(listener_, SECCOMP_IOCTL_NOTIF_SEND, &response);
}

void asked_call::result(int64_t value) const
{
    respond(static_cast<int>(std::min<int64_t>(value, 0)), std::max<int64_t>(value, 0), 0);
}

void asked_call::result_with(uint64_t address, const void *data, size_t size) const
{
    result(process_.write(address, data, size) ? static_cast<int64_t>(size) : -EFAULT);
}

uint64_t asked_call::file_offset() const
{
    constexpr uint64_t unit = 4096; // of mmap2, whatever the page size
    return data_.arch == AUDIT_ARCH_I386 ? argument(5) * unit : argument(5);
}

uint64_t asked_call::position() const
{
    // A 32-bit caller gives it in two halves.
    return data_.arch == AUDIT_ARCH_I386 ? (argument(3) & 0xffffffff) | argument(4) << 32
                                         : argument(3);
}

void asked_call::pass() const
{
    respond(0, 0, SECCOMP_USER_NOTIF_FLAG_CONTINUE);
}

void asked_call::descriptor(int fd, bool close_on_exec, std::optional<unsigned int> number) const
{
    seccomp_notif_addfd add = {};
    add.id = id_;
    add.flags = SECCOMP_ADDFD_FLAG_SEND | (number ? SECCOMP_ADDFD_FLAG_SETFD : 0);
    add.srcfd = static_cast<uint32_t>(fd);
    add.newfd = number.value_or(0);
    add.newfd_flags = close_on_exec ? O_CLOEXEC : 0;
    if (::ioctl(listener_, SECCOMP_IOCTL_NOTIF_ADDFD, &add) < 0)
        result(-EMFILE);
}

void asked_call::replace(int fd, int by) const
{
    seccomp_notif_addfd add = {};
    add.id = id_;
    add.flags = SECCOMP_ADDFD_FLAG_SETFD;
    add.srcfd = static_cast<uint32_t>(by);
    add.newfd = static_cast<uint32_t>(fd);
    add.newfd_flags = process_.closes_on_exec(fd) ? O_CLOEXEC : 0;
    ::ioctl(listener_, SECCOMP_IOCTL_NOTIF_ADDFD, &add);
}

} // namespace chassis_sim

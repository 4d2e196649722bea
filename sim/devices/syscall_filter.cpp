// Builds the seccomp filter, and tells its calls apart.
#include "sim/devices/syscall_filter.h"

#include "sim/base/files.h"

#include <cerrno>
#include <map>
#include <memory>
#include <utility>

#include <seccomp.h>
#include <sys/mman.h>
#include <sys/ptrace.h>

namespace chassis_sim
{
namespace
{

// On which argument's value it depends whether a call is asked about.
enum class condition { none, descriptor_first, descriptor_third, shared_mapping, attaching };

constexpr struct {
    const char *name;
    intercepted call;
    condition when;
} calls[] = {
    {"open", intercepted::open, condition::none},
    {"openat", intercepted::openat, condition::none},
    {"openat2", intercepted::openat2, condition::none},
    {"mknod", intercepted::mknod, condition::none},
    {"mknodat", intercepted::mknodat, condition::none},
    {"poll", intercepted::wait, condition::none},
    {"ppoll", intercepted::wait, condition::none},
    {"ppoll_time64", intercepted::wait, condition::none},
    {"select", intercepted::wait, condition::none},
    {"_newselect", intercepted::wait, condition::none},
    {"pselect6", intercepted::wait, condition::none},
    {"pselect6_time64", intercepted::wait, condition::none},
    {"mmap", intercepted::mmap, condition::shared_mapping},
    {"mmap2", intercepted::mmap, condition::shared_mapping},
    {"read", intercepted::read, condition::descriptor_first},
    {"pread64", intercepted::read_at, condition::descriptor_first},
    {"write", intercepted::write, condition::descriptor_first},
    {"pwrite64", intercepted::write_at, condition::descriptor_first},
    {"fstat", intercepted::status, condition::descriptor_first},
    {"fstat64", intercepted::status, condition::descriptor_first},
    {"newfstatat", intercepted::status_at, condition::descriptor_first},
    {"fstatat64", intercepted::status_at, condition::descriptor_first},
    {"statx", intercepted::status_extended, condition::descriptor_first},
    {"lseek", intercepted::seek, condition::descriptor_first},
    {"_llseek", intercepted::seek, condition::descriptor_first},
    {"dup", intercepted::duplicate, condition::descriptor_first},
    {"fcntl", intercepted::control, condition::descriptor_first},
    {"fcntl64", intercepted::control, condition::descriptor_first},
    {"close", intercepted::close, condition::descriptor_first},
    {"epoll_ctl", intercepted::epoll, condition::descriptor_third},
    {"dup2", intercepted::any, condition::descriptor_first},
    {"dup3", intercepted::any, condition::descriptor_first},
    {"ioctl", intercepted::any, condition::descriptor_first},
    {"readv", intercepted::any, condition::descriptor_first},
    {"writev", intercepted::any, condition::descriptor_first},
    {"ptrace", intercepted::trace, condition::attaching},
};

// A 64-bit server also serves 32-bit programs.
constexpr uint32_t architectures[] = {SCMP_ARCH_X86_64, SCMP_ARCH_X86};

void add_rule(scmp_filter_ctx filter, int number, condition when, unsigned int first_fd)
{
    const auto add = [&](auto... comparisons) {
        errno = -::seccomp_rule_add(filter, SCMP_ACT_NOTIFY, number, sizeof...(comparisons),
                                    comparisons...);
        if (errno != 0)
            fail("seccomp_rule_add");
    };
    // A descriptor is 32 bits wide; what a 64-bit caller leaves above them does not count.
    constexpr scmp_datum_t most = 0x7fffffff;
    switch (when) {
    case condition::none:
        return add();
    case condition::descriptor_first:
        return add(SCMP_A0_32(SCMP_CMP_GE, first_fd, 0));
    case condition::descriptor_third:
        return add(SCMP_A2_32(SCMP_CMP_GE, first_fd, 0));
    case condition::attaching:
        add(SCMP_A0_32(SCMP_CMP_EQ, PTRACE_ATTACH, 0));
        return add(SCMP_A0_32(SCMP_CMP_EQ, PTRACE_SEIZE, 0));
    case condition::shared_mapping:
        return add(SCMP_A3_32(SCMP_CMP_MASKED_EQ, MAP_SHARED, MAP_SHARED),
                   SCMP_A4_32(SCMP_CMP_LE, most, 0));
    }
}

} // namespace

int install_syscall_filter(unsigned int first_fd)
{
    const std::unique_ptr<void, void (*)(void *)> filter(::seccomp_init(SCMP_ACT_ALLOW),
                                                         ::seccomp_release);
    ::seccomp_attr_set(filter.get(), SCMP_FLTATR_ACT_BADARCH, SCMP_ACT_ALLOW);
    for (const uint32_t architecture : architectures)
        ::seccomp_arch_add(filter.get(), architecture);
    for (const auto &[name, call, when] : calls)
        add_rule(filter.get(), ::seccomp_syscall_resolve_name(name), when, first_fd);
    // Its opens, reads and writes would not be seen; programs that use it do without where it is
    // missing.
    ::seccomp_rule_add(filter.get(), SCMP_ACT_ERRNO(ENOSYS),
                       ::seccomp_syscall_resolve_name("io_uring_setup"), 0);
    errno = -::seccomp_load(filter.get());
    if (errno != 0)
        fail("needs seccomp user notification (Linux 5.14 or newer)");
    return ::seccomp_notify_fd(filter.get());
}

std::optional<intercepted> which_call(const seccomp_data &data)
{
    using key = std::pair<uint32_t, int>; // architecture and number
    static const std::map<key, intercepted> by_number = [] {
        std::map<key, intercepted> made;
        for (const uint32_t architecture : architectures)
            for (const auto &[name, call, when] : calls)
                made[{architecture, ::seccomp_syscall_resolve_name_arch(architecture, name)}] =
                    call;
        return made;
    }();
    const auto found = by_number.find({data.arch, data.nr});
    return found == by_number.end() ? std::nullopt : std::optional(found->second);
}

} // namespace chassis_sim

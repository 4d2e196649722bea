#include "support/system_calls.h"

#include <csignal>
#include <cstdlib>

#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

namespace test_support
{
namespace
{

// Never made otherwise in here, so it marks the beginning and the end of what is counted.
constexpr long marker = SYS_getpgid;

std::string call_name(long number)
{
    switch (number) {
    case SYS_access:
        return "access";
    case SYS_brk:
        return "brk";
    case SYS_close:
        return "close";
    case SYS_getdents64:
        return "getdents64";
    case SYS_lseek:
        return "lseek";
    case SYS_mmap:
#ifdef SYS_mmap2
    case SYS_mmap2:
#endif
        return "mmap";
    case SYS_munmap:
        return "munmap";
    case SYS_open:
    case SYS_openat:
        return "open";
    case SYS_pread64:
        return "pread";
    case SYS_pwrite64:
        return "pwrite";
    case SYS_read:
        return "read";
    case SYS_write:
        return "write";
#ifdef SYS_fstat64
    case SYS_stat64:
    case SYS_lstat64:
    case SYS_fstat64:
    case SYS_fstatat64:
#else
    case SYS_newfstatat:
#endif
    case SYS_stat:
    case SYS_lstat:
    case SYS_fstat:
    case SYS_statx:
        return "stat";
    default:
        return std::string(1, '#') += std::to_string(number);
    }
}

long call_number(pid_t pid)
{
    user_regs_struct registers;
    ::ptrace(PTRACE_GETREGS, pid, nullptr, &registers);
#ifdef __x86_64__
    return static_cast<long>(registers.orig_rax);
#else
    return registers.orig_eax;
#endif
}

[[noreturn]] void run_traced(const std::function<void()> &code)
{
    ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    ::raise(SIGSTOP);
    ::syscall(marker, 0);
    code();
    ::syscall(marker, 0);
    ::_exit(0);
}

} // namespace

system_calls count_system_calls(const std::function<void()> &code)
{
    const pid_t pid = ::fork();
    if (pid == 0)
        run_traced(code);
    system_calls calls;
    int status;
    ::waitpid(pid, &status, 0);
    ::ptrace(PTRACE_SETOPTIONS, pid, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
    bool entering = true;
    int markers = 0;
    int signal = 0;
    for (;;) {
        ::ptrace(PTRACE_SYSCALL, pid, nullptr, signal);
        if (::waitpid(pid, &status, 0) != pid || !WIFSTOPPED(status))
            break;
        signal = 0;
        if (WSTOPSIG(status) != (SIGTRAP | 0x80)) {
            signal = WSTOPSIG(status);
            continue;
        }
        if (entering) {
            const long number = call_number(pid);
            if (number == marker)
                ++markers;
            else if (markers == 1)
                ++calls[call_name(number)];
        }
        entering = !entering;
    }
    if (markers != 2)
        return {{"did not end", 1}};
    return calls;
}

int total(const system_calls &calls)
{
    int sum = 0;
    for (const auto &[name, count] : calls)
        sum += count;
    return sum;
}

std::string text(const system_calls &calls)
{
    std::string line;
    for (const auto &[name, count] : calls)
        line += name + ":" + std::to_string(count) + " ";
    return line;
}

} // namespace test_support

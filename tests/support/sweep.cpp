#include "support/sweep.h"

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <set>
#include <sstream>
#include <string_view>

#include <fcntl.h>
#include <seccomp.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

// Never made otherwise in here, so it marks, with 0, the beginning and the end of what is watched;
// with 1, that an allocation fails.
constexpr long marker = SYS_getpgid;

int allocations_left; // until one fails; 0: none does
long blocks;          // on the heap, since the count began

} // namespace

#if defined __SANITIZE_ADDRESS__ // which must keep the heap to itself
const bool test::heap_can_fail = false;
#else
const bool test::heap_can_fail = true;

namespace
{

bool allocation_fails()
{
    if (allocations_left == 0 || --allocations_left != 0)
        return false;
    ::syscall(marker, 1);
    errno = ENOMEM;
    return true;
}

void *counted(void *block)
{
    blocks += block ? 1 : 0;
    return block;
}

} // namespace

extern "C" {

void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);
void __libc_free(void *block);

void *malloc(size_t size) noexcept
{
    return allocation_fails() ? nullptr : counted(__libc_malloc(size));
}

void *calloc(size_t count, size_t size) noexcept
{
    return allocation_fails() ? nullptr : counted(__libc_calloc(count, size));
}

void *realloc(void *block, size_t size) noexcept
{
    if (allocation_fails())
        return nullptr;
    return block ? __libc_realloc(block, size) : counted(__libc_realloc(nullptr, size));
}

void free(void *block) noexcept
{
    blocks -= block ? 1 : 0;
    __libc_free(block);
}

} // extern "C"
#endif

namespace test
{
namespace
{

// What the child tells of its run.
struct report {
    bool allocation_failed;
    result value;
    int error;
    long opens;
    long blocks;
    char err[8192];
    char out[8192];
};

void copy(char (&to)[8192], const std::string &text)
{
    to[text.copy(to, sizeof to - 1)] = '\0';
}

[[noreturn]] void run_traced(const std::function<result()> &operation, int allocation, report &told)
{
    ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    ::raise(SIGSTOP);
    const outcome seen = outcome_of([&] {
        ::syscall(marker, 0);
        blocks = 0;
        errno = untouched;
        allocations_left = allocation;
        const result value = operation();
        const int error = errno;
        told.allocation_failed = allocation != 0 && allocations_left == 0;
        allocations_left = 0;
        told.blocks = blocks;
        ::syscall(marker, 0);
        errno = error;
        return value;
    });
    told.value = seen.value;
    told.error = seen.error;
    told.opens = seen.opens;
    copy(told.err, seen.err);
    copy(told.out, seen.out);
#ifdef COUNTS_COVERAGE // which an exit writes
    std::exit(0);
#endif
    ::_exit(0);
}

// A call that is about to be made.
struct stopped_call {
    long number;
    std::vector<uint64_t> arguments;
};

stopped_call call_of(pid_t pid)
{
    __ptrace_syscall_info info = {};
    ::ptrace(PTRACE_GET_SYSCALL_INFO, pid, sizeof info, &info);
    return {static_cast<long>(info.entry.nr),
            {std::begin(info.entry.args), std::end(info.entry.args)}};
}

std::string text_at(pid_t pid, uint64_t address)
{
    std::ifstream memory("/proc/" + std::to_string(pid) + "/mem");
    memory.seekg(static_cast<std::streamoff>(address));
    std::string text;
    std::getline(memory, text, '\0');
    return text;
}

bool is_one_of(const std::string &name, std::initializer_list<std::string_view> calls)
{
    return std::find(calls.begin(), calls.end(), name) != calls.end();
}

// A call's name, without what differs from one machine to another.
std::string name_of(const stopped_call &call)
{
    char *const name =
        ::seccomp_syscall_resolve_num_arch(SCMP_ARCH_NATIVE, static_cast<int>(call.number));
    std::string text = name ? name : "unknown";
    ::free(name);
    for (const char *kind :
         {"lseek", "mmap", "nanosleep", "open", "pread", "pwrite", "stat", "timerfd_settime"})
        if (text.find(kind) != text.npos)
            text = kind;
    return text;
}

// Its path, which is its first or second argument or that of a descriptor to close, if it has one.
std::string path_of(pid_t pid, const stopped_call &call)
{
    if (name_of(call) == "close") {
        const std::string link =
            printed("/proc/%d/fd/%d", pid, static_cast<int>(call.arguments[0]));
        std::error_code unused;
        return ' ' + std::filesystem::read_symlink(link, unused).string();
    }
    if (!is_one_of(name_of(call),
                   {"access", "getxattr", "mkdir", "mknod", "mknodat", "open", "readlink", "stat"}))
        return "";
    const std::string first = text_at(pid, call.arguments[0]);
    return ' ' + (first.empty() ? text_at(pid, call.arguments[1]) : first);
}

// How a file is opened, but for what a new program keeps of it.
std::string flags_of(const stopped_call &open)
{
    const uint64_t flags = open.arguments[2]; // of openat(2)
    const char *const modes[] = {"O_RDONLY", "O_WRONLY", "O_RDWR", "no mode"};
    std::string text = modes[flags & O_ACCMODE];
    for (const auto &[flag, name] : {std::pair{O_CREAT, "O_CREAT"},
                                     {O_EXCL, "O_EXCL"},
                                     {O_TRUNC, "O_TRUNC"},
                                     {O_APPEND, "O_APPEND"},
                                     {O_NONBLOCK, "O_NONBLOCK"},
                                     {O_SYNC, "O_SYNC"}})
        if ((flags & static_cast<uint64_t>(flag)) == static_cast<uint64_t>(flag))
            text.append("|").append(name);
    return text;
}

// The heap's own calls and the output to the standard streams do not fail.
bool may_fail(const std::string &name, const stopped_call &call)
{
    if (call.number == SYS_brk || is_one_of(name, {"nanosleep", "umask"}))
        return false;
    if (name == "mmap")
        return (call.arguments[3] & MAP_ANONYMOUS) == 0;
    return !(name == "write" && call.arguments[0] <= STDERR_FILENO);
}

#ifdef __x86_64__
constexpr size_t number_register = offsetof(user_regs_struct, orig_rax);
constexpr size_t result_register = offsetof(user_regs_struct, rax);
#else
constexpr size_t number_register = offsetof(user_regs_struct, orig_eax);
constexpr size_t result_register = offsetof(user_regs_struct, eax);
#endif

// Runs an operation in a child, and lets one of its calls fail if it is told so.
class traced_run
{
public:
    // Which system call fails, from 0 on, or which allocation, from 1 on.
    traced_run(const std::function<result()> &operation, int call, int allocation, int error,
               int later = 0)
        : told_(static_cast<report *>(::mmap(nullptr, sizeof(report), PROT_READ | PROT_WRITE,
                                             MAP_SHARED | MAP_ANONYMOUS, -1, 0))),
          failing_(call), error_(error), later_(later)
    {
        std::fflush(nullptr);
        pid_ = ::fork();
        if (pid_ == 0)
            run_traced(operation, allocation, *told_);
        watch();
    }
    ~traced_run() { ::munmap(told_, sizeof *told_); }
    traced_run(const traced_run &) = delete;
    traced_run &operator=(const traced_run &) = delete;

    bool ended() const { return markers_ == 2; }
    bool failed() const { return !failed_.empty(); }
    bool allocation_failed() const { return told_->allocation_failed; }
    const call_counts &counts() const { return counts_; }
    const std::string &opens() const { return opens_; }

    run what() const
    {
        return {failed_,
                {told_->value, told_->error, told_->err, told_->out, told_->opens},
                told_->blocks};
    }

private:
    void watch()
    {
        int status;
        ::waitpid(pid_, &status, 0);
        ::ptrace(PTRACE_SETOPTIONS, pid_, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
        int signal = 0;
        for (bool entering = true;;) {
            ::ptrace(PTRACE_SYSCALL, pid_, nullptr, signal);
            if (::waitpid(pid_, &status, 0) != pid_ || !WIFSTOPPED(status))
                return;
            signal = WSTOPSIG(status);
            if (signal != (SIGTRAP | 0x80))
                continue;
            signal = 0;
            if (entering)
                enter(call_of(pid_));
            else
                leave();
            entering = !entering;
        }
    }

    void enter(const stopped_call &call)
    {
        if (call.number == marker && call.arguments[0] != 0)
            broken_ = true;
        else if (call.number == marker)
            ++markers_;
        else if (markers_ == 1)
            see(call);
    }

    void see(const stopped_call &call)
    {
        const std::string name = name_of(call);
        ++counts_[name];
        if (name == "open" && (call.arguments[2] & O_DIRECTORY) == 0)
            opens_ += flags_of(call) + path_of(pid_, call) + "\n";
        if (!may_fail(name, call))
            return;
        const bool chosen = failing_-- == 0;
        if (chosen)
            failed_ = name + path_of(pid_, call);
        fails_with_ = chosen ? error_ : broken_ ? later_ : 0;
        broken_ = broken_ || chosen;
        if (fails_with_ != 0 && !is_one_of(name, {"close", "munmap"}))
            ::ptrace(PTRACE_POKEUSER, pid_, number_register, -1L);
    }

    void leave()
    {
        if (fails_with_ != 0)
            ::ptrace(PTRACE_POKEUSER, pid_, result_register, static_cast<long>(-fails_with_));
        fails_with_ = 0;
    }

    report *told_;
    pid_t pid_;
    int failing_;
    int error_;
    int later_;
    int markers_ = 0;
    bool broken_ = false; // something has failed
    int fails_with_ = 0;  // the call that is being made
    std::string failed_;
    call_counts counts_;
    std::string opens_;
};

constexpr int none = -1;

} // namespace

std::ostream &operator<<(std::ostream &stream, const run &what)
{
    return stream << "with a failing " << what.failed << ": " << what.seen << "\nblocks "
                  << what.blocks;
}

int fail_each_call(int error, const std::function<result()> &operation,
                   const std::function<void(const run &)> &judge, int later)
{
    int runs = 0;
    for (int call = 0;; ++call, ++runs) {
        const traced_run attempt(operation, call, 0, error, later);
        if (!attempt.ended())
            ADD_FAILURE() << "call " << call << " ended the process: " << attempt.what();
        if (!attempt.failed())
            break;
        judge(attempt.what());
    }
    for (int allocation = 1; heap_can_fail; ++allocation, ++runs) {
        const traced_run attempt(operation, none, allocation, 0, later);
        run seen = attempt.what();
        seen.failed = std::string("allocation ").append(std::to_string(allocation));
        if (!attempt.ended())
            ADD_FAILURE() << "the process ended " << seen;
        if (!attempt.allocation_failed())
            break;
        judge(seen);
    }
    return runs;
}

// What came of a run, in short: the operation's result, and what it printed but for debug lines.
static std::string text_of(const run &seen)
{
    std::string said = seen.seen.out;
    std::istringstream lines(seen.seen.err);
    for (std::string line; std::getline(lines, line);)
        if (!line.empty() && !line.starts_with("LOG_DEBUG "))
            said.append(line).append(1, '\n');
    return std::to_string(seen.seen.value.number) + (said.empty() ? "\n" : " " + said);
}

static void expect_nothing_left(const run &seen)
{
    EXPECT_EQ(seen.seen.opens, 0) << seen;
    EXPECT_EQ(seen.blocks, 0) << seen;
}

std::string failures_of(int error, const std::function<result()> &operation)
{
    std::string all;
    fail_each_call(error, operation, [&all](const run &seen) {
        expect_nothing_left(seen);
        const std::string text =
            seen.failed.substr(0, seen.failed.find(' ')) + ": " + text_of(seen);
        if (("\n" + all).find("\n" + text) == std::string::npos)
            all += text;
    });
    return all;
}

void expect_failures(const std::string &name, int error, const std::function<result()> &operation)
{
    std::set<std::string> of_calls, of_allocations;
    fail_each_call(error, operation, [&](const run &seen) {
        expect_nothing_left(seen);
        (seen.failed.starts_with("allocation") ? of_allocations : of_calls).insert(text_of(seen));
    });
    const auto joined = [](const std::set<std::string> &all) {
        std::string text;
        for (const std::string &one : all)
            text += one;
        text = replaced(text, "pwrite\\([0-9]+", "pwrite(FD");
        text = replaced(text, "munmap\\(0x[0-9a-f]+", "munmap(ADDRESS");
        return replaced(text, "(realloc \\(|handle: calloc\\()[0-9]+", "$1SIZE");
    };
    EXPECT_TEXT(name + "/failing_calls.txt", joined(of_calls));
    if (heap_can_fail) {
        EXPECT_TEXT(name + "/failing_allocations.txt", joined(of_allocations));
    }
}

static traced_run watched(const std::function<void()> &operation)
{
    const auto call = [&] {
        operation();
        return 0;
    };
    return traced_run(call, none, 0, 0);
}

call_counts system_calls_of(const std::function<void()> &operation)
{
    const traced_run run = watched(operation);
    return run.ended() ? run.counts() : call_counts{{"did not end", 1}};
}

std::string opens_of(const std::function<void()> &operation)
{
    return watched(operation).opens();
}

} // namespace test

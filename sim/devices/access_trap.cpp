// The tracer of clients that map windows of registers that behave.
#include "sim/devices/access_trap.h"

#include "access_trace/instruction.h"
#include "access_trace/stopped_thread.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <sstream>

#include <sys/ptrace.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

namespace chassis_sim
{
namespace
{

namespace fs = std::filesystem;
using access_trace::trace;

// Whether this process traces it; the number of a thread that has ended may be another's.
bool is_traced(pid_t thread)
{
    constexpr char word[] = "TracerPid:";
    const std::string status = file_text("/proc/" + std::to_string(thread) + "/status");
    const size_t place = status.find(word);
    return place != std::string::npos &&
           std::atoi(status.c_str() + place + sizeof word - 1) == ::getpid();
}

// The accesses of one instruction, on their way to the window.
class bus_accesses : public access_trace::accesses
{
public:
    bus_accesses(register_bus &bus, register_window &window, pid_t thread)
        : bus_(bus), window_(window), thread_(thread)
    {
    }
    uint64_t read(uint64_t offset, size_t width) override
    {
        return bus_.read(window_, offset, width, thread_);
    }
    void write(uint64_t offset, size_t width, uint64_t value) override
    {
        bus_.write(window_, offset, width, value, thread_);
    }

private:
    register_bus &bus_;
    register_window &window_;
    pid_t thread_;
};

void go_on(pid_t thread, int signal_number = 0)
{
    access_trace::go_on(thread, PTRACE_CONT, signal_number);
}

} // namespace

access_trap::access_trap(window_table &windows, register_bus &bus, event_loop &loop)
    : windows_(windows), bus_(bus)
{
    sigset_t told;
    ::sigemptyset(&told);
    ::sigaddset(&told, SIGCHLD);
    ::sigprocmask(SIG_BLOCK, &told, nullptr);
    children_.reset(must(::signalfd(-1, &told, SFD_CLOEXEC | SFD_NONBLOCK), "signalfd"));
    loop.watch(children_.get(), [this] {
        signalfd_siginfo seen;
        while (::read(children_.get(), &seen, sizeof seen) > 0) {
        }
        handle_stops();
    });
}

int access_trap::follow(const asking_process &client)
{
    ranges_.clear();
    try {
        constexpr uint8_t nop = 0x90;
        access_trace::decode(&nop, sizeof nop, true, false);
    } catch (const std::exception &error) {
        complain(error.what());
        return EOPNOTSUPP;
    }
    if (access_trace::is_too_wide(client.thread())) {
        complain("a chassis-sim of 32 bits cannot follow the registers of a 64-bit program");
        return EOPNOTSUPP;
    }
    constexpr uintptr_t options =
        PTRACE_O_TRACECLONE | PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK | PTRACE_O_TRACEEXEC;
    const fs::path tasks = "/proc/" + std::to_string(client.id()) + "/task";
    // Threads that are made meanwhile are those of a thread that is not traced yet.
    for (bool found_more = true; found_more;) {
        found_more = false;
        std::error_code gone;
        for (const auto &entry : fs::directory_iterator(tasks, gone)) {
            const pid_t thread = std::stoi(entry.path().filename());
            if (is_traced(thread))
                continue;
            if (trace(PTRACE_SEIZE, thread, 0, reinterpret_cast<void *>(options)) != 0) {
                const int error = errno;
                complain("cannot follow what " + access_trace::name_of(thread) +
                         " does with its registers: a debugger, strace or the machine's rules for "
                         "ptrace keep others out");
                return error;
            }
            threads_.insert(thread);
            found_more = true;
        }
    }
    return 0;
}

void access_trap::handle_stops()
{
    int status;
    for (pid_t thread; (thread = ::waitpid(-1, &status, __WALL | WNOHANG)) > 0;)
        handle_stop(thread, status);
}

void access_trap::handle_stop(pid_t thread, int status)
{
    if (!WIFSTOPPED(status)) {
        threads_.erase(thread);
        ranges_.erase(thread);
        return;
    }
    threads_.insert(thread); // that of a child that is traced with it, too
    const int signal_number = WSTOPSIG(status);
    switch (status >> 16) {
    case 0:
        return signal_number == SIGBUS ? handle_fault(thread) : go_on(thread, signal_number);
    case PTRACE_EVENT_EXEC: // it has another memory
        threads_.erase(thread);
        ranges_.erase(thread);
        trace(PTRACE_DETACH, thread, 0, nullptr);
        return;
    case PTRACE_EVENT_STOP:
        if (signal_number != SIGTRAP) { // it stays stopped, as its shell wants it
            trace(PTRACE_LISTEN, thread, 0, nullptr);
            return;
        }
        return go_on(thread);
    default:
        return go_on(thread);
    }
}

void access_trap::handle_fault(pid_t thread)
{
    siginfo_t fault;
    trace(PTRACE_GETSIGINFO, thread, 0, &fault);
    const auto address = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(fault.si_addr));
    const std::optional<met> at =
        fault.si_code > 0 ? find(thread, address) : std::nullopt; // else a process has sent it
    bool answered = false;
    try {
        if (at) {
            bus_accesses accesses(bus_, *at->window, thread);
            answered = access_trace::answer(
                thread, {address, at->offset, at->window->size() - at->offset, at->window->name()},
                accesses);
        }
    } catch (const std::exception &error) {
        complain(error.what());
    }
    go_on(thread, answered ? 0 : SIGBUS);
}

std::vector<access_trap::range> access_trap::ranges_of(pid_t thread) const
{
    std::vector<range> ranges;
    std::istringstream maps(file_text("/proc/" + std::to_string(thread) + "/maps"));
    for (std::string line; std::getline(maps, line);) {
        unsigned long long start, end, offset;
        const size_t path = line.find('/');
        if (path == std::string::npos ||
            std::sscanf(line.c_str(), "%llx-%llx %*s %llx", &start, &end, &offset) != 3)
            continue;
        if (register_window *const window = windows_.find(line.substr(path)))
            ranges.push_back({start, end, offset, window});
    }
    return ranges;
}

std::optional<access_trap::met> access_trap::find(pid_t thread, uint64_t address)
{
    auto known = ranges_.find(thread);
    for (int looks = 0; looks < 2; ++looks) {
        if (known == ranges_.end() || looks == 1)
            known = ranges_.insert_or_assign(thread, ranges_of(thread)).first;
        for (const range &of : known->second) {
            if (address < of.start || address >= of.end)
                continue;
            const uint64_t offset = of.offset + (address - of.start) - of.window->base();
            return offset < of.window->size() ? std::optional(met{of.window, offset})
                                              : std::nullopt;
        }
    }
    return std::nullopt;
}

} // namespace chassis_sim

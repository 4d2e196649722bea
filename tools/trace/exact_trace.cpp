// Follows a program's descriptors and mappings, and makes its accesses.
#include "tools/trace/exact_trace.h"

#include "access_trace/instruction.h"
#include "access_trace/stopped_thread.h"
#include "access_trace/thread_memory.h"
#include "tools/base/errors.h"
#include "tools/base/output.h"
#include "tools/trace/device_path.h"
#include "tools/trace/program.h"
#include "tools/trace/traced_call.h"

#include <algorithm>
#include <cerrno>
#include <csetjmp>
#include <csignal>
#include <cstring>
#include <fstream>
#include <memory>
#include <set>

#include <fmt/format.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace devaccess
{
namespace
{

using access_trace::copy_memory;
using access_trace::go_on;
using access_trace::trace;

//--- accesses -------------------------------------------------------------------------------------

// The device did not answer, or not so: the signal is the program's.
struct access_fault {
    int signal_number;
};

thread_local sigjmp_buf before_access;

void leave_access(int signal_number)
{
    ::siglongjmp(before_access, signal_number);
}

// Runs one access of this process. Nothing in it has a destructor.
template <typename Access>
void try_access(Access access)
{
    struct sigaction leave = {}, before[2];
    leave.sa_handler = leave_access;
    ::sigaction(SIGBUS, &leave, &before[0]);
    ::sigaction(SIGSEGV, &leave, &before[1]);
    const int fault = sigsetjmp(before_access, 1);
    if (fault == 0)
        access();
    ::sigaction(SIGBUS, &before[0], nullptr);
    ::sigaction(SIGSEGV, &before[1], nullptr);
    if (fault != 0)
        throw access_fault{fault};
}

template <typename T>
uint64_t load(const uint8_t *at)
{
    T value = 0;
    try_access([&] { value = *reinterpret_cast<const volatile T *>(at); });
    return value;
}

template <typename T>
void store(uint8_t *at, uint64_t value)
{
    try_access([&] { *reinterpret_cast<volatile T *>(at) = static_cast<T>(value); });
}

//--- what a process has ---------------------------------------------------------------------------

struct mapped_range {
    uint64_t start, end;
    uint64_t base; // of offsets in the window
    traced_window *window;
    uint8_t *own; // this process's mapping
};

struct traced_process {
    std::map<int, device_path> opened;
    std::vector<mapped_range> ranges;
};

struct traced_thread {
    std::shared_ptr<traced_process> process;
    traced_call call;                // that it is in, or was in last
    bool is_changed = false;         // its arguments
    uint8_t *mapping = nullptr;      // made for the call
    uint64_t since = 0;              // the call has begun
    std::optional<trace_event> seen; // an interrupt, of which a read may tell the count
};

int64_t number_in_status(pid_t thread, const char *word)
{
    std::ifstream status(fmt::format("/proc/{}/status", thread));
    for (std::string line; std::getline(status, line);)
        if (line.starts_with(word))
            return std::atoll(line.c_str() + std::strlen(word));
    return 0;
}

class exact_tracer : access_trace::accesses
{
public:
    exact_tracer(traced_windows &windows, trace_writer &to) : windows_(windows), to_(to) {}

    void follow(traced_program &program)
    {
        constexpr uint8_t nop = 0x90; // so that what decodes is loaded, or known to be missing
        try {
            access_trace::decode(&nop, sizeof nop, true, false);
        } catch (const std::exception &error) {
            throw failure("trace the program", error.what(), "install it, or leave --exact out");
        }
        constexpr uintptr_t options = PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACECLONE |
                                      PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK |
                                      PTRACE_O_TRACEEXEC | PTRACE_O_EXITKILL;
        if (trace(PTRACE_SEIZE, program.id(), 0, reinterpret_cast<void *>(options)) != 0)
            throw failure("trace the program",
                          errno == EPERM ? "a debugger, strace or another trace follows it already"
                                         : std::strerror(errno),
                          "one can follow a program at a time");
        threads_[program.id()].process = std::make_shared<traced_process>();
        ::ptrace(PTRACE_INTERRUPT, program.id(), nullptr, nullptr);
        program.begin();
    }

    // Until nobody is left.
    void run(traced_program &program)
    {
        int status;
        while (true) {
            pid_t thread = ::waitpid(-1, &status, __WALL | WNOHANG);
            if (thread == 0) {
                to_.idle(trace_time());
                thread = ::waitpid(-1, &status, __WALL);
            }
            if (thread < 0 && errno == EINTR)
                continue;
            if (thread < 0)
                return;
            program.ended(thread, status);
            if (WIFSTOPPED(status))
                stopped(thread, status);
            else
                threads_.erase(thread);
        }
    }

private:
    //--- stops ---

    traced_thread &thread_of(pid_t thread)
    {
        traced_thread &known = threads_[thread];
        if (known.process)
            return known;
        const auto leader = static_cast<pid_t>(number_in_status(thread, "Tgid:"));
        const auto parent = static_cast<pid_t>(number_in_status(thread, "PPid:"));
        for (const auto &[id, other] : threads_)
            if (id != thread && other.process &&
                number_in_status(id, "Tgid:") == (leader == thread ? parent : leader)) {
                known.process = leader == thread ? std::make_shared<traced_process>(*other.process)
                                                 : other.process;
                return known;
            }
        known.process = std::make_shared<traced_process>();
        return known;
    }

    void stopped(pid_t id, int status)
    {
        traced_thread &thread = thread_of(id);
        const int signal_number = WSTOPSIG(status);
        if (signal_number == (SIGTRAP | 0x80)) {
            if (const std::optional<traced_call> call = begun_call(id))
                call_begins(id, thread, *call);
            else
                call_ends(id, thread);
            return go_on(id, PTRACE_SYSCALL);
        }
        switch (status >> 16) {
        case 0:
            return signal_number == SIGSEGV ? fault(id, thread)
                                            : go_on(id, PTRACE_SYSCALL, signal_number);
        case PTRACE_EVENT_EXEC:
            executed(id, thread);
            return go_on(id, PTRACE_SYSCALL);
        case PTRACE_EVENT_STOP:
            if (signal_number == SIGSTOP || signal_number == SIGTSTP || signal_number == SIGTTIN ||
                signal_number == SIGTTOU)
                return go_on(id, PTRACE_LISTEN);
            return go_on(id, PTRACE_SYSCALL);
        default:
            return go_on(id, PTRACE_SYSCALL);
        }
    }

    // Another program has other memory and, of descriptors, those that it inherits.
    void executed(pid_t id, traced_thread &thread)
    {
        if (access_trace::is_too_wide(id))
            note("a devaccess of 32 bits cannot follow the accesses of a 64-bit program");
        auto made = std::make_shared<traced_process>();
        for (const auto &[fd, device] : thread.process->opened)
            if (::access(fmt::format("/proc/{}/fd/{}", id, fd).c_str(), F_OK) == 0)
                made->opened.emplace(fd, device);
        thread = {};
        thread.process = std::move(made);
    }

    void fault(pid_t id, traced_thread &thread)
    {
        siginfo_t info;
        trace(PTRACE_GETSIGINFO, id, 0, &info);
        const auto address = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(info.si_addr));
        const auto &ranges = thread.process->ranges;
        const auto range = std::find_if(ranges.begin(), ranges.end(), [&](const mapped_range &r) {
            return address >= r.start && address < r.end;
        });
        if (info.si_code <= 0 || range == ranges.end())
            return go_on(id, PTRACE_SYSCALL, SIGSEGV);
        tell_interrupt(thread);
        current_ = id;
        range_ = &*range;
        const std::string name = range->window->text();
        const uint64_t offset = address - range->start;
        int signal_number = 0;
        try {
            access_trace::answer(id, {address, offset, range->end - address, name}, *this);
        } catch (const access_fault &device) {
            signal_number = device.signal_number;
        } catch (const std::exception &error) {
            note(error.what());
            signal_number = SIGSEGV;
        }
        go_on(id, PTRACE_SYSCALL, signal_number);
    }

    //--- accesses ---

    uint64_t read(uint64_t offset, size_t width) override
    {
        const uint8_t *const at = range_->own + offset;
        const uint64_t value = width == 1   ? load<uint8_t>(at)
                               : width == 2 ? load<uint16_t>(at)
                               : width == 4 ? load<uint32_t>(at)
                                            : load<uint64_t>(at);
        tell(trace_action::read, offset, width, value);
        return value;
    }

    void write(uint64_t offset, size_t width, uint64_t value) override
    {
        uint8_t *const at = range_->own + offset;
        tell(trace_action::write, offset, width, value);
        width == 1   ? store<uint8_t>(at, value)
        : width == 2 ? store<uint16_t>(at, value)
        : width == 4 ? store<uint32_t>(at, value)
                     : store<uint64_t>(at, value);
    }

    void tell(trace_action what, uint64_t offset, size_t width, uint64_t value)
    {
        to_.take(event_of(what, current_, *range_->window, static_cast<unsigned>(width),
                          range_->base + offset, value));
    }

    static trace_event event_of(trace_action what, pid_t thread, traced_window &window,
                                unsigned width, uint64_t offset, uint64_t value)
    {
        trace_event event;
        event.time = trace_time();
        event.thread = static_cast<uint32_t>(thread);
        event.window = &window;
        event.what = what;
        event.width = width;
        event.offset = offset;
        event.value = value;
        return event;
    }

    //--- calls ---

    const device_path *opened(const traced_thread &thread, int fd) const
    {
        const auto found = thread.process->opened.find(fd);
        return found == thread.process->opened.end() ? nullptr : &found->second;
    }

    traced_window &window_of(const device_path &device, uint64_t offset = UINT64_MAX)
    {
        const auto page = static_cast<uint64_t>(::sysconf(_SC_PAGESIZE));
        if (device.kind == device_kind::uio && offset != UINT64_MAX)
            return windows_.get(device.name, static_cast<int32_t>(offset / page));
        if (device.kind == device_kind::resource)
            return windows_.get(device.name, device.bar);
        return windows_.get(
            device.name, device.kind == device_kind::configuration ? configuration_space : no_map);
    }

    void call_begins(pid_t id, traced_thread &thread, const traced_call &call)
    {
        thread.call = call;
        thread.since = trace_time();
        const bool reads = call.kind == call_kind::read && thread.seen;
        if (!reads)
            tell_interrupt(thread);
        if (call.kind == call_kind::map)
            map_begins(id, thread);
        if (call.kind == call_kind::protect && reaches_range(*thread.process, call)) {
            protect_nothing(id, call);
            thread.is_changed = true;
        }
    }

    static bool reaches_range(const traced_process &process, const traced_call &call)
    {
        return std::any_of(process.ranges.begin(), process.ranges.end(), [&](const auto &range) {
            return call.arguments[0] < range.end &&
                   range.start - std::min(range.start, call.arguments[0]) < call.arguments[1];
        });
    }

    void map_begins(pid_t id, traced_thread &thread)
    {
        const traced_call &call = thread.call;
        const bool is_shared = (call.arguments[3] & MAP_TYPE) != MAP_PRIVATE &&
                               (call.arguments[3] & MAP_ANONYMOUS) == 0;
        if (!is_shared || !opened(thread, call.descriptor()))
            return;
        const auto leader = static_cast<pid_t>(number_in_status(id, "Tgid:"));
        const auto process = static_cast<int>(::syscall(SYS_pidfd_open, leader, 0));
        const auto fd = static_cast<int>(::syscall(SYS_pidfd_getfd, process, call.descriptor(), 0));
        ::close(process);
        void *const own = ::mmap(nullptr, static_cast<size_t>(call.arguments[1]),
                                 static_cast<int>(call.arguments[2]), MAP_SHARED, fd,
                                 static_cast<off_t>(call.file_offset()));
        ::close(fd);
        if (own == MAP_FAILED) // and so will the program's fail
            return;
        thread.mapping = static_cast<uint8_t *>(own);
        thread.is_changed = true;
        map_nothing(id, call);
    }

    void call_ends(pid_t id, traced_thread &thread)
    {
        if (std::exchange(thread.is_changed, false))
            restore_arguments(id, thread.call);
        const int64_t result = call_result(id);
        if (result >= 0 || thread.call.kind == call_kind::map)
            done(id, thread, result);
    }

    void done(pid_t id, traced_thread &thread, int64_t result)
    {
        const traced_call &call = thread.call;
        switch (call.kind) {
        case call_kind::open:
        case call_kind::openat:
            return opened_file(id, thread, static_cast<int>(result));
        case call_kind::close:
            if (const device_path *const device = opened(thread, call.descriptor())) {
                to_.take(event_of(trace_action::close, id, window_of(*device), 0, 0, 0));
                thread.process->opened.erase(call.descriptor());
            }
            return;
        case call_kind::duplicate:
            return duplicated(thread, static_cast<int>(result));
        case call_kind::map:
            return mapped(id, thread, result);
        case call_kind::unmap:
            return unmapped(id, thread);
        case call_kind::remap:
            for (mapped_range &range : thread.process->ranges)
                if (range.start == call.arguments[0])
                    range = {static_cast<uint64_t>(result),
                             static_cast<uint64_t>(result) + (range.end - range.start), range.base,
                             range.window, range.own};
            return;
        case call_kind::wait:
            return waited(id, thread);
        case call_kind::read:
        case call_kind::read_at:
            return transferred(trace_action::read, id, thread, result);
        case call_kind::write:
        case call_kind::write_at:
            return transferred(trace_action::write, id, thread, result);
        default:
            return;
        }
    }

    void opened_file(pid_t id, traced_thread &thread, int fd)
    {
        const traced_call &call = thread.call;
        const std::string path =
            access_trace::text_at(id, call.arguments[call.kind == call_kind::openat ? 1 : 0]);
        const device_path device = device_of(path.c_str());
        thread.process->opened.erase(fd);
        if (device.kind == device_kind::none)
            return;
        thread.process->opened.emplace(fd, device);
        to_.take(event_of(trace_action::open, id, window_of(device), 0, 0, 0));
    }

    void duplicated(traced_thread &thread, int fd)
    {
        const device_path *const device = opened(thread, thread.call.descriptor());
        const bool is_descriptor = fd > 2 && fd != thread.call.descriptor();
        if (device && is_descriptor)
            thread.process->opened[fd] = *device;
    }

    void mapped(pid_t id, traced_thread &thread, int64_t result)
    {
        uint8_t *const own = std::exchange(thread.mapping, nullptr);
        const device_path *const device = opened(thread, thread.call.descriptor());
        const auto start = thread.call.is_wide ? static_cast<uint64_t>(result)
                                               : static_cast<uint64_t>(result) & 0xffffffff;
        const bool failed = result < 0 && result > -4096;
        if (!own || !device || failed)
            return;
        const uint64_t offset = thread.call.file_offset(), length = thread.call.arguments[1];
        traced_window &window = window_of(*device, offset);
        const uint64_t base = device->kind == device_kind::uio ? 0 : offset;
        thread.process->ranges.push_back({start, start + length, base, &window, own});
        to_.take(event_of(trace_action::map, id, window, 0, base, length));
    }

    void unmapped(pid_t id, traced_thread &thread)
    {
        const traced_call &call = thread.call;
        std::erase_if(thread.process->ranges, [&](const mapped_range &range) {
            const bool is_gone = range.start >= call.arguments[0] &&
                                 range.start - call.arguments[0] < call.arguments[1];
            if (is_gone) // a child may have it still, so this process keeps its own mapping
                to_.take(event_of(trace_action::unmap, id, *range.window, 0, 0, 0));
            return is_gone;
        });
    }

    void transferred(trace_action what, pid_t id, traced_thread &thread, int64_t length)
    {
        const traced_call &call = thread.call;
        const device_path *const device = length > 0 ? opened(thread, call.descriptor()) : nullptr;
        if (!device)
            return;
        traced_window &window = window_of(*device);
        uint32_t value = 0;
        if (device->kind == device_kind::uio && length == sizeof value &&
            copy_memory(id, false, call.arguments[1], &value, sizeof value) == sizeof value) {
            trace_event event = event_of(what == trace_action::read ? trace_action::interrupt
                                                                    : trace_action::control,
                                         id, window, 0, 0, value);
            if (what == trace_action::read)
                event.offset = thread.seen ? thread.seen->offset : event.time - thread.since;
            thread.seen.reset();
            to_.take(event);
        }
        const bool has_place = call.kind == call_kind::read_at || call.kind == call_kind::write_at;
        if (device->kind == device_kind::configuration && has_place)
            transferred_configuration(what, id, thread, window, static_cast<uint64_t>(length));
    }

    void transferred_configuration(trace_action what, pid_t id, const traced_thread &thread,
                                   traced_window &window, uint64_t length)
    {
        constexpr uint64_t widest = 4; // of the accesses that the kernel makes of a longer one
        for (uint64_t done = 0; done < length; done += widest) {
            const uint64_t width = std::min(widest, length - done);
            uint64_t value = 0;
            copy_memory(id, false, thread.call.arguments[1] + done, &value,
                        static_cast<size_t>(width));
            to_.take(event_of(what, id, window, static_cast<unsigned>(width),
                              thread.call.file_offset() + done, value));
        }
    }

    void waited(pid_t id, traced_thread &thread)
    {
        constexpr uint64_t most = 64;
        for (uint64_t i = 0; i < std::min(most, thread.call.arguments[1]); ++i) {
            pollfd one = {};
            copy_memory(id, false, thread.call.arguments[0] + i * sizeof one, &one, sizeof one);
            const device_path *const device = opened(thread, one.fd);
            if (!device || device->kind != device_kind::uio || !(one.revents & POLLIN))
                continue;
            thread.seen =
                event_of(trace_action::interrupt, id, window_of(*device), 0, 0, ~uint64_t{0});
            thread.seen->offset = thread.seen->time - thread.since;
        }
    }

    void tell_interrupt(traced_thread &thread)
    {
        if (thread.seen)
            to_.take(*std::exchange(thread.seen, std::nullopt));
    }

    traced_windows &windows_;
    trace_writer &to_;
    std::map<pid_t, traced_thread> threads_;
    pid_t current_ = 0;                   // whose access is made
    const mapped_range *range_ = nullptr; // and where
};

} // namespace

int trace_exactly(const std::vector<std::string> &command, traced_windows &windows,
                  const std::string &format, std::FILE *to)
{
    const auto writer = make_trace_writer(format, to, trace_time());
    traced_program program(command, {}, true);
    exact_tracer tracer(windows, *writer);
    tracer.follow(program);
    tracer.run(program);
    writer->finish();
    return program.status();
}

} // namespace devaccess

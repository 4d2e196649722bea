// Reads the ring that a program's preloaded object fills.
#include "tools/trace/preloaded_trace.h"

#include "tools/base/errors.h"
#include "tools/base/output.h"
#include "tools/trace/program.h"
#include "tools/trace/ring.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <deque>
#include <filesystem>
#include <fstream>
#include <optional>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace devaccess
{
namespace
{

namespace fs = std::filesystem;
namespace ring = trace_ring;

constexpr char object_name[] = "devaccess_trace.so";

// Beside the program where it is built, and among the libraries where it is installed.
fs::path find_object()
{
    std::error_code none;
    const fs::path program = fs::read_symlink("/proc/self/exe", none).parent_path();
    for (const fs::path &place :
         {program, (program / TRACE_OBJECT_FROM_PROGRAM).lexically_normal()})
        if (fs::exists(place / object_name, none))
            return place / object_name;
    throw failure("trace the program", std::string(object_name) + " is not installed",
                  "it belongs to devaccess; --exact does without it");
}

class shared_ring
{
public:
    shared_ring() : fd_(::memfd_create("devaccess-trace", MFD_CLOEXEC))
    {
        void *memory = MAP_FAILED;
        if (fd_ >= 0 && ::ftruncate(fd_, sizeof(ring::ring)) == 0)
            memory =
                ::mmap(nullptr, sizeof(ring::ring), PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0);
        if (memory == MAP_FAILED)
            throw failure("make room for the trace", std::strerror(errno), "", errno);
        ring_ = static_cast<ring::ring *>(memory);
        ring_->tracer = ::getpid();
    }
    ~shared_ring() { ring_->closed = 1; }
    shared_ring(const shared_ring &) = delete;
    shared_ring &operator=(const shared_ring &) = delete;

    std::string file() const { return fmt::format("/proc/{}/fd/{}", ::getpid(), fd_); }
    ring::ring *operator->() const { return ring_; }

private:
    int fd_;
    ring::ring *ring_;
};

// Whether the thread can never write again.
bool has_gone(uint32_t thread)
{
    std::ifstream status(fmt::format("/proc/{}/stat", thread));
    std::string line;
    if (!std::getline(status, line))
        return true;
    const size_t name_end = line.rfind(')');
    return name_end == line.npos || name_end + 2 >= line.size() || line[name_end + 2] == 'Z' ||
           line[name_end + 2] == 'X';
}

// By the ring's own numbers. An attaching program is told apart before.
constexpr trace_action known_actions[] = {
    trace_action::read,  trace_action::write,     trace_action::open,
    trace_action::open,  trace_action::close,     trace_action::map,
    trace_action::unmap, trace_action::interrupt, trace_action::control};
static_assert(std::size(known_actions) == static_cast<size_t>(ring::action::control) + 1);

class ring_reader
{
public:
    ring_reader(shared_ring &from, traced_windows &windows, trace_writer &to)
        : ring_(from), windows_(windows), to_(to)
    {
    }

    // Takes all that is written, so that the programs go on; it is told of afterwards. A record
    // that its writer, who has gone, did not finish is left out; so is one whose writer is not
    // known when nobody is left who could write.
    bool drain(bool is_end)
    {
        const uint64_t before = ticket_;
        while (backlog_.size() < most_waiting) {
            ring::record &place = ring_->ring[ticket_ % ring::records];
            const auto turn = static_cast<uint32_t>(ticket_ / ring::records * 2);
            if (place.turn.load(std::memory_order_acquire) == turn + 1) {
                take(place);
            } else if (ticket_ == ring_->next.load() || !is_unfinished(place, is_end)) {
                break;
            } else {
                ++unfinished_;
            }
            place.thread.store(0, std::memory_order_relaxed);
            place.turn.store(turn + 2, std::memory_order_release);
            ++ticket_;
            hole_since_.reset();
        }
        return ticket_ != before;
    }

    // Tells of some. False: there was nothing left to tell.
    bool tell()
    {
        constexpr size_t some = 4096;
        for (size_t i = 0; i < some && !backlog_.empty(); ++i) {
            to_.take(backlog_.front());
            backlog_.pop_front();
        }
        return !backlog_.empty();
    }

    uint64_t programs() const { return programs_; }
    uint64_t unfinished() const { return unfinished_; }

private:
    bool is_unfinished(const ring::record &place, bool is_end)
    {
        constexpr uint64_t patience = 100'000'000, longest = 2'000'000'000; // ns
        if (is_end)
            return true;
        if (!hole_since_)
            hole_since_ = trace_time();
        const uint64_t waited = trace_time() - *hole_since_;
        const uint32_t writer = place.thread.load();
        return waited > longest || (waited > patience && writer != 0 && has_gone(writer));
    }

    void take(const ring::record &place)
    {
        if (place.what == ring::action::attach) {
            ++programs_;
            return;
        }
        traced_window *&window = known_[std::min<size_t>(place.window, ring::windows - 1)];
        if (!window)
            window = &window_of(place.window);
        trace_event event;
        event.time = place.time;
        event.thread = place.thread.load(std::memory_order_relaxed);
        event.window = window;
        event.what = known_actions[static_cast<size_t>(place.what) % std::size(known_actions)];
        event.width = place.width;
        event.offset = place.offset;
        event.value = place.value;
        backlog_.push_back(event);
    }

    traced_window &window_of(uint16_t number)
    {
        const ring::window &entry = ring_->table[number];
        if (number >= ring::windows - 1 || entry.state.load(std::memory_order_acquire) != 2)
            return windows_.get("", no_map);
        return windows_.get(std::string(entry.device, ::strnlen(entry.device, sizeof entry.device)),
                            entry.map);
    }

    static constexpr size_t most_waiting = 4'000'000;

    shared_ring &ring_;
    traced_windows &windows_;
    trace_writer &to_;
    std::deque<trace_event> backlog_;
    uint64_t ticket_ = 0;
    std::array<traced_window *, ring::windows> known_ = {};
    std::optional<uint64_t> hole_since_;
    uint64_t programs_ = 0;
    uint64_t unfinished_ = 0;
};

// Takes what has ended. False: nobody is left.
bool reap(traced_program &program)
{
    int status;
    pid_t ended;
    while ((ended = ::waitpid(-1, &status, WNOHANG)) > 0)
        program.ended(ended, status);
    return ended == 0;
}

void tell_what_was_not_seen(const ring_reader &reader, const traced_windows &windows,
                            bool could_not_run)
{
    if (reader.unfinished() != 0)
        note(fmt::format("{} accesses were begun when their program was killed",
                         reader.unfinished()));
    if (reader.programs() == 0 && !could_not_run)
        note("nothing was seen: the program is static, of another width, or runs with other "
             "rights; --exact traces any");
    for (const std::string &device : windows.without_accesses())
        note(fmt::format("{} was mapped, and no access to its registers was seen: those that are "
                         "compiled into a program are seen with --exact",
                         device));
}

} // namespace

int trace_preloaded(const std::vector<std::string> &command, traced_windows &windows,
                    const std::string &format, std::FILE *to)
{
    if (::getenv(ring::file_variable))
        throw failure("trace the program", "another trace follows this one already",
                      "two traces do not nest");
    const fs::path object = find_object();
    shared_ring shared;
    const char *const loaded = ::getenv("LD_PRELOAD");
    const std::string all =
        loaded && *loaded ? std::string(loaded) + ":" + object.string() : object.string();
    const auto writer = make_trace_writer(format, to, trace_time());
    ring_reader reader(shared, windows, *writer);
    traced_program program(command, {{"LD_PRELOAD", all}, {ring::file_variable, shared.file()}},
                           false);
    bool is_told = false;
    while (true) {
        const bool is_left = reap(program);
        const bool has_come = reader.drain(!is_left);
        if (reader.tell() || has_come)
            continue;
        if (!is_left)
            break;
        if (program.has_ended() && !std::exchange(is_told, true))
            note("the program has ended; what it has left running is still traced");
        writer->idle(trace_time());
        constexpr timespec moment = {0, 1'000'000};
        ::nanosleep(&moment, nullptr);
    }
    writer->finish();
    tell_what_was_not_seen(reader, windows, program.status() == 126 || program.status() == 127);
    return program.status();
}

} // namespace devaccess

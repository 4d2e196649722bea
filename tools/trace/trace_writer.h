// Writes a trace: what happened, as text for people, as JSON lines, or for the page of a trace
// viewer.
#pragma once

#include "tools/trace/windows.h"

#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <string>

namespace devaccess
{

enum class trace_action { read, write, open, close, map, unmap, interrupt, control };

struct trace_event {
    uint64_t time = 0; // in ns, of CLOCK_MONOTONIC
    uint32_t thread = 0;
    traced_window *window = nullptr;
    trace_action what = trace_action::read;
    unsigned width = 0;  // in bytes
    uint64_t offset = 0; // of an interrupt: how many ns were waited for it
    uint64_t value = 0;  // of a map: its length; of an interrupt: its count, all ones when unknown
};

// An access, or equal reads that followed each other.
struct traced_access : trace_event {
    uint64_t count = 1;
    uint64_t last = 0; // its time
    const register_map::reg *is = nullptr;

    double seconds() const { return static_cast<double>(last - time) / 1e9; }
};

class trace_writer
{
public:
    // start: the time that others are counted from.
    trace_writer(std::FILE *to, uint64_t start) : to_(to), start_(start) {}
    virtual ~trace_writer() = default;
    trace_writer(const trace_writer &) = delete;
    trace_writer &operator=(const trace_writer &) = delete;

    // Equal reads of one device that follow each other become one access.
    void take(const trace_event &event);

    // Nothing comes for a while: what is known is written out.
    void idle(uint64_t now);
    // At the end. Throws a failure when something could not be written.
    void finish();

protected:
    // What is to be written is appended to it.
    std::string &out() { return out_; }
    // In ns, since the start.
    uint64_t since_start(uint64_t time) const { return time - start_; }

    virtual void access(const traced_access &done) = 0;
    virtual void other(const trace_event &event) = 0;
    virtual void end() {}

private:
    void let_out(const std::string &device);
    void let_all_out();
    void write_out();

    std::FILE *to_;
    uint64_t start_;
    std::string out_;
    bool is_lost_ = false;
    std::map<std::string, traced_access> pending_; // by device
};

// format: "text", "jsonl" or "chrome".
std::unique_ptr<trace_writer> make_trace_writer(const std::string &format, std::FILE *to,
                                                uint64_t start);

// In ns, of CLOCK_MONOTONIC.
uint64_t trace_time();

// "read", "open" and so on.
const char *name_of(trace_action what);

// "READY=1 ERROR=parity"
std::string fields_text(const traced_access &done);

} // namespace devaccess

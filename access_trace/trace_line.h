// Traces in JSON lines, as devaccess writes them, a line for an access or for what happened between
// them.
#pragma once

#include <cstdint>
#include <fstream>
#include <optional>
#include <string>

namespace access_trace
{

struct trace_line {
    double time = 0; // in seconds, since the trace began
    int64_t thread = 0;
    std::string device;            // "uio0", "0000:03:00.0" or "mem"
    std::optional<uint32_t> map;   // none: it is no access to a map
    bool is_configuration = false; // an access to the configuration space
    std::string event;             // empty: it is an access
    std::string name;              // of the register
    uint64_t offset = 0;
    unsigned width = 0; // in bits
    bool is_write = false;
    uint64_t value = 0;
    uint64_t count = 1; // of equal reads
};

class trace_reader
{
public:
    // Throws a std::runtime_error when it cannot be read.
    explicit trace_reader(const std::string &path);

    // The next line; nothing at the end, and where the rest is no line of a trace.
    std::optional<trace_line> next();

    // What is wrong with the line that it ended at: empty, when that is the trace's end.
    const std::string &problem() const { return problem_; }

private:
    std::string path_;
    std::ifstream file_;
    unsigned long number_ = 0; // of the line
    std::string problem_;
};

} // namespace access_trace

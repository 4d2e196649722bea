// Waits that people sit before: on a terminal a line says for what, and for how much longer. A
// signal that would end the program ends them.
#pragma once

#include "tools/base/errors.h"
#include "tools/base/output.h"

#include <chrono>
#include <functional>
#include <optional>
#include <set>
#include <string>

namespace devaccess
{

// A signal came; the command is left as after an error, and then the signal takes its effect.
struct interrupted {
    int signal;
};

class waiting
{
public:
    using clock = std::chrono::steady_clock; // CLOCK_MONOTONIC

    // Without limit if seconds are negative.
    waiting(std::string what, double seconds);
    ~waiting();
    waiting(const waiting &) = delete;
    waiting &operator=(const waiting &) = delete;

    // Shows the line, or what is true by now.
    void show();
    void clear();
    // Prints with a time: "time" and, in seconds from the beginning, "elapsed".
    void print(const record &what);
    record now() const;
    // Until which to sleep, so that the line is true.
    clock::time_point next_look(std::optional<clock::time_point> wanted = {}) const;
    bool is_over() const { return clock::now() >= deadline_; }
    // Throws when a signal has come.
    void check() const;
    // False when the time is over.
    bool sleep(std::chrono::milliseconds time);

private:
    std::string what_;
    std::string shown_; // on the terminal
    clock::time_point start_ = clock::now();
    clock::time_point deadline_;
    bool on_terminal_;
};

// Options of a wait, and of a look at a register again and again.
struct wait_options {
    double timeout = -1;
    unsigned every = 100;
    std::string until;
};

// Empty for a number of seconds to wait.
std::string time_problem(const std::string &text);

// Looks at devices, whose directories in sysfs these are. Where one has gone, before or during the
// look, that is what is said, and not what came of it.
void look_while_there(const std::set<std::string> &directories, const failure &removed,
                      const std::function<void()> &look);

// Prints what a register holds, and then each change, until the value is there or the time over.
// Fails when the directory of its device in sysfs has gone.
void watch_register(const std::string &name, const std::string &directory, unsigned width,
                    const wait_options &options, const std::function<uint64_t()> &read,
                    const std::function<record(uint64_t)> &describe);

} // namespace devaccess

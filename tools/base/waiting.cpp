// Waits that show what they wait for and end at a signal.
#include "tools/base/waiting.h"

#include "tools/base/numbers.h"
#include "tools/base/settings.h"

#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <thread>

#include <fmt/format.h>
#include <unistd.h>

namespace devaccess
{
namespace
{

using namespace std::chrono_literals;

constexpr int signals[] = {SIGINT, SIGTERM, SIGHUP};
volatile std::sig_atomic_t caught = 0;

void on_signal(int number)
{
    caught = number;
}

// Without SA_RESTART, so that sleeps end. What is ignored stays so, as nohup(1) wants it.
void handle_signals(void (*handler)(int))
{
    struct sigaction action = {}, before;
    action.sa_handler = handler;
    for (const int number : signals)
        if (::sigaction(number, nullptr, &before) == 0 && before.sa_handler != SIG_IGN)
            ::sigaction(number, &action, nullptr);
}

} // namespace

waiting::waiting(std::string what, double seconds)
    : what_(std::move(what)), deadline_(clock::time_point::max()),
      on_terminal_(::isatty(STDERR_FILENO) && !settings.as_json)
{
    if (seconds >= 0)
        deadline_ = start_ + std::chrono::duration_cast<clock::duration>(
                                 std::chrono::duration<double>(seconds));
    caught = 0;
    handle_signals(on_signal);
}

waiting::~waiting()
{
    clear();
    handle_signals(SIG_DFL);
}

void waiting::clear()
{
    if (on_terminal_)
        std::cerr << "\r\033[K" << std::flush;
    shown_.clear();
}

void waiting::show()
{
    if (!on_terminal_)
        return;
    std::string left = "until Ctrl-C";
    if (deadline_ != clock::time_point::max())
        left = fmt::format(
            "{} s left", std::chrono::ceil<std::chrono::seconds>(deadline_ - clock::now()).count());
    // What a narrow terminal has no room for is cut, not wrapped.
    if (const std::string line = printable(what_) + ", " + left;
        line != std::exchange(shown_, line))
        std::cerr << "\r\033[K\033[?7l" << line << "\033[?7h" << std::flush;
}

record waiting::now() const
{
    const auto microseconds = std::chrono::round<std::chrono::microseconds>(clock::now() - start_);
    const double elapsed = std::chrono::duration<double>(microseconds).count();
    record times;
    times.add_time("time", std::time(nullptr));
    return times.add("elapsed", elapsed, fmt::format("{:10.6f}", elapsed));
}

void waiting::print(const record &what)
{
    clear();
    print_line(now().append(what));
}

waiting::clock::time_point waiting::next_look(std::optional<clock::time_point> wanted) const
{
    auto until = std::min(deadline_, wanted.value_or(clock::time_point::max()));
    return on_terminal_ ? std::min(until, clock::now() + 500ms) : until;
}

void waiting::check() const
{
    if (caught)
        throw interrupted{caught};
}

bool waiting::sleep(std::chrono::milliseconds time)
{
    const auto wanted = clock::now() + time;
    do {
        check();
        show();
        const auto left = next_look(wanted) - clock::now();
        if (left > 0s) {
            const auto whole = std::chrono::duration_cast<std::chrono::seconds>(left);
            const timespec pause = {static_cast<time_t>(whole.count()),
                                    static_cast<long>((left - whole) / 1ns)};
            ::nanosleep(&pause, nullptr); // which a signal ends
        }
        check();
    } while (clock::now() < wanted && !is_over());
    return !is_over();
}

// Refuses what is no number at all too, which compares as in no range.
std::string time_problem(const std::string &text)
{
    char *end = nullptr;
    const double seconds = std::strtod(text.c_str(), &end);
    const bool good =
        !text.empty() && *end == '\0' && std::isfinite(seconds) && seconds >= 0 && seconds <= 1e9;
    return good ? "" : "'" + text + "' is not a number of seconds from 0 to 1e9";
}

void look_while_there(const std::set<std::string> &directories, const failure &removed,
                      const std::function<void()> &look)
{
    const auto expect_there = [&] {
        for (const std::string &directory : directories)
            if (::access(directory.c_str(), F_OK) != 0)
                throw removed;
    };
    expect_there();
    try {
        look();
    } catch (const failure &) {
        expect_there();
        throw;
    }
}

void watch_register(const std::string &name, const std::string &directory, unsigned width,
                    const wait_options &options, const std::function<uint64_t()> &read,
                    const std::function<record(uint64_t)> &describe)
{
    std::optional<masked_value> wanted;
    if (!options.until.empty())
        wanted = parse_masked(options.until, highest(width));
    waiting wait(wanted ? fmt::format("waiting for {} in {}", options.until, name)
                        : "watching " + name,
                 options.timeout);
    const failure removed("watch " + name, "its device has been removed",
                          "it can be watched again when the device is back", ENODEV);
    std::optional<uint64_t> last;
    do {
        uint64_t value = 0;
        look_while_there({directory}, removed, [&] { value = read(); });
        if (value != last)
            wait.print(describe(value));
        last = value;
        if (wanted && wanted->matches(value))
            return;
    } while (wait.sleep(std::chrono::milliseconds(options.every)));
    if (wanted)
        throw failure(fmt::format("see {} in {}", options.until, name),
                      fmt::format("after {:g} s it holds {:#x}", options.timeout, *last),
                      "a longer --timeout waits longer", ETIMEDOUT);
}

} // namespace devaccess

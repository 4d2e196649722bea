#include "walk.h"

#include "sim/program/private_root.h"

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace models
{

bool in_call = false;
std::function<void(std::string &)> normalise = [](std::string &) {};

//--- choices --------------------------------------------------------------------------------------

choices::choices(uint64_t seed, unsigned int step) : state_(seed * 0x9E3779B97F4A7C15 + step)
{
    bits();
}

uint64_t choices::bits()
{
    state_ += 0x9E3779B97F4A7C15; // splitmix64
    uint64_t mixed = state_;
    mixed = (mixed ^ mixed >> 30) * 0xBF58476D1CE4E5B9;
    mixed = (mixed ^ mixed >> 27) * 0x94D049BB133111EB;
    return mixed ^ mixed >> 31;
}

int choices::below(int bound)
{
    return static_cast<int>(bits() % static_cast<uint64_t>(bound));
}

int choices::hostile()
{
    switch (below(4)) {
    case 0:
        return between(-3, 20);
    case 1:
        return of({INT_MIN, INT_MIN + 1, INT_MAX, INT_MAX - 1, 0xFF, 0x100, 0x7FFF, 0x8000, 0xFFFF,
                   0x10000});
    case 2: {
        const int power = 1 << below(31);
        return of({power, power - 1, -power});
    }
    default:
        return static_cast<int>(bits());
    }
}

std::string choices::text(int longest)
{
    std::string letters(static_cast<size_t>(between(0, longest)), ' ');
    for (char &letter : letters)
        letter = static_cast<char>('a' + below(26));
    return letters;
}

std::string printed(const char *format, ...)
{
    char text[4096];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    return text;
}

namespace
{

//--- the streams ----------------------------------------------------------------------------------

// The process's own stream is replaced by one that keeps what is written. Writing disturbs errno,
// as it may in a client.
struct kept_stream {
    std::string text;
    FILE *file;

    kept_stream(FILE *&standard, bool buffered)
    {
        const auto keep = [](void *stream, const char *data, size_t size) {
            static_cast<kept_stream *>(stream)->text.append(data, size);
            errno = EOWNERDEAD;
            return static_cast<ssize_t>(size);
        };
        file = ::fopencookie(this, "w", {nullptr, keep, nullptr, nullptr});
        std::setvbuf(file, nullptr, buffered ? _IOFBF : _IONBF, buffered ? 1 << 16 : 0);
        standard = file;
    }

    // Returns what was written since the last time, and whether some of it was in the buffer.
    std::string take(bool &buffered)
    {
        const size_t before = text.size();
        std::fflush(file);
        buffered |= text.size() > before;
        return std::exchange(text, "");
    }
};
std::optional<kept_stream> output;
std::optional<kept_stream> errors;

int open_descriptors()
{
    static std::vector<pollfd> all(1024);
    for (size_t fd = 0; fd < all.size(); ++fd)
        all[fd] = {static_cast<int>(fd), 0, 0};
    ::poll(all.data(), all.size(), 0);
    return static_cast<int>(std::count_if(
        all.begin(), all.end(), [](const pollfd &one) { return (one.revents & POLLNVAL) == 0; }));
}

//--- what a walk tells its parent -----------------------------------------------------------------

struct report {
    unsigned int step;   // that it is at
    unsigned long calls; // compared so far
    bool disagreed;
    char text[1 << 18];
};
report *shared;
std::string transcript; // of a walk that is shown
bool shows = false;

std::string quoted(const std::string &text)
{
    std::string quote = "\"";
    for (char c : text)
        quote += c == '\n'            ? "\\n"
                 : c == '"'           ? "\\\""
                 : c < ' ' || c > '~' ? printed("\\%03o", static_cast<unsigned char>(c))
                                      : std::string(1, c);
    return quote + '"';
}

std::string described(const outcome &what)
{
    std::string text = std::to_string(what.value);
    if (what.error != any_error)
        text += what.error == untouched
                    ? ", errno untouched"
                    : printed(", errno %d (%s)", what.error, std::strerror(what.error));
    if (what.opens != 0)
        text += printed(", %+d descriptors", what.opens);
    if (what.flushed)
        text += ", flushed";
    if (!what.err.empty())
        text += "\n        stderr " + quoted(what.err);
    if (!what.out.empty())
        text += "\n        stdout " + quoted(what.out);
    return text;
}

bool agrees(const outcome &expected, const outcome &seen)
{
    return expected.value == seen.value && expected.err == seen.err && expected.out == seen.out &&
           expected.opens == seen.opens && (!expected.flushed || seen.flushed) &&
           (expected.error == any_error || expected.error == seen.error);
}

} // namespace

outcome expect(const std::string &description, const outcome &expected,
               const std::function<intmax_t()> &call)
{
    const int before = open_descriptors();
    outcome seen;
    in_call = true;
    errno = untouched;
    seen.value = call();
    seen.error = errno;
    in_call = false;
    bool buffered = false;
    seen.err = errors->take(buffered);
    seen.out = output->take(buffered);
    seen.flushed = !buffered;
    seen.opens = open_descriptors() - before;
    normalise(seen.err);
    normalise(seen.out);
    ++shared->calls;
    if (!agrees(expected, seen))
        throw disagreement(description + "\n      expected " + described(expected) +
                           "\n      but was  " + described(seen));
    if (shows)
        note(description + " = " + described(seen));
    return seen;
}

void note(const std::string &what)
{
    if (shows)
        transcript += printed("%6u: ", shared->step) + what + "\n";
}

void expect_same(const std::string &what, std::string_view expected, std::string_view seen)
{
    if (expected == seen)
        return;
    const auto [one, other] =
        std::mismatch(expected.begin(), expected.end(), seen.begin(), seen.end());
    const size_t at = static_cast<size_t>(one - expected.begin());
    const size_t from = at / 16 * 16;
    const auto part = [from](std::string_view all) {
        return quoted(std::string(from < all.size() ? all.substr(from, 48) : ""));
    };
    throw disagreement(
        what + printed(" differs at byte %zu (of %zu and %zu)", at, expected.size(), seen.size()) +
        printed("\n      expected from byte %zu on: ", from) + part(expected) +
        "\n      but was:  " + part(seen));
}

//--- walks ----------------------------------------------------------------------------------------

namespace
{

using steps = std::vector<unsigned int>;
using maker = std::function<std::unique_ptr<model>(choices &)>;

void take(uint64_t seed, const steps &wanted, const maker &make)
{
    chassis_sim::enter_private_root();
    output.emplace(stdout, seed % 2 == 0);
    errors.emplace(stderr, seed % 2 == 0);
    choices start(seed, 0);
    const std::unique_ptr<model> walker = make(start);
    for (const unsigned int step : wanted) {
        ::alarm(5); // a call that does not return
        shared->step = step;
        choices choose(seed, step);
        walker->step(choose);
    }
}

// Whether the walk agrees, in a process of its own. What it says is that of the sanitizers.
bool agrees(uint64_t seed, const steps &wanted, const maker &make, bool show)
{
    shared->step = 0;
    shared->disagreed = false;
    const pid_t pid = ::fork();
    if (pid == 0) {
        shows = show;
        if (!show)
            ::dup2(::open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO);
        std::string what;
        try {
            take(seed, wanted, make);
        } catch (const std::exception &failed) {
            shared->disagreed = true;
            what = printed("%6u: ", shared->step) + failed.what();
        }
        std::strncpy(shared->text, (transcript + what).c_str(), sizeof shared->text - 1);
#ifdef COUNTS_COVERAGE // which an exit writes
        std::exit(0);
#endif
        ::_exit(0);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    if (status != 0)
        std::snprintf(shared->text, sizeof shared->text, "%6u: the process died, status 0x%x",
                      shared->step, static_cast<unsigned int>(status));
    return status == 0 && !shared->disagreed;
}

// Leaves out what the walk fails without.
steps shrunk(uint64_t seed, steps wanted, const maker &make)
{
    const auto cut = [&] {
        wanted.resize(static_cast<size_t>(
            std::upper_bound(wanted.begin(), wanted.end(), shared->step) - wanted.begin()));
    };
    cut();
    using clock = std::chrono::steady_clock;
    const clock::time_point end = clock::now() + std::chrono::seconds(30);
    for (size_t size = (wanted.size() + 1) / 2; size > 0; size /= 2)
        for (size_t at = 0; at < wanted.size() && clock::now() < end;) {
            steps fewer = wanted;
            fewer.erase(fewer.begin() + static_cast<ptrdiff_t>(at),
                        fewer.begin() + static_cast<ptrdiff_t>(std::min(at + size, fewer.size())));
            if (agrees(seed, fewer, make, false)) {
                at += size;
            } else {
                wanted = fewer;
                cut();
            }
        }
    return wanted;
}

void show(const char *program, uint64_t seed, const steps &all, const maker &make)
{
    const unsigned int failed = shared->step;
    std::printf("seed %ju: step %u disagrees; making the walk shorter\n", uintmax_t{seed}, failed);
    std::fflush(stdout);
    const steps few = shrunk(seed, all, make);
    agrees(seed, few, make, true);
    std::printf("%s\n%zu of %u steps show it: %s --seeds %ju --only ", shared->text, few.size(),
                failed, program, uintmax_t{seed});
    const char *separator = "";
    for (const unsigned int step : few)
        std::printf("%s%u", std::exchange(separator, ","), step);
    std::printf("%s\n", few.empty() ? "0" : "");
}

struct options {
    uint64_t first = 1;
    uint64_t last = 4;
    unsigned int count = 2000;
    steps only = {};
};

options parsed(int argc, char **argv)
{
    options wanted;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string_view name = argv[i];
        char *rest = nullptr;
        const uint64_t number = std::strtoull(argv[i + 1], &rest, 10);
        if (name == "--seeds") {
            wanted.first = number;
            wanted.last = *rest == '-' ? std::strtoull(rest + 1, nullptr, 10) : number;
        } else if (name == "--steps") {
            wanted.count = static_cast<unsigned int>(number);
        } else if (name == "--only") {
            wanted.only.push_back(static_cast<unsigned int>(number));
            while (*rest == ',')
                wanted.only.push_back(static_cast<unsigned int>(std::strtoul(rest + 1, &rest, 10)));
        }
    }
    if (wanted.only.empty())
        for (unsigned int step = 1; step <= wanted.count; ++step)
            wanted.only.push_back(step);
    return wanted;
}

} // namespace

int walk(int argc, char **argv, const maker &make)
{
    const auto began = std::chrono::steady_clock::now();
    const options wanted = parsed(argc, argv);
    void *const memory =
        ::mmap(nullptr, sizeof(report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        return 2;
    shared = static_cast<report *>(memory);
    for (uint64_t seed = wanted.first; seed <= wanted.last; ++seed)
        if (!agrees(seed, wanted.only, make, false)) {
            show(argv[0], seed, wanted.only, make);
            return 1;
        }
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;
    std::printf("seeds %ju to %ju of %zu steps: %lu calls compared in %.1f s\n",
                uintmax_t{wanted.first}, uintmax_t{wanted.last}, wanted.only.size(), shared->calls,
                took.count());
    return 0;
}

} // namespace models

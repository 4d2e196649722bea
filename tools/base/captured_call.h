// Calls of the library from a command: what it prints is kept off the command's own output, and its
// failures become one line.
#pragma once

#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <utility>

namespace devaccess
{

// The command line is not understood: exit status 2.
struct usage_error : std::runtime_error {
    explicit usage_error(const std::string &what, std::string suggested = "")
        : std::runtime_error(what), suggestion(std::move(suggested))
    {
    }

    std::string suggestion; // did_you_mean()
};

// A command could not do its work: exit status 1. "cannot WHAT: WHY", and a hint for what to do.
struct failure : std::runtime_error {
    // Where a right is missing, the hint is which.
    failure(const std::string &what, const std::string &why, const std::string &hint,
            int errno_value = 0);

    std::string hint;
    int error; // errno of the failing call, 0 when there is none
};

// While it exists, C's standard streams, which this C library lets a program set, go to memory.
class kept_output
{
public:
    kept_output();
    ~kept_output();
    kept_output(const kept_output &) = delete;
    kept_output &operator=(const kept_output &) = delete;

    std::string text();

private:
    FILE *const out_ = stdout;
    FILE *const err_ = stderr;
    char *text_ = nullptr;
    size_t size_ = 0;
    FILE *const memory_;
};

// The outcome of a call, with errno and what the library printed.
struct outcome {
    int error = 0;
    std::string said;

    // The first error that the library printed, or else its last line, and errno's text where the
    // line lacks it.
    std::string why() const;
};

template <typename T>
struct answer : outcome {
    T result;
};

void pass_on(const std::string &said);

// Makes a call whose interface promises errno.
template <typename Call>
auto ask(Call call)
{
    answer<decltype(call())> answered;
    {
        kept_output kept;
        errno = 0;
        answered.result = call();
        // Directories are made without a look whether they are there: that they are is no failure.
        answered.error = errno == EEXIST ? 0 : errno;
        answered.said = kept.text();
    }
    pass_on(answered.said);
    return answered;
}

// Makes a call of the logs, after which errno may be that of any step.
template <typename Call>
auto ask_log(Call call)
{
    auto answered = ask(std::move(call));
    answered.error = 0;
    return answered;
}

[[noreturn]] void fail(const std::string &what, const outcome &how, const std::string &hint);

// Something that is open; closed at the end of its use.
template <typename Close>
class opened
{
public:
    explicit opened(Close close) : close_(std::move(close)) {}
    ~opened()
    {
        ask([this] {
            close_();
            return 0;
        });
    }
    opened(const opened &) = delete;
    opened &operator=(const opened &) = delete;

private:
    Close close_;
};

// A number in decimal or, behind "0x", hexadecimal, at most max.
unsigned long long parse_number(const std::string &name, const std::string &text,
                                unsigned long long max);

// The highest number of so many bits.
constexpr unsigned long long highest(unsigned bits)
{
    return ~0ull >> (64 - bits);
}

// "VALUE" or "VALUE/MASK", of which the mask says the bits that count.
struct masked_value {
    unsigned long long value;
    unsigned long long mask;
    unsigned long long all; // of the register's bits

    bool is_whole() const { return mask == all; }
    unsigned long long applied_to(unsigned long long before) const
    {
        return (before & ~mask) | (value & mask);
    }
    bool matches(unsigned long long other) const { return ((other ^ value) & mask) == 0; }
};
masked_value parse_masked(const std::string &text, unsigned long long max);

// Upper case, as the names of cards and slots are.
std::string in_capitals(std::string text);

} // namespace devaccess

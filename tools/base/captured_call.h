// Calls of the library from a command: what it prints is kept off the command's own output, and its
// failures become one line.
#pragma once

#include <cerrno>
#include <cstdio>
#include <string>
#include <utility>

namespace devaccess
{

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

} // namespace devaccess

// Checks of the guest program. Each prints one line, "ok NAME" or "FAILED NAME: DETAIL", to
// descriptor 3; the program goes on after a failure.
#pragma once

#include <cerrno>
#include <string>

namespace guest
{

void check(const std::string &name, bool good, const std::string &detail);

// What a call that reports through errno did: its result, and errno where that is negative.
struct outcome {
    long long result;
    int error;
    bool operator==(const outcome &) const = default;
};

template <typename Call>
outcome outcome_of(Call &&call)
{
    errno = 0;
    const long long result = call();
    return {result, result < 0 ? errno : 0};
}

std::string text_of(long long number);
std::string text_of(const std::string &text);
std::string text_of(const outcome &done);

inline void check_equal(const std::string &name, long long got, long long expected)
{
    check(name, got == expected, text_of(got) + " instead of " + text_of(expected));
}

inline void check_equal(const std::string &name, const std::string &got,
                        const std::string &expected)
{
    check(name, got == expected, text_of(got) + " instead of " + text_of(expected));
}

inline void check_equal(const std::string &name, const outcome &got, const outcome &expected)
{
    check(name, got == expected, text_of(got) + " instead of " + text_of(expected));
}

} // namespace guest

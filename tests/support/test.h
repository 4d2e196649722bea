// What every test program includes: how to state a call whole, and the files of the chassis.
#pragma once

#include "sim/program/chassis.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <concepts>
#include <cstdint>
#include <cstring>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

namespace test
{

constexpr int any_error = -1;
constexpr int untouched = 0x4711; // what errno is before a call

// A call's result: a number, or a pointer of which only NULL or not NULL counts.
struct result {
    intmax_t number;
    result(std::integral auto value) : number(static_cast<intmax_t>(value)) {}
    result(const void *pointer) : number(pointer ? 1 : 0) {}
    bool operator==(const result &) const = default;
};
inline const void *const a_pointer = &errno;

// All that a call does to its process. What an expectation does not name must not happen.
struct outcome {
    result value = 0;
    int error = untouched; // errno after the call
    std::string err = {};  // on standard error
    std::string out = {};  // on standard output
    long opens = 0;        // descriptors that are open after it and were not before
    bool operator==(const outcome &seen) const;
};
std::ostream &operator<<(std::ostream &stream, const outcome &what);

// Makes the call. Both streams are the process's own again when it returns, so that what is
// asserted of the outcome is seen.
outcome outcome_of(const std::function<result()> &call);

// States what a call does: EXPECT_OUTCOME(call, {.value = -1, .error = EINVAL}).
#define EXPECT_OUTCOME(call, ...)                                                                  \
    EXPECT_EQ((test::outcome __VA_ARGS__),                                                         \
              test::outcome_of([&] { return test::value_of([&] { return call; }); }))

// What a call returns; 0 if that is nothing.
result value_of(const auto &call)
{
    if constexpr (std::is_void_v<decltype(call())>)
        return call(), 0;
    else
        return call();
}

// Whether a text is that of tests/expected/NAME; shows what differs. With RENEW_EXPECTED in the
// environment, the file becomes that text.
testing::AssertionResult is_expected(const std::string &name, const std::string &text);
#define EXPECT_TEXT(name, text) EXPECT_TRUE(test::is_expected(name, text))

// What calls do, one after another, as a text that is compared with a file: "CALL = RESULT", and
// after it what is not nothing: errno after -1, 0 and NULL, descriptors, and the lines that the
// call wrote, "! " before those of standard error. One that is not ended ends in a backslash.
class transcript
{
public:
    bool shows_errno = true;
    result call(const std::string &what, const std::function<result()> &call);
    void note(const std::string &what) { text_ += what + "\n"; }
    const std::string &text() const { return text_; }

private:
    std::string text_;
};
#define SHOW(transcript, ...)                                                                      \
    (transcript).call(#__VA_ARGS__, [&] { return test::value_of([&] { return __VA_ARGS__; }); })

// What a piece of code writes to standard output and to standard error.
struct streams {
    std::string out, err;
};
streams output_of(const std::function<void()> &code);

// How many descriptors the process has open.
long open_descriptors();

// Diagnostic lines of libuio ("log[LEVEL]: lib/device_access/libuio:LINE:FUNCTION(): TEXT") and of
// the PCI scan ("[LEVEL], lib/device_access/pci_sysfs:LINE:FUNCTION(): TEXT") without what changes
// from build to build: "LEVEL FUNCTION: TEXT". Outcomes have them so. Other lines stay as they are.
std::string short_lines(const std::string &text);

// What printf would write.
[[gnu::format(printf, 1, 2)]] std::string printed(const char *format, ...);

// With each match of the regular expression replaced.
std::string replaced(const std::string &text, const char *pattern, const char *by);

// The words of a text.
std::vector<std::string> words(const std::string &text);

// A file's contents; "" when there is none.
std::string read_file(const std::string &path);

// Where two images differ; "" if they do not.
std::string difference(const std::string &one, const std::string &other);

} // namespace test

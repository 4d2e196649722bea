// Random walks: a model of a part of the library, written from what its interface promises, goes
// step by step with the real one, and the two are compared after each call.
#pragma once

#include <cerrno>
#include <concepts>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace models
{

// The choices of one step. They depend on the walk's seed and the step's number alone: a step stays
// what it is when the steps before it are left out.
class choices
{
public:
    choices(uint64_t seed, unsigned int step);

    uint64_t bits();
    int below(int bound);
    int between(int first, int last) // both are possible, and the distance may be more than an int
    {
        const auto count = static_cast<uint64_t>(int64_t{last} - first + 1);
        return static_cast<int>(first + static_cast<int64_t>(bits() % count));
    }
    bool one_in(int count) { return below(count) == 0; }
    int hostile();                 // small numbers, the limits of all widths and signs, and any
    std::string text(int longest); // letters

    template <typename T>
    T of(std::initializer_list<T> values)
    {
        return values.begin()[below(static_cast<int>(values.size()))];
    }
    template <typename Container>
    auto &of(Container &values)
    {
        return values[static_cast<size_t>(below(static_cast<int>(std::size(values))))];
    }

private:
    uint64_t state_;
};

constexpr int any_error = -1;
constexpr int untouched = 0x4711; // what errno is before each call

// All that a call does to its process. What an expectation does not name must not happen.
struct outcome {
    intmax_t value = 0;
    std::string err = {};  // on standard error
    std::string out = {};  // on standard output
    int error = any_error; // errno after the call
    int opens = 0;         // descriptors that are open after it and were not before
    bool flushed = false;  // true: nothing may stay in a stream's buffer
};

struct disagreement : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Makes the call, which is described for the reader, and throws unless it does what is expected.
// Returns what it did.
outcome expect(const std::string &description, const outcome &expected,
               const std::function<intmax_t()> &call);

extern bool in_call; // of expect()

// Compares a call with what the model says of it, which is asked first.
#define COMPARE(predicted, ...)                                                                    \
    do {                                                                                           \
        const models::outcome predicted_outcome = predicted;                                       \
        models::expect(#__VA_ARGS__, predicted_outcome, [&] { return __VA_ARGS__; });              \
    } while (false)

// Says for the reader what a step does besides calls.
void note(const std::string &what);

// Throws unless the two are the same; says where they differ.
void expect_same(const std::string &what, std::string_view expected, std::string_view seen);
template <std::integral T>
void expect_same(const std::string &what, T expected, T seen)
{
    expect_same(what, std::to_string(expected), std::to_string(seen));
}

// Is applied to both streams of each call, to hide what no model can know: an address, a line.
extern std::function<void(std::string &)> normalise;

// What printf would write.
[[gnu::format(printf, 1, 2)]] std::string printed(const char *format, ...);

class model
{
public:
    virtual ~model() = default;
    virtual void step(choices &choose) = 0;
};

// The main program of a model. Each walk has a process of its own, in a private root; `make` starts
// it by the choices of step 0. One that fails is made as short as it still fails, and shown.
//
//     PROGRAM [--seeds FIRST-LAST] [--steps COUNT] [--only STEP,...]
//
// --only takes these steps alone, as a walk that was shown says.
int walk(int argc, char **argv, const std::function<std::unique_ptr<model>(choices &choose)> &make);

} // namespace models

#pragma once

#include "support/captured_output.h"

#include <functional>
#include <ostream>
#include <string>

namespace test_support
{

// What a call gives: its result and its lines on both streams.
struct outcome {
    int result;
    std::string out;
    std::string err;
    bool operator==(const outcome &) const = default;
};

inline std::ostream &operator<<(std::ostream &stream, const outcome &o)
{
    return stream << o.result << "\nstdout: " << o.out << "\nstderr: " << o.err;
}

inline outcome outcome_of(const std::function<int()> &call)
{
    captured_output output;
    const int result = call();
    return {result, output.take_stdout(), output.take_stderr()};
}

} // namespace test_support

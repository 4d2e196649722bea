#pragma once

#include <string>

namespace test_support
{

// What a piece of code writes to the process's standard output and standard error, which are kept
// apart: the stream of a message is part of the library's promise.
class captured_output
{
public:
    captured_output();
    ~captured_output();
    captured_output(const captured_output &) = delete;
    captured_output &operator=(const captured_output &) = delete;

    // Everything written since the start or the last call.
    std::string take_stdout() { return take(streams_[0]); }
    std::string take_stderr() { return take(streams_[1]); }

private:
    struct stream {
        int number; // the descriptor being captured
        int saved;  // what it was before
        int file;   // where its output goes
    };
    static std::string take(const stream &captured);

    stream streams_[2];
};

} // namespace test_support

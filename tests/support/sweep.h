// Each system call and each allocation of an operation fails once.
#pragma once

#include "support/test.h"

#include <functional>
#include <map>
#include <string>

namespace test
{

// One run of an operation, in a child process: what it changes in memory is lost, what it does to
// files stays.
struct run {
    std::string failed; // the call that failed, with its path if it has one: "open /dev/uio0"
    outcome seen;
    long blocks = 0; // on the heap after it and not before; always 0 under the address sanitizer
};
std::ostream &operator<<(std::ostream &stream, const run &what);

// Runs the operation with its first system call failing with this error, then with its second, and
// so on to the last; then with each of its allocations failing. A close or an unmapping that fails
// has been done all the same, as in a kernel. Output to the standard streams does not fail. `judge`
// sees what came of each run. Returns how many there were. With an error `later`, all system calls
// behind the failing one fail as well, with that error: those of the clean-up.
int fail_each_call(int error, const std::function<result()> &operation,
                   const std::function<void(const run &)> &judge, int later = 0);

// What comes of failing each call, as lines "CALL: RESULT TEXT", each once: the name of the call,
// the operation's result, and what it printed but for debug lines. None may leave anything open or
// on the heap.
std::string failures_of(int error, const std::function<result()> &operation);

// Compares them with tests/expected/NAME/failing_calls.txt and failing_allocations.txt: each
// outcome once and sorted, without what depends on how the C library does its part.
void expect_failures(const std::string &name, int error, const std::function<result()> &operation);

// Whether allocations are made to fail: not under the address sanitizer.
extern const bool heap_can_fail;

// How often the operation makes each system call, by its name: "open", "stat" and the like stand
// for all calls of their kind. One that does not end normally has made {{"did not end", 1}}.
using call_counts = std::map<std::string, int>;
call_counts system_calls_of(const std::function<void()> &operation);

// How it opens files that are no directories, a line "FLAGS PATH" each: "O_RDWR|O_SYNC /dev/mem".
std::string opens_of(const std::function<void()> &operation);

} // namespace test

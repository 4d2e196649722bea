// What the NVRAM sections share.
#pragma once

#include "check.h"
#include "guest.h"

#include <functional>
#include <string>

namespace guest
{

// Block N's node as the kernel made it, "/dev/nvramN"; the library makes its own.
std::string raw_nvram(int number);

// A node is the character device of block N.
void check_nvram_node(const std::string &node, int number);

// Another process, which has done something by the time the constructor returns, and ends with the
// destructor.
class other_process
{
public:
    explicit other_process(const std::function<void()> &work);
    ~other_process();
    other_process(const other_process &) = delete;
    other_process &operator=(const other_process &) = delete;

private:
    int pid_;
    int end_; // it ends when this is closed
};

} // namespace guest

// Work in processes of its own.
#pragma once

#include <functional>

#include <sys/types.h>

namespace chassis_sim
{

// Runs the work in a child process, which says why it fails.
pid_t separately(const std::function<void()> &work);

// The same, and it ends with this process at the latest.
pid_t background(const std::function<void()> &work);

} // namespace chassis_sim

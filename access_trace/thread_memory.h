// The memory of other programs' threads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include <sys/types.h>

namespace access_trace
{

// Copies between this process and a thread, which may have wider addresses. How many bytes could
// be.
size_t copy_memory(pid_t thread, bool to_thread, uint64_t address, void *data, size_t size);

// The text at an address, of less than 4096 bytes; empty, when there is none.
std::string text_at(pid_t thread, uint64_t address);

} // namespace access_trace

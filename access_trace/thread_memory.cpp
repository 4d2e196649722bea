// Copies memory of other programs.
#include "access_trace/thread_memory.h"

#include <algorithm>
#include <cstring>

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

namespace access_trace
{

size_t copy_memory(pid_t thread, bool to_thread, uint64_t address, void *data, size_t size)
{
    ssize_t length;
    if constexpr (sizeof(void *) == 8) {
        iovec here = {data, size};
        iovec there = {reinterpret_cast<void *>(static_cast<uintptr_t>(address)), size};
        length = to_thread ? ::process_vm_writev(thread, &here, 1, &there, 1, 0)
                           : ::process_vm_readv(thread, &here, 1, &there, 1, 0);
    } else { // pointers are too short for all addresses of others
        const std::string path = "/proc/" + std::to_string(thread) + "/mem";
        const int memory = ::open(path.c_str(), (to_thread ? O_WRONLY : O_RDONLY) | O_CLOEXEC);
        const auto offset = static_cast<off_t>(address);
        length =
            to_thread ? ::pwrite(memory, data, size, offset) : ::pread(memory, data, size, offset);
        ::close(memory);
    }
    return static_cast<size_t>(std::max<ssize_t>(length, 0));
}

std::string text_at(pid_t thread, uint64_t address)
{
    constexpr size_t longest = 4096, page = 4096;
    std::string text;
    while (text.size() < longest) {
        char block[256];
        // A copy stops short at a page that is not there, which may follow the text's end.
        const size_t length = std::min<size_t>(sizeof block, page - address % page);
        if (copy_memory(thread, false, address, block, length) != length)
            return {};
        const size_t end = ::strnlen(block, length);
        text.append(block, end);
        if (end < length)
            return text;
        address += length;
    }
    return {};
}

} // namespace access_trace

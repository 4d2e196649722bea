// Files of memfd_create(2).
#include "sim/devices/memory.h"

#include <filesystem>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace chassis_sim
{

owned_fd make_memory(const std::string &name, size_t size, const std::string &contents)
{
    owned_fd memory(
        must(::memfd_create(name.c_str(), MFD_CLOEXEC | MFD_ALLOW_SEALING), "memfd_create"));
    must(::ftruncate(memory.get(), static_cast<off_t>(size)), "ftruncate");
    if (!contents.empty())
        must(static_cast<int>(::pwrite(memory.get(), contents.data(), contents.size(), 0)),
             "pwrite");
    return memory;
}

owned_fd reopen(const owned_fd &memory)
{
    const std::string path = "/proc/self/fd/" + std::to_string(memory.get());
    return owned_fd(must(::open(path.c_str(), O_RDWR | O_CLOEXEC), "reopen " + path));
}

std::string own_link(const owned_fd &fd)
{
    return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd.get())).string();
}

} // namespace chassis_sim

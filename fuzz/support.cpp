#include "fuzz/support.h"

#include "sim/base/files.h"

#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

// The library's calls come here first: nothing is worth waiting for, and no node of a device of the
// machine is made from a number that was made up.
extern "C" int usleep(useconds_t)
{
    return 0;
}

extern "C" int mknod(const char *, mode_t, dev_t) noexcept
{
    errno = EEXIST;
    return -1;
}

namespace fuzz
{
namespace
{

// What the library prints is not worth a system call for each line.
char printed[1 << 16];
const int buffered = std::setvbuf(stderr, printed, _IOFBF, sizeof printed);

uint8_t &byte_at(std::string &image, uint64_t position)
{
    return reinterpret_cast<uint8_t &>(image[static_cast<size_t>(position)]);
}

} // namespace

void require(bool kept, const char *file, int line)
{
    if (kept)
        return;
    std::fprintf(stderr, "%s:%d: broken promise\n", file, line);
    std::fflush(stderr);
    __builtin_trap();
}

uint8_t take_options(std::string_view &input)
{
    if (input.empty())
        return 0;
    const auto options = static_cast<uint8_t>(input.front());
    input.remove_prefix(1);
    return options;
}

std::vector<std::string> parts(std::string_view input, size_t count)
{
    std::vector<std::string> result(count);
    for (std::string &part : result) {
        const size_t end = input.find('\x1e');
        part = input.substr(0, end);
        input.remove_prefix(end == input.npos ? input.size() : end + 1);
    }
    return result;
}

uint32_t load32(const std::string &image, uint64_t position)
{
    uint32_t value = 0;
    if (position + 4 <= image.size())
        for (uint64_t i = 4; i-- > 0;)
            value = value << 8 | static_cast<uint8_t>(image[static_cast<size_t>(position + i)]);
    return value;
}

void store32(std::string &image, uint64_t position, uint32_t value)
{
    if (position + 4 <= image.size())
        for (uint64_t i = 0; i < 4; ++i)
            byte_at(image, position + i) = static_cast<uint8_t>(value >> 8 * i);
}

bool is_blank(const std::string &image, uint64_t position, size_t size)
{
    if (position >= image.size())
        return true;
    const auto part = std::string_view(image).substr(static_cast<size_t>(position), size);
    return part.find_first_not_of('\0') == part.npos;
}

void set_contents(const char *path, std::string_view contents)
{
    const int fd = chassis_sim::must(::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600),
                                     std::string("open ") + path);
    require(::write(fd, contents.data(), contents.size()) == static_cast<ssize_t>(contents.size()));
    ::close(fd);
}

int descriptor_check::next_free()
{
    const int fd = ::dup(STDIN_FILENO);
    ::close(fd);
    return fd;
}

} // namespace fuzz

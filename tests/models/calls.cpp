#include "calls.h"

#include "walk.h"

#include <cerrno>
#include <cstdarg>
#include <utility>

#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

using namespace models;

namespace
{

template <typename Function>
Function next(const char *name)
{
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

int opened(const char *path, int flags, mode_t mode)
{
    static const auto real = next<int (*)(const char *, int, mode_t)>("open64");
    if (in_call)
        openings.push_back({path, flags & ~(O_CLOEXEC | O_LARGEFILE)});
    return real(path, flags, mode);
}

std::string listed(const std::vector<unsigned int> &all)
{
    std::string text;
    for (const unsigned int one : all)
        text += std::to_string(one) + " ";
    return text;
}

} // namespace

void models::expect_sleeps(const std::vector<unsigned int> &expected)
{
    expect_same("the pauses, in microseconds,", listed(expected),
                listed(std::exchange(sleeps, {})));
}

extern "C" time_t time(time_t *) noexcept
{
    return now;
}

extern "C" int usleep(useconds_t length)
{
    sleeps.push_back(length);
    return 0;
}

extern "C" int open(const char *path, int flags, ...)
{
    va_list args;
    va_start(args, flags);
    const mode_t mode = flags & O_CREAT ? static_cast<mode_t>(va_arg(args, int)) : 0;
    va_end(args);
    return opened(path, flags, mode);
}

extern "C" int __open64_2(const char *path, int flags) // what open() is where calls are fortified
{
    return opened(path, flags, 0);
}

extern "C" int mkdir(const char *path, mode_t mode) noexcept
{
    static const auto real = next<int (*)(const char *, mode_t)>("mkdir");
    if (in_call && mkdir_error != 0) {
        errno = mkdir_error;
        return -1;
    }
    return real(path, mode);
}

extern "C" int close(int fd) // which may disturb errno
{
    const int result = next<int (*)(int)>("close")(fd);
    if (in_call && result == 0)
        errno = EOWNERDEAD;
    return result;
}

extern "C" ssize_t pread(int fd, void *data, size_t size, off_t position)
{
    static const auto real = next<ssize_t (*)(int, void *, size_t, off64_t)>("pread64");
    if (in_call && unreadable.meets(position, size)) {
        errno = EIO;
        return -1;
    }
    const ssize_t length = real(fd, data, size, position);
    if (in_call && length > 0)
        unsteady.meet(position, static_cast<char *>(data), static_cast<size_t>(length));
    return length;
}

extern "C" ssize_t pwrite(int fd, const void *data, size_t size, off_t position)
{
    static const auto real = next<ssize_t (*)(int, const void *, size_t, off64_t)>("pwrite64");
    if (in_call && unwritable.meets(position, size)) {
        errno = EIO;
        return -1;
    }
    return real(fd, data, size, position);
}

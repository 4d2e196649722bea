// Which device a path leads to, for the tracer's two ways of looking at a program. It allocates
// nothing: it runs inside of programs, too.
#pragma once

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace devaccess
{

enum class device_kind : unsigned char { none, uio, resource, configuration, memory };

struct device_path {
    device_kind kind = device_kind::none;
    int bar = -1;
    char name[56] = "";
};

// The link in sysfs of a character device that is not named as UIO nodes are.
inline bool is_uio_by_number(const char *path, char *name, size_t size)
{
    struct stat status;
    if (::stat(path, &status) != 0 || !S_ISCHR(status.st_mode))
        return false;
    char link[64], target[PATH_MAX];
    std::snprintf(link, sizeof link, "/sys/dev/char/%u:%u", major(status.st_rdev),
                  minor(status.st_rdev));
    const ssize_t length = ::readlink(link, target, sizeof target - 1);
    if (length <= 0)
        return false;
    target[length] = '\0';
    const char *const place = std::strstr(target, "/uio/uio");
    if (!place)
        return false;
    std::snprintf(name, size, "%.32s", place + 5);
    return true;
}

// "0000:03:00.0" in the last but one component of a path, else NULL.
inline const char *pci_function_of(const char *path, const char *last)
{
    const char *start = last - 1;
    while (start > path && start[-1] != '/')
        --start;
    unsigned domain, bus, slot, function;
    int end = 0;
    const bool is_id =
        std::sscanf(start, "%x:%2x:%2x.%1x%n", &domain, &bus, &slot, &function, &end) == 4;
    return is_id && start + end == last - 1 ? start : nullptr;
}

// path: absolute; what does not begin with /dev or /sys is no device.
inline device_path device_of(const char *path)
{
    device_path found;
    if (!path || (std::strncmp(path, "/dev/", 5) != 0 && std::strncmp(path, "/sys/", 5) != 0))
        return found;
    const int error = errno;
    const char *const last = std::strrchr(path, '/') + 1;
    char own_name[PATH_MAX];
    const char *const real = path[1] == 'd' && ::realpath(path, own_name) ? own_name : path;
    if (std::strcmp(real, "/dev/mem") == 0) {
        found.kind = device_kind::memory;
        std::strcpy(found.name, "mem");
    } else if (std::strncmp(real, "/dev/uio", 8) == 0 && std::isdigit(real[8])) {
        found.kind = device_kind::uio;
        std::snprintf(found.name, sizeof found.name, "%.40s", real + 5);
    } else if (path[1] == 'd' && is_uio_by_number(path, found.name, sizeof found.name)) {
        found.kind = device_kind::uio;
    } else if (const char *const id = pci_function_of(path, last)) {
        const bool is_window = std::strncmp(last, "resource", 8) == 0 && std::isdigit(last[8]);
        if (is_window)
            found.bar = std::atoi(last + 8);
        if (is_window || std::strcmp(last, "config") == 0)
            found.kind = is_window ? device_kind::resource : device_kind::configuration;
        std::snprintf(found.name, sizeof found.name, "%.*s",
                      static_cast<int>(last - 1 - id > 40 ? 40 : last - 1 - id), id);
    }
    errno = error;
    return found;
}

} // namespace devaccess

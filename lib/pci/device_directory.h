// The sysfs directory of a PCI function, opened once for all its files.
#pragma once

#include "lib/base/unique_fd.h"

#include <cerrno>
#include <cstdio>

#include <fcntl.h>

namespace device_access
{

// The path of a file, for messages, and for a process that has no descriptor for the directory.
struct attribute_path {
    attribute_path(const char *directory, const char *attr_name)
    {
        std::snprintf(str, sizeof str, "%s/%s", directory, attr_name);
    }
    char str[288]; // a directory of 255 characters, and a name of 31
};

class device_directory
{
public:
    // The path stays the caller's, who keeps it while the object lives.
    explicit device_directory(const char *path)
        : path_(path), fd_(::open(path, O_PATH | O_DIRECTORY | O_CLOEXEC))
    {
    }
    explicit operator bool() const { return static_cast<bool>(fd_); }
    const char *path() const { return path_; }

    unique_fd open_attribute(const char *attr_name)
    {
        constexpr int flags = O_RDONLY | O_CLOEXEC;
        if (fd_) {
            unique_fd file(::openat(fd_.get(), attr_name, flags));
            if (file || (errno != EMFILE && errno != ENFILE))
                return file;
            fd_.reset(); // it was the last one, which the file needs
        }
        return unique_fd(::open(attribute_path(path_, attr_name).str, flags));
    }

private:
    const char *path_;
    unique_fd fd_;
};

} // namespace device_access

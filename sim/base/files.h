// Descriptors, and files as the chassis makes them.
#pragma once

#include "sim/base/failure.h"

#include <string>
#include <string_view>
#include <utility>

#include <sys/types.h>

struct open_how;

namespace chassis_sim
{

// A descriptor that is closed with its owner.
class owned_fd
{
public:
    explicit owned_fd(int fd = -1) : fd_(fd) {}
    owned_fd(owned_fd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    owned_fd &operator=(owned_fd &&other) noexcept
    {
        reset(std::exchange(other.fd_, -1));
        return *this;
    }
    owned_fd(const owned_fd &) = delete;
    owned_fd &operator=(const owned_fd &) = delete;
    ~owned_fd() { reset(); }

    void reset(int fd = -1);
    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

private:
    int fd_;
};

// openat2(), once more where something was renamed or mounted meanwhile, anywhere on the machine:
// then the kernel cannot tell where ".." leads, and says EAGAIN.
int open_path(int start, const std::string &path, const open_how &how);

// From here on, the functions below make what they make in the file system that the root directory
// is in, and nowhere else: a path that leads to another one, by a symbolic link or a mount, is
// refused.
void stay_in_root_file_system();

// All below work on absolute paths, make missing parent directories, and throw a failure when the
// file system refuses.
void make_directory(const std::string &path);
void write_file(const std::string &path, std::string_view contents, mode_t mode = 0644);
void make_symlink(const std::string &path, const std::string &target);
void make_relative_symlink(const std::string &path, const std::string &target);
void bind_mount(const std::string &from, const std::string &to);

// The whole of a file; empty when it cannot be read.
std::string file_text(const std::string &path);

} // namespace chassis_sim

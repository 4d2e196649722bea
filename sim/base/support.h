#pragma once

#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include <sys/types.h>

namespace chassis_sim
{

// What keeps a chassis from being built, or a device from coming or going. The text is one line.
struct failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Throws the failure "WHAT: strerror(errno)".
[[noreturn]] void fail(const std::string &what);

// Writes a line "chassis-sim: TEXT" to standard error.
void complain(const std::string &text);

// The result of a system call that cannot fail here unless something is wrong with the machine.
int must(int result, const std::string &what);

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

// All below work on absolute paths, make missing parent directories, and throw a failure when the
// file system refuses.
void make_directory(const std::string &path);
void write_file(const std::string &path, std::string_view contents, mode_t mode = 0644);
void make_symlink(const std::string &path, const std::string &target);
void make_relative_symlink(const std::string &path, const std::string &target);
void bind_mount(const std::string &from, const std::string &to);

// The whole of a file; empty when it cannot be read.
std::string file_text(const std::string &path);

// Runs the work in a child process, which says why it fails.
pid_t separately(const std::function<void()> &work);

// The same, and it ends with this process at the latest.
pid_t background(const std::function<void()> &work);

} // namespace chassis_sim

// Files made and read by absolute paths.
#include "sim/base/files.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace chassis_sim
{
namespace
{

void make_parents(const std::string &path)
{
    const size_t slash = path.rfind('/');
    if (slash != std::string::npos && slash > 0)
        make_directory(path.substr(0, slash));
}

} // namespace

void owned_fd::reset(int fd)
{
    if (fd_ >= 0)
        ::close(fd_);
    fd_ = fd;
}

void make_directory(const std::string &path)
{
    if (::mkdir(path.c_str(), 0755) == 0 || errno == EEXIST)
        return;
    if (errno != ENOENT)
        fail("mkdir " + path);
    make_parents(path);
    must(::mkdir(path.c_str(), 0755), "mkdir " + path);
}

void write_file(const std::string &path, std::string_view contents, mode_t mode)
{
    const auto create = [&] {
        return ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    };
    owned_fd fd(create());
    if (!fd && errno == ENOENT) {
        make_parents(path);
        fd.reset(create());
    }
    must(fd.get(), "create " + path);
    for (size_t done = 0; done < contents.size();) {
        const ssize_t n = ::write(fd.get(), contents.data() + done, contents.size() - done);
        must(static_cast<int>(n), "write " + path);
        done += static_cast<size_t>(n);
    }
}

void make_symlink(const std::string &path, const std::string &target)
{
    make_parents(path);
    must(::symlink(target.c_str(), path.c_str()), "symlink " + path);
}

void make_relative_symlink(const std::string &path, const std::string &target)
{
    const std::filesystem::path directory = std::filesystem::path(path).parent_path();
    make_symlink(path, std::filesystem::path(target).lexically_relative(directory).string());
}

void bind_mount(const std::string &from, const std::string &to)
{
    must(::mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr),
         "bind " + from + " to " + to);
}

std::string file_text(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

} // namespace chassis_sim

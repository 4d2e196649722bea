// Files made and read by absolute paths.
#include "sim/base/files.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace chassis_sim
{
namespace
{

owned_fd root; // when nothing may be made outside its file system

// Opens a path, for a directory's entries or for writing.
int open_inside(const std::string &path, uint64_t flags, mode_t mode = 0)
{
    open_how how = {};
    how.flags = flags | O_CLOEXEC;
    how.mode = mode;
    if (root)
        how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_XDEV | RESOLVE_NO_MAGICLINKS;
    const int start = root ? root.get() : AT_FDCWD;
    return static_cast<int>(::syscall(SYS_openat2, start, path.c_str(), &how, sizeof how));
}

void fail_to_make(const std::string &what, const std::string &path)
{
    if (errno == EXDEV || errno == ELOOP)
        throw failure(path + " leads out of the chassis");
    fail(what + " " + path);
}

// Where an entry is made: its directory, and its name there.
struct entry_place {
    owned_fd directory;
    std::string name;
};

entry_place place_of(const std::string &path)
{
    const size_t slash = path.rfind('/');
    const std::string above = slash == 0 ? "/" : path.substr(0, slash);
    owned_fd directory(open_inside(above, O_PATH | O_DIRECTORY));
    if (!directory && errno == ENOENT) {
        make_directory(above);
        directory.reset(open_inside(above, O_PATH | O_DIRECTORY));
    }
    if (!directory)
        fail_to_make("open", above);
    return {std::move(directory), path.substr(slash + 1)};
}

} // namespace

void owned_fd::reset(int fd)
{
    if (fd_ >= 0)
        ::close(fd_);
    fd_ = fd;
}

void stay_in_root_file_system()
{
    root.reset(must(::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC), "open /"));
}

void make_directory(const std::string &path)
{
    if (path.empty() || owned_fd(open_inside(path, O_PATH | O_DIRECTORY)))
        return;
    if (errno != ENOENT)
        fail_to_make("mkdir", path);
    const entry_place at = place_of(path);
    if (::mkdirat(at.directory.get(), at.name.c_str(), 0755) != 0 && errno != EEXIST)
        fail("mkdir " + path);
}

void write_file(const std::string &path, std::string_view contents, mode_t mode)
{
    const auto create = [&] { return open_inside(path, O_WRONLY | O_CREAT | O_TRUNC, mode); };
    owned_fd fd(create());
    if (!fd && errno == ENOENT) {
        place_of(path);
        fd.reset(create());
    }
    if (!fd)
        fail_to_make("create", path);
    for (size_t done = 0; done < contents.size();) {
        const ssize_t n = ::write(fd.get(), contents.data() + done, contents.size() - done);
        must(static_cast<int>(n), "write " + path);
        done += static_cast<size_t>(n);
    }
}

void make_symlink(const std::string &path, const std::string &target)
{
    const entry_place at = place_of(path);
    must(::symlinkat(target.c_str(), at.directory.get(), at.name.c_str()), "symlink " + path);
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

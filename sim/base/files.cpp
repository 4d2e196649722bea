// Files made and read by absolute paths.
#include "sim/base/files.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <unordered_set>

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
    return open_path(root ? root.get() : AT_FDCWD, path, how);
}

void fail_to_make(const std::string &what, const std::string &path)
{
    if (errno == EXDEV || errno == ELOOP)
        throw failure(path + " leads out of the chassis");
    fail(what + " " + path);
}

// Directories that have been found to be inside. One that has left since is missing.
std::unordered_set<std::string> checked;

std::string parent_of(const std::string &path)
{
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "" : path.substr(0, slash);
}

// Does it in a directory that is inside; it and those above it are made where they are missing.
template <typename Make>
int make_in_parent(const std::string &path, Make make)
{
    const std::string directory = parent_of(path);
    const bool known = !root || directory.empty() || checked.contains(directory);
    if (!known) {
        if (owned_fd(open_inside(directory, O_PATH | O_DIRECTORY)))
            checked.insert(directory);
        else if (errno == ENOENT)
            make_directory(directory);
        else
            fail_to_make("open", directory);
    }
    const int made = make();
    if (made >= 0 || errno != ENOENT || !known)
        return made;
    checked.clear();
    make_directory(directory);
    return make();
}

} // namespace

int open_path(int start, const std::string &path, const open_how &how)
{
    int opened;
    do
        opened = static_cast<int>(::syscall(SYS_openat2, start, path.c_str(), &how, sizeof how));
    while (opened < 0 && errno == EAGAIN && how.resolve != 0);
    return opened;
}

void owned_fd::reset(int fd)
{
    if (fd_ >= 0)
        ::close(fd_);
    fd_ = fd;
}

void stay_in_root_file_system()
{
    checked.clear();
    root.reset(must(::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC), "open /"));
}

void make_directory(const std::string &path)
{
    if (path.empty())
        return;
    const int made = make_in_parent(path, [&] { return ::mkdir(path.c_str(), 0755); });
    if (made != 0 && errno != EEXIST)
        fail("mkdir " + path);
    if (!root || checked.contains(path))
        return;
    if (made != 0 && !owned_fd(open_inside(path, O_PATH | O_DIRECTORY)))
        fail_to_make("open", path);
    checked.insert(path);
}

void write_file(const std::string &path, std::string_view contents, mode_t mode)
{
    // What is new is no link and no mount.
    owned_fd fd(make_in_parent(
        path, [&] { return ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode); }));
    if (!fd && errno == EEXIST)
        fd.reset(open_inside(path, O_WRONLY | O_CREAT | O_TRUNC, mode));
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
    must(make_in_parent(path, [&] { return ::symlink(target.c_str(), path.c_str()); }),
         "symlink " + path);
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

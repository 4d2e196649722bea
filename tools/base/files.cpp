// Reads files whole, and replaces them whole.
#include "tools/base/files.h"

#include "tools/base/captured_call.h"
#include "tools/base/errors.h"
#include "tools/base/output.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace devaccess
{
namespace
{

namespace fs = std::filesystem;

[[noreturn]] void give_up(const std::string &verb, const std::string &path, int error,
                          exit_status status = exit_failed)
{
    throw failure(verb + " " + path, std::strerror(error),
                  error == ENOSPC   ? "free some space on that file system"
                  : error == ENOENT ? "is the directory there?"
                                    : "is it a file, and is the name right?",
                  error, status);
}

[[noreturn]] void refuse_to_read(const std::string &path, int error)
{
    give_up("read", path, error, status_of(state_of_error(error)));
}

[[noreturn]] void refuse_irregular(const std::string &path)
{
    throw failure("read " + path, "it is not a regular file",
                  "is the name right? Only files are read", EINVAL, exit_unreadable);
}

bool is_standard_input(const std::string &path)
{
    return path == standard_stream || path == "/dev/stdin";
}

// A stream that whoever started the program has given it is waited for.
bool is_own_stream(const std::string &path)
{
    return is_standard_input(path) || path.starts_with("/dev/fd/") ||
           path.starts_with("/proc/self/fd/");
}

int open_to_read(const std::string &path)
{
    if (is_standard_input(path))
        return ::dup(STDIN_FILENO);
    const int no_waiting = is_own_stream(path) ? 0 : O_NONBLOCK;
    return ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | no_waiting);
}

bool is_stream(int descriptor)
{
    struct stat status = {};
    return ::fstat(descriptor, &status) == 0 &&
           (S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode) || ::isatty(descriptor));
}

// Of a stream what comes next, else what stands at the position.
ssize_t read_some(int descriptor, bool from_stream, char *to, size_t room, size_t position)
{
    return from_stream ? ::read(descriptor, to, room)
                       : ::pread(descriptor, to, room, static_cast<off_t>(position));
}

std::string read_up_to(int descriptor, const std::string &path, size_t most, bool from_stream)
{
    std::string bytes;
    for (ssize_t more = 1; more > 0 && bytes.size() < most;) {
        const size_t size = bytes.size();
        bytes.resize(std::min(most, size + longest_log));
        more = read_some(descriptor, from_stream, bytes.data() + size, bytes.size() - size, size);
        if (more < 0 && errno == ESPIPE)
            refuse_irregular(path);
        if (more < 0)
            refuse_to_read(path, errno);
        bytes.resize(size + static_cast<size_t>(more));
    }
    return bytes;
}

bool write_all(int descriptor, const std::string &bytes, off_t position)
{
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t n = ::pwrite(descriptor, bytes.data() + done, bytes.size() - done,
                                   position + static_cast<off_t>(done));
        if (n <= 0) {
            errno = n == 0 ? ENOSPC : errno;
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

// Gives the new file mode and owner of the one that it replaces, or the usual mode.
bool take_after(int descriptor, const fs::path &target)
{
    struct stat old = {};
    if (::stat(target.c_str(), &old) == 0)
        return ::fchown(descriptor, old.st_uid, old.st_gid) == 0 &&
               ::fchmod(descriptor, old.st_mode & 07777) == 0;
    const mode_t mask = ::umask(0);
    ::umask(mask);
    return ::fchmod(descriptor, 0666 & ~mask) == 0;
}

} // namespace

std::string read_all(int descriptor, const std::string &path)
{
    return read_up_to(descriptor, path, longest_log, false);
}

std::optional<std::string> read_file(const std::string &path, size_t most)
{
    const int descriptor = open_to_read(path);
    if (descriptor < 0 && errno == ENOENT)
        return std::nullopt;
    if (descriptor < 0 && errno == ENXIO)
        refuse_irregular(path); // a socket
    if (descriptor < 0)
        refuse_to_read(path, errno);
    const opened file([descriptor] { ::close(descriptor); });
    return read_up_to(descriptor, path, most, is_own_stream(path) && is_stream(descriptor));
}

std::string expect_file(const std::string &path, const char *hint)
{
    auto bytes = read_file(path);
    if (!bytes)
        throw failure("read " + path, "there is no such file", hint, ENOENT);
    return std::move(*bytes);
}

void expect_regular(const std::string &path)
{
    struct stat status = {};
    if (::stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode))
        refuse_irregular(path);
}

void write_file(const std::string &path, const std::string &bytes, bool must_be_new)
{
    if (path == standard_stream) {
        print_text(bytes);
        return finish_output();
    }
    std::error_code none;
    const fs::path target = fs::exists(path, none) ? fs::canonical(path, none) : fs::path(path);
    if (fs::exists(target, none) && !fs::is_regular_file(target, none))
        throw failure("write " + path, "it is not a regular file", "name another file");
    std::string temporary = target.string() + ".XXXXXX";
    const int descriptor = ::mkostemp(temporary.data(), O_CLOEXEC);
    if (descriptor < 0)
        give_up("write", path, errno);
    const opened file([descriptor] { ::close(descriptor); });
    const bool written = take_after(descriptor, target) && write_all(descriptor, bytes, 0) &&
                         ::fsync(descriptor) == 0;
    const unsigned flags = must_be_new ? RENAME_NOREPLACE : 0;
    if (written && ::renameat2(AT_FDCWD, temporary.c_str(), AT_FDCWD, target.c_str(), flags) == 0)
        return;
    const int error = errno;
    ::unlink(temporary.c_str());
    if (error == EEXIST)
        throw failure("write " + path, "the file exists already",
                      "choose another name; save and collect also accept --force", error);
    give_up("write", path, error);
}

void write_changes(int descriptor, const std::string &path, const std::string &before,
                   const std::string &after)
{
    struct stat status = {};
    const bool is_file = ::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
    if (is_file)
        if (const int error = ::posix_fallocate(descriptor, 0, static_cast<off_t>(after.size())))
            give_up("write", path, error);
    for (size_t at = 0; at < after.size(); ++at) {
        const size_t begin = at;
        while (at < after.size() && (at >= before.size() || before[at] != after[at]))
            ++at;
        if (at > begin &&
            !write_all(descriptor, after.substr(begin, at - begin), static_cast<off_t>(begin)))
            give_up("write", path, errno);
    }
}

} // namespace devaccess

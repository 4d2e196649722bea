// Reads files whole, and replaces them whole.
#include "tools/base/files.h"

#include "tools/base/captured_call.h"
#include "tools/base/errors.h"
#include "tools/base/output.h"

#include <cstdio>
#include <cstring>
#include <filesystem>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace devaccess
{
namespace
{

namespace fs = std::filesystem;

constexpr size_t most_bytes = 65536;

[[noreturn]] void give_up(const std::string &verb, const std::string &path, int error)
{
    throw failure(verb + " " + path, std::strerror(error),
                  error == ENOSPC   ? "make room on that file system"
                  : error == ENOENT ? "is the directory there?"
                                    : "is it a file, and the name right?",
                  error);
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
    std::string bytes(most_bytes, '\0');
    size_t size = 0;
    while (size < bytes.size()) {
        const ssize_t n =
            ::pread(descriptor, bytes.data() + size, bytes.size() - size, static_cast<off_t>(size));
        if (n < 0)
            give_up("read", path, errno);
        if (n == 0)
            break;
        size += static_cast<size_t>(n);
    }
    bytes.resize(size);
    return bytes;
}

std::optional<std::string> read_file(const std::string &path)
{
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (descriptor < 0 && errno == ENOENT)
        return std::nullopt;
    if (descriptor < 0)
        give_up("open", path, errno);
    const opened file([descriptor] { ::close(descriptor); });
    return read_all(descriptor, path);
}

void write_file(const std::string &path, const std::string &bytes, bool must_be_new)
{
    if (path == standard_output) {
        print_text(bytes);
        return finish_output();
    }
    std::error_code none;
    const fs::path target = fs::exists(path, none) ? fs::canonical(path, none) : fs::path(path);
    if (fs::exists(target, none) && !fs::is_regular_file(target, none))
        throw failure("write " + path, "it is no regular file", "name another file");
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
        throw failure("write " + path, "there is such a file",
                      "name another; save and collect also take --force", error);
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

#include "support/captured_output.h"

#include <cstdio>
#include <cstdlib>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace test_support
{

captured_output::captured_output()
{
    std::fflush(nullptr);
    int number = STDOUT_FILENO;
    for (stream &s : streams_) {
        s = {number, ::fcntl(number, F_DUPFD_CLOEXEC, 100),
             ::memfd_create("captured", MFD_CLOEXEC)};
        if (s.saved < 0 || s.file < 0 || ::dup2(s.file, number) < 0)
            std::abort();
        ++number;
    }
}

captured_output::~captured_output()
{
    std::fflush(nullptr);
    for (const stream &s : streams_) {
        ::dup2(s.saved, s.number);
        ::close(s.saved);
        ::close(s.file);
    }
}

std::string captured_output::take(const stream &captured)
{
    std::fflush(nullptr);
    std::string text;
    char block[4096];
    off_t position = 0;
    for (ssize_t n; (n = ::pread(captured.file, block, sizeof block, position)) > 0; position += n)
        text.append(block, static_cast<size_t>(n));
    if (::ftruncate(captured.file, 0) != 0 || ::lseek(captured.file, 0, SEEK_SET) != 0)
        std::abort();
    return text;
}

} // namespace test_support

#include "nvram.h"

#include <cerrno>

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

namespace guest
{

std::string raw_nvram(int number)
{
    return "/dev/nvram" + std::to_string(number);
}

void check_nvram_node(const std::string &node, int number)
{
    struct stat made = {};
    ::stat(node.c_str(), &made);
    check_equal("nvram: mode of " + node, made.st_mode, S_IFCHR | 0600);
    check_equal("nvram: device number of " + node,
                std::to_string(::major(made.st_rdev)) + ":" +
                    std::to_string(::minor(made.st_rdev)) + "\n",
                read_text("/sys/class/zmt_nvram/nvram" + std::to_string(number) + "/dev"));
}

other_process::other_process(const std::function<void()> &work)
{
    int done[2];
    int end[2];
    check("nvram: pipes", ::pipe(done) == 0 && ::pipe(end) == 0, "");
    pid_ = ::fork();
    char byte;
    if (pid_ == 0) {
        ::close(end[1]);
        work();
        static_cast<void>(::write(done[1], "d", 1));
        static_cast<void>(::read(end[0], &byte, 1));
        ::_exit(0);
    }
    ::close(done[1]);
    ::close(end[0]);
    check("nvram: another process is there", ::read(done[0], &byte, 1) == 1, "");
    ::close(done[0]);
    end_ = end[1];
}

other_process::~other_process()
{
    ::close(end_);
    ::waitpid(pid_, nullptr, 0);
}

} // namespace guest

// Child processes that work for the chassis.
#include "sim/base/process.h"

#include "sim/base/failure.h"

#include <cerrno>
#include <csignal>
#include <exception>

#include <sys/prctl.h>
#include <unistd.h>

namespace chassis_sim
{

pid_t separately(const std::function<void()> &work)
{
    const pid_t pid = ::fork();
    if (pid < 0 && errno == EAGAIN)
        fail("the user has too many processes: raise the limit (ulimit -u)");
    must(pid, "fork");
    if (pid > 0)
        return pid;
    try {
        work();
    } catch (const std::exception &error) {
        complain(error.what());
        ::_exit(125);
    }
    ::_exit(0);
}

pid_t background(const std::function<void()> &work)
{
    const pid_t parent = ::getpid();
    return separately([&] {
        ::setsid(); // signals from the terminal are for the command
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() == parent)
            work();
    });
}

} // namespace chassis_sim

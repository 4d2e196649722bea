// Starts the program that is traced.
#include "tools/trace/program.h"

#include "tools/base/errors.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace devaccess
{
namespace
{

volatile pid_t receiver;

void pass_on(int signal_number)
{
    ::kill(receiver, signal_number);
}

[[noreturn]] void execute(const std::vector<std::string> &command)
{
    std::vector<char *> arguments;
    for (const std::string &word : command)
        arguments.push_back(const_cast<char *>(word.c_str()));
    arguments.push_back(nullptr);
    ::execvp(arguments[0], arguments.data());
    const int status = errno == ENOENT ? 127 : 126;
    ::dprintf(STDERR_FILENO, "devaccess: cannot run %s: %s\n", arguments[0], std::strerror(errno));
    ::_exit(status);
}

} // namespace

traced_program::traced_program(const std::vector<std::string> &command,
                               const std::vector<std::pair<std::string, std::string>> &environment,
                               bool waits)
{
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);
    int ends[2] = {-1, -1};
    if (waits && ::pipe2(ends, O_CLOEXEC) != 0)
        throw failure("start " + command[0], std::strerror(errno), "", errno);
    id_ = ::fork();
    if (id_ < 0)
        throw failure("start " + command[0], std::strerror(errno), "", errno);
    if (id_ == 0) {
        for (const auto &[name, value] : environment)
            ::setenv(name.c_str(), value.c_str(), 1);
        char byte;
        ::close(ends[1]);
        if (!waits || ::read(ends[0], &byte, 1) == 1)
            execute(command);
        ::_exit(126); // the tracer has given up
    }
    ::close(ends[0]);
    start_ = ends[1];
    receiver = id_;
    for (const int of_terminal : {SIGINT, SIGQUIT})
        ::signal(of_terminal, SIG_IGN);
    for (const int ending : {SIGTERM, SIGHUP})
        ::signal(ending, pass_on);
}

void traced_program::begin()
{
    const char byte = 0;
    if (::write(start_, &byte, 1) != 1)
        throw failure("start the program", std::strerror(errno), "", errno);
    ::close(start_);
}

void traced_program::ended(pid_t process, int status)
{
    if (process != id_ || WIFSTOPPED(status))
        return;
    has_ended_ = true;
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace devaccess

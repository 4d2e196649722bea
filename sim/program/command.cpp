// Waits for the command and for all that it has started, and passes signals on.
#include "sim/program/command.h"

#include "sim/base/files.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <optional>
#include <set>

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace chassis_sim
{
namespace
{

namespace fs = std::filesystem;
using clock = std::chrono::steady_clock;

constexpr std::chrono::seconds patience(2);

[[noreturn]] void execute(const std::vector<std::string> &command)
{
    std::vector<char *> arguments;
    for (const std::string &word : command)
        arguments.push_back(const_cast<char *>(word.c_str()));
    arguments.push_back(nullptr);
    // The device library that udevadm(8) uses looks whether /sys is the kernel's own.
    ::setenv("SYSTEMD_DEVICE_VERIFY_SYSFS", "0", 0);
    ::execvp(arguments[0], arguments.data());
    const int status = errno == ENOENT ? 127 : 126;
    std::perror(("chassis-sim: " + command[0]).c_str());
    ::_exit(status);
}

// A process's parent; 0 when it has gone.
pid_t parent_of(const std::string &process)
{
    const std::string line = file_text("/proc/" + process + "/stat");
    const size_t name_end = line.rfind(')'); // a name may contain anything
    return name_end == std::string::npos ? 0 : std::atoi(line.c_str() + name_end + 4);
}

std::set<pid_t> descendants()
{
    std::multimap<pid_t, pid_t> children;
    for (const auto &entry : fs::directory_iterator("/proc")) {
        const std::string name = entry.path().filename().string();
        if (const pid_t pid = std::atoi(name.c_str()); pid > 0)
            children.emplace(parent_of(name), pid);
    }
    std::set<pid_t> found;
    std::vector<pid_t> parents = {::getpid()};
    while (!parents.empty()) {
        const auto [first, last] = children.equal_range(parents.back());
        parents.pop_back();
        for (auto child = first; child != last; ++child)
            if (found.insert(child->second).second)
                parents.push_back(child->second);
    }
    return found;
}

void signal_descendants(int signal_number)
{
    for (const pid_t pid : descendants())
        ::kill(pid, signal_number);
}

int shell_status(int status)
{
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// SIGTERM and SIGHUP but where they are ignored, as nohup(1) wants it; SIGINT also where a shell
// has its background jobs ignore it, since what comes from the terminal does not count.
std::vector<int> ending_signals()
{
    std::vector<int> signals = {SIGINT};
    for (const int signal_number : {SIGTERM, SIGHUP}) {
        struct sigaction inherited;
        ::sigaction(signal_number, nullptr, &inherited);
        if (inherited.sa_handler != SIG_IGN)
            signals.push_back(signal_number);
    }
    return signals;
}

// The terminal interrupts the command, too, which decides what that does.
bool is_from_terminal(const siginfo_t &signal)
{
    return signal.si_signo == SIGINT && signal.si_code == SI_KERNEL;
}

// The parent of all that runs in the chassis, whoever started it.
class warden
{
public:
    warden(const std::vector<std::string> &command, pid_t parent) : parent_(parent)
    {
        ::prctl(PR_SET_CHILD_SUBREAPER, 1);
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        sigset_t before;
        ::sigaddset(&awaited_, SIGCHLD);
        for (const int signal_number : ending_signals())
            ::sigaddset(&awaited_, signal_number);
        ::sigprocmask(SIG_BLOCK, &awaited_, &before);
        command_ = must(::fork(), "fork");
        if (command_ == 0) {
            ::sigprocmask(SIG_SETMASK, &before, nullptr);
            execute(command);
        }
    }

    // Until the last has ended.
    int watch()
    {
        while (reap()) {
            const bool orphaned = ::getppid() != parent_;
            if (orphaned || (end_ && *end_ <= clock::now()))
                signal_descendants(SIGKILL);
            constexpr timespec look_again = {0, 20'000'000};
            siginfo_t how = {};
            const int came = end_ || orphaned ? ::sigtimedwait(&awaited_, &how, &look_again)
                                              : ::sigwaitinfo(&awaited_, &how);
            if (came > 0 && came != SIGCHLD && !is_from_terminal(how)) {
                signal_descendants(came);
                end_ = clock::now() + patience;
                status_ = 128 + came;
            }
        }
        return status_;
    }

private:
    // False when there are no children left.
    bool reap()
    {
        for (;;) {
            int status;
            const pid_t pid = ::waitpid(-1, &status, WNOHANG);
            if (pid <= 0)
                return pid == 0;
            if (pid == command_ && !end_)
                status_ = shell_status(status);
        }
    }

    pid_t parent_;
    pid_t command_;
    sigset_t awaited_ = {};
    int status_ = 0;
    std::optional<clock::time_point> end_; // of everybody's time
};

volatile pid_t warden_pid;

void pass_on(int signal_number, siginfo_t *how, void *)
{
    if (!is_from_terminal(*how))
        ::kill(warden_pid, signal_number);
}

void end(const std::vector<pid_t> &helpers)
{
    for (const pid_t helper : helpers)
        ::kill(helper, SIGKILL);
    for (const pid_t helper : helpers)
        ::waitpid(helper, nullptr, 0);
}

} // namespace

int run_command(const std::vector<std::string> &command, const std::vector<pid_t> &helpers)
{
    const std::vector<int> signals = ending_signals();
    sigset_t passed_on = {};
    for (const int signal_number : signals)
        ::sigaddset(&passed_on, signal_number);
    sigset_t before;
    ::sigprocmask(SIG_BLOCK, &passed_on, &before);
    const pid_t parent = ::getpid();
    warden_pid = must(::fork(), "fork");
    if (warden_pid == 0) {
        ::sigprocmask(SIG_SETMASK, &before, nullptr);
        ::_exit(warden(command, parent).watch());
    }
    struct sigaction action = {};
    action.sa_sigaction = pass_on;
    action.sa_flags = SA_SIGINFO;
    for (const int signal_number : signals)
        ::sigaction(signal_number, &action, nullptr);
    ::sigprocmask(SIG_SETMASK, &before, nullptr);
    int status = 0;
    while (::waitpid(warden_pid, &status, 0) < 0 && errno == EINTR) {
    }
    end(helpers);
    return shell_status(status);
}

} // namespace chassis_sim

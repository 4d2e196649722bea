// The program that is traced.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include <sys/types.h>

namespace devaccess
{

// The program and all that it starts; their ends are told to this process, whoever started them.
// SIGINT and SIGQUIT from the terminal are for them; SIGTERM and SIGHUP are passed on.
class traced_program
{
public:
    // Starts it, with these variables added to the environment. Where it has to wait for follow(),
    // it stops before it begins. Throws a failure.
    traced_program(const std::vector<std::string> &command,
                   const std::vector<std::pair<std::string, std::string>> &environment, bool waits);

    pid_t id() const { return id_; }
    // Lets one that waits begin.
    void begin();

    // What waitpid(2) has told of one of its processes.
    void ended(pid_t process, int status);
    // Its exit status, or 128 and the signal that has ended it.
    int status() const { return status_; }
    bool has_ended() const { return has_ended_; }

private:
    pid_t id_;
    int start_ = -1; // written to when it may begin
    int status_ = 0;
    bool has_ended_ = false;
};

} // namespace devaccess

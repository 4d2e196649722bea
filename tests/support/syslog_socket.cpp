#include "support/syslog_socket.h"

#include <cstdlib>
#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace test_support
{
namespace
{

// "<11>Jan  1 00:00:00 program: text" without what changes from run to run.
std::string without_time_and_program(const std::string &message)
{
    const size_t priority_end = message.find('>') + 1;
    const size_t program_end = message.find(": ", priority_end);
    if (priority_end == 0 || program_end == std::string::npos)
        return message;
    return message.substr(0, priority_end) + message.substr(program_end + 2);
}

} // namespace

syslog_socket::syslog_socket() : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/dev/log");
    if (::bind(socket_, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
        std::abort();
}

syslog_socket::~syslog_socket()
{
    ::close(socket_);
    ::unlink("/dev/log");
}

std::string syslog_socket::take()
{
    std::string messages;
    char block[4096];
    for (ssize_t n; (n = ::recv(socket_, block, sizeof block, MSG_DONTWAIT)) >= 0;)
        messages += without_time_and_program(std::string(block, static_cast<size_t>(n)));
    return messages;
}

} // namespace test_support

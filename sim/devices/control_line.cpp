#include "sim/devices/control_line.h"

#include <algorithm>
#include <cerrno>
#include <exception>

#include <sys/socket.h>

namespace chassis_sim
{
namespace
{

constexpr size_t longest_line = 4096;

}

control_line::control_line(bool client_reads, obey_line obey)
    : client_reads_(client_reads), obey_(std::move(obey))
{
    int ends[2];
    must(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), "socketpair");
    client_end_.reset(ends[0]);
    own_end_.reset(ends[1]);
}

bool control_line::read()
{
    char block[512];
    const ssize_t length = ::recv(fd(), block, sizeof block, MSG_DONTWAIT);
    if (length < 0)
        return errno == EAGAIN || errno == EINTR;
    text_.append(block, static_cast<size_t>(length));
    if (text_.size() > longest_line || (length == 0 && !text_.empty()))
        text_ += '\n';
    for (size_t end; (end = text_.find('\n')) != std::string::npos;) {
        const std::string line = text_.substr(0, end);
        text_.erase(0, end + 1);
        handle(line);
    }
    return length > 0;
}

void control_line::handle(const std::string &line)
{
    std::string answer = "ok";
    try {
        obey_(line);
    } catch (const std::exception &error) {
        answer = error.what();
        std::replace_if(
            answer.begin(), answer.end(), [](int byte) { return byte < ' '; }, '?');
    }
    if (client_reads_) {
        answer += '\n';
        ::send(fd(), answer.data(), answer.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    } else if (answer != "ok") {
        complain(answer);
    }
}

} // namespace chassis_sim

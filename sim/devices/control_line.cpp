// The server's end of control lines.
#include "sim/devices/control_line.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <memory>

#include <sys/socket.h>

namespace chassis_sim
{
namespace
{

constexpr size_t longest_line = 4096;

class control_line
{
public:
    control_line(owned_fd own_end, bool client_reads, obey_line obey)
        : own_end_(std::move(own_end)), client_reads_(client_reads), obey_(std::move(obey))
    {
    }

    // Obeys the lines that are there; false when the client has closed its end.
    bool read();

private:
    void handle(const std::string &line);

    owned_fd own_end_;
    bool client_reads_;
    obey_line obey_;
    std::string text_; // of a line without its end
};

bool control_line::read()
{
    char block[512];
    const ssize_t length = ::recv(own_end_.get(), block, sizeof block, MSG_DONTWAIT);
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
    bool done = true;
    try {
        const std::string told = obey_(line);
        answer += (told.empty() ? "" : " ") + told;
    } catch (const std::exception &error) {
        done = false;
        answer = error.what();
        std::replace_if(
            answer.begin(), answer.end(), [](int byte) { return byte < ' '; }, '?');
    }
    if (client_reads_) {
        answer += '\n';
        ::send(own_end_.get(), answer.data(), answer.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    } else if (!done) {
        complain(answer);
    }
}

} // namespace

owned_fd open_control_line(event_loop &loop, bool client_reads, obey_line obey)
{
    int ends[2];
    must(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), "socketpair");
    const int own_end = ends[1];
    const auto line =
        std::make_shared<control_line>(owned_fd(own_end), client_reads, std::move(obey));
    loop.watch(own_end, [&loop, line, own_end] {
        if (!line->read())
            loop.forget(own_end);
    });
    return owned_fd(ends[0]);
}

} // namespace chassis_sim

// Waits for a key without standing still.
#include "tools/base/key_press.h"

#include <algorithm>

#include <poll.h>
#include <unistd.h>

namespace devaccess
{

key_press::key_press()
    : has_terminal_(::tcgetpgrp(STDIN_FILENO) == ::getpgrp() &&
                    ::tcgetattr(STDIN_FILENO, &before_) == 0)
{
    termios now = before_;
    now.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    if (has_terminal_)
        ::tcsetattr(STDIN_FILENO, TCSANOW, &now);
}

key_press::~key_press()
{
    if (has_terminal_)
        ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &before_);
}

bool key_press::was_pressed() const
{
    pollfd input = {STDIN_FILENO, POLLIN, 0};
    return has_terminal_ && ::poll(&input, 1, 0) > 0;
}

bool key_press::sleep(waiting &wait, std::chrono::milliseconds time) const
{
    using namespace std::chrono_literals;
    const auto until = waiting::clock::now() + time;
    do {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(until - waiting::clock::now());
        if (was_pressed() || !wait.sleep(std::clamp<std::chrono::milliseconds>(left, 0ms, 50ms)))
            return false;
    } while (waiting::clock::now() < until);
    return true;
}

} // namespace devaccess

// A key that ends what goes on by itself on a terminal.
#pragma once

#include "tools/base/waiting.h"

#include <chrono>

#include <termios.h>

namespace devaccess
{

// While it exists, keys take effect at once and are not shown, if standard input is the terminal
// that this program has.
class key_press
{
public:
    key_press();
    ~key_press();
    key_press(const key_press &) = delete;
    key_press &operator=(const key_press &) = delete;

    // False when the wait's time is over or a key was pressed.
    bool sleep(waiting &wait, std::chrono::milliseconds time) const;

private:
    bool was_pressed() const;

    bool has_terminal_;
    termios before_ = {};
};

} // namespace devaccess

#include "guest.h"

#include "check.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <utility>

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

namespace guest
{

namespace fs = std::filesystem;

namespace
{

// The guest's second serial line leads to the monitor.
int open_monitor()
{
    const int line = ::open("/dev/ttyS1", O_RDWR | O_NOCTTY | O_CLOEXEC);
    termios settings;
    if (line < 0 || ::tcgetattr(line, &settings) != 0)
        return -1;
    ::cfmakeraw(&settings); // nothing that the monitor says is echoed to it
    ::tcsetattr(line, TCSANOW, &settings);
    return line;
}

} // namespace

std::string read_text(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void write_text(const std::string &path, const std::string &text)
{
    const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (file < 0 || ::write(file, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        check("writing " + text_of(text) + " to " + path, false, std::strerror(errno));
    ::close(file);
}

std::string real_path(const std::string &path)
{
    std::error_code error;
    return fs::canonical(path, error).string();
}

timespec in_ms(long ms)
{
    timespec time;
    ::clock_gettime(CLOCK_MONOTONIC, &time);
    time.tv_nsec += ms % 1000 * 1000000;
    time.tv_sec += ms / 1000 + time.tv_nsec / 1000000000;
    time.tv_nsec %= 1000000000;
    return time;
}

long ms_since(const timespec &start)
{
    timespec now;
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long>((now.tv_sec - start.tv_sec) * 1000 +
                             (now.tv_nsec - start.tv_nsec) / 1000000);
}

bool comes_true(const std::function<bool()> &condition)
{
    const timespec start = in_ms(0);
    while (!condition()) {
        if (ms_since(start) > 5000)
            return false;
        ::usleep(5000);
    }
    return true;
}

later::later(long ms, std::function<void()> action)
    : thread_([ms, action = std::move(action)] {
          std::this_thread::sleep_for(std::chrono::milliseconds(ms));
          action();
      })
{
}

long open_descriptors()
{
    return static_cast<long>(
        std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()));
}

void monitor(const std::string &command)
{
    static const int line = open_monitor();
    const std::string text = command + "\n";
    if (::write(line, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        check("asking the monitor for " + text_of(command), false, std::strerror(errno));
}

} // namespace guest

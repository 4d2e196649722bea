#include "guest.h"

#include "check.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

namespace guest
{

namespace fs = std::filesystem;

namespace
{

// The guest's second serial line leads to the monitor, which speaks JSON, a line for each message.
class monitor_line
{
public:
    monitor_line() : line_(::open("/dev/ttyS1", O_RDWR | O_NOCTTY | O_CLOEXEC))
    {
        termios settings;
        ::tcgetattr(line_, &settings);
        ::cfmakeraw(&settings);
        ::tcsetattr(line_, TCSANOW, &settings);
        // Its greeting may have been echoed to it before; it begins afresh after a byte of ones.
        send("\xff{\"execute\": \"qmp_capabilities\", \"id\": \"begin\"}");
        if (wait_for({"\"begin\""}).empty())
            check("reaching the monitor", false, "no answer");
    }

    void execute(const std::string &command)
    {
        send(command);
        const std::string answer = wait_for({"\"return\"", "\"error\""});
        if (answer.find("\"return\"") == std::string::npos)
            check("asking the monitor for " + command, false, answer);
    }

    // The next message with one of the words in it, or nothing when none comes for a minute.
    std::string wait_for(std::initializer_list<const char *> words)
    {
        const timespec start = in_ms(0);
        while (ms_since(start) < 60000) {
            const size_t end = received_.find('\n');
            if (end == std::string::npos) {
                receive();
                continue;
            }
            const std::string message = received_.substr(0, end);
            received_.erase(0, end + 1);
            std::printf("monitor: %s\n", message.c_str());
            for (const char *word : words)
                if (message.find(word) != std::string::npos)
                    return message;
        }
        return {};
    }

private:
    void send(const std::string &text)
    {
        if (::write(line_, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
            check("writing to the monitor", false, std::strerror(errno));
    }

    void receive()
    {
        pollfd line = {line_, POLLIN, 0};
        char block[256];
        if (::poll(&line, 1, 1000) != 1)
            return;
        const ssize_t length = ::read(line_, block, sizeof block);
        if (length > 0)
            received_.append(block, static_cast<size_t>(length));
    }

    int line_;
    std::string received_;
};

monitor_line &the_monitor()
{
    static monitor_line line;
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
        if (ms_since(start) > 60000)
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

void plug_device(const std::string &driver, const std::string &id, const std::string &port)
{
    the_monitor().execute("{\"execute\": \"device_add\", \"arguments\": {\"driver\": \"" + driver +
                          "\", \"id\": \"" + id + "\", \"bus\": \"" + port + "\"}}");
}

void unplug_device(const std::string &id)
{
    the_monitor().execute("{\"execute\": \"device_del\", \"arguments\": {\"id\": \"" + id + "\"}}");
}

bool device_is_deleted()
{
    return !the_monitor().wait_for({"DEVICE_DELETED"}).empty();
}

} // namespace guest

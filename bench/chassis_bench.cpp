// How fast the simulated chassis is: from an interrupt, as a control line raises it, to the client
// that waits for it, how many there can be, and what a chassis costs at its start.
#include "sim/program/chassis.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

namespace
{

using namespace chassis_sim;
using clock_type = std::chrono::steady_clock;

constexpr unsigned int devices = 64;
constexpr uint32_t on = 1;

void require(bool done, const char *what)
{
    if (!done) {
        std::perror(what);
        std::exit(1);
    }
}

double microseconds(clock_type::duration time)
{
    return std::chrono::duration<double, std::micro>(time).count();
}

int open_device(unsigned int number)
{
    const int fd = ::open(("/dev/uio" + std::to_string(number)).c_str(), O_RDWR);
    require(fd >= 0 && ::write(fd, &on, sizeof on) == sizeof on, "open a device");
    return fd;
}

void read_count(int fd)
{
    uint32_t count;
    require(::read(fd, &count, sizeof count) == sizeof count, "read");
}

void raise(int control, const std::string &lines)
{
    require(::write(control, lines.data(), lines.size()) == static_cast<ssize_t>(lines.size()),
            "control");
}

int epoll_of(const std::vector<int> &fds)
{
    const int set = ::epoll_create1(EPOLL_CLOEXEC);
    for (const int fd : fds) {
        epoll_event event = {EPOLLIN, {.fd = fd}};
        require(::epoll_ctl(set, EPOLL_CTL_ADD, fd, &event) == 0, "epoll_ctl");
    }
    return set;
}

// Interrupts while a thread waits in one of the two ways.
void show_latency(const char *name, bool by_epoll)
{
    constexpr int rounds = 2000;
    const int fd = open_device(0);
    const int set = epoll_of({fd});
    const int control = ::open(control_path, O_WRONLY | O_CLOEXEC);
    std::vector<double> times;
    clock_type::time_point raised;
    std::atomic<int> seen = 0;
    std::thread waiter([&] {
        for (int i = 0; i < rounds; ++i) {
            epoll_event event;
            if (by_epoll)
                require(::epoll_wait(set, &event, 1, -1) == 1, "epoll_wait");
            else
                read_count(fd);
            times.push_back(microseconds(clock_type::now() - raised));
            if (by_epoll)
                read_count(fd);
            ++seen;
        }
    });
    for (int i = 0; i < rounds; ++i) {
        while (seen < i)
            ::usleep(50);
        ::usleep(300); // until it waits again
        raised = clock_type::now();
        raise(control, "interrupt uio0\n");
    }
    waiter.join();
    std::sort(times.begin(), times.end());
    std::printf("interrupt to wake-up, %-24s median %8.1f us   p99 %8.1f us\n", name,
                times[times.size() / 2], times[times.size() * 99 / 100]);
    ::close(fd);
    ::close(set);
    ::close(control);
}

void show_rate()
{
    constexpr int rounds = 5000;
    const int fd = open_device(1); // each enabling is answered at once
    const auto start = clock_type::now();
    for (int i = 0; i < rounds; ++i) {
        read_count(fd);
        require(::write(fd, &on, sizeof on) == sizeof on, "write");
    }
    std::printf("enable, wait, read, one device              %10.0f a second\n",
                rounds / microseconds(clock_type::now() - start) * 1e6);
    ::close(fd);
}

void show_rate_of_all()
{
    constexpr int rounds = 200;
    std::vector<int> fds;
    std::string lines;
    for (unsigned int i = 0; i < devices; ++i) {
        if (i == 1)
            continue;
        fds.push_back(open_device(i));
        lines += "interrupt uio" + std::to_string(i) + "\n";
    }
    const int set = epoll_of(fds);
    const int control = ::open(control_path, O_WRONLY | O_CLOEXEC);
    const auto start = clock_type::now();
    for (int round = 0; round < rounds; ++round) {
        raise(control, lines);
        for (size_t seen = 0; seen < fds.size();) {
            epoll_event events[devices];
            const int count = ::epoll_wait(set, events, devices, -1);
            for (int i = 0; i < count; ++i, ++seen)
                read_count(events[i].data.fd);
        }
    }
    std::printf("interrupts of %u devices in one epoll set   %10.0f a second\n", devices - 1,
                rounds * static_cast<double>(fds.size()) / microseconds(clock_type::now() - start) *
                    1e6);
}

void show_start(const std::string &program, unsigned int functions)
{
    const std::string line = program + " --pci-devices " + std::to_string(functions) + " -- true";
    std::vector<double> times;
    for (int i = 0; i < 5; ++i) {
        const auto start = clock_type::now();
        require(std::system(line.c_str()) == 0, program.c_str());
        times.push_back(microseconds(clock_type::now() - start) / 1000);
    }
    std::sort(times.begin(), times.end());
    std::printf("start and end of a chassis, %4u functions     %10.1f ms\n", functions + 9,
                times[2]);
}

} // namespace

// chassis_bench CHASSIS_SIM
int main(int argc, char **argv)
{
    require(argc == 2, "chassis_bench CHASSIS_SIM");
    show_start(argv[1], 0);
    show_start(argv[1], 4096 - 9);
    std::fflush(stdout);
    enter_private_root();
    device_server server;
    for (unsigned int i = 0; i < devices; ++i) {
        uio_description device;
        device.number = i;
        device.irq_delay_ms = i == 1 ? 0 : -1;
        add_uio(server, device);
    }
    server.start();
    show_latency("read", false);
    show_latency("epoll_wait", true);
    show_rate();
    show_rate_of_all();
    return 0;
}

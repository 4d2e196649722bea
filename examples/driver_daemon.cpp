// A driver daemon: waits for its device, maps its registers, serves its interrupts until the device
// is removed.
//
// driver_daemon_cxx [NODE]    NODE: "/dev/uio0" unless given
#include <device_access/libuio.h>
#include <device_access/regiomap_x86.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>
#include <system_error>

namespace
{

struct closer {
    void operator()(libuio_dev_t *uio) const { libuio_close(uio); }
};
using device = std::unique_ptr<libuio_dev_t, closer>;

constexpr unsigned control_register = 0x10;
constexpr int quiet_seconds = 2;

[[noreturn]] void fail(const char *what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

char *map_registers(libuio_dev_t *uio)
{
    if (libuio_mmap(uio, 0) < 1)
        fail("map registers");
    return static_cast<char *>(libuio_get_mapinfo(uio, 0, nullptr));
}

// Whether the device is still there.
bool serve_once(libuio_dev_t *uio)
{
    timespec deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += quiet_seconds;
    uint32_t count;
    if (libuio_irqcontrol(uio, 1) != 0) // perhaps removed: then the wait says so
        std::perror("enable the interrupt");
    if (libuio_irqwait(uio, &deadline, &count) == 0)
        std::cout << "interrupt " << count << std::endl;
    else if (errno == ETIMEDOUT)
        std::cout << "quiet for " << quiet_seconds << " s" << std::endl;
    else if (errno == ECANCELED || errno == EIO) // EIO: before the interrupt's count was read
        return false;
    else if (errno != EINTR)
        fail("wait");
    return true;
}

} // namespace

int main(int argc, char **argv)
try {
    const char *node = argc > 1 ? argv[1] : "/dev/uio0";
    const timespec max_wait = {5, 0};
    const device uio(libuio_open_timed(node, &max_wait));
    if (!uio)
        fail(node);
    char *registers = map_registers(uio.get());
    iowrite32(1, registers + control_register);
    std::cout << node << " runs, control register 0x" << std::hex
              << ioread32(registers + control_register) << std::dec << std::endl;
    while (serve_once(uio.get())) {
    }
    std::cout << node << ": removed" << std::endl;
} catch (const std::exception &failure) {
    std::cerr << failure.what() << std::endl;
    return 1;
}

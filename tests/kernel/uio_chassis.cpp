// UIO on the chassis's register block, which has two windows, interrupt control and a removal
// notice.
#include "uio.h"

#include <device_access/regiomap_x86.h>

#include <cerrno>
#include <cstring>

#include <poll.h>
#include <sys/mount.h>
#include <unistd.h>

namespace guest
{
namespace
{

constexpr char node[] = "/dev/uio1";
const std::string device_dir = "/sys/devices/platform/zmt_regblock";

void regblock(const std::string &command)
{
    write_text("/sys/module/zmt_chassis/parameters/regblock", command);
}

// A plugged register block.
uio_handle plug(const std::string &name)
{
    regblock("plug");
    uio_handle uio(libuio_open_timed(node, &long_wait));
    check("regblock: " + name, uio && libuio_get_removed_fd(uio.get()) > 0, std::strerror(errno));
    return uio;
}

int events_on(int fd, short asked)
{
    pollfd one = {fd, asked, 0};
    ::poll(&one, 1, 0);
    return one.revents;
}

void check_shut(uio_handle &&uio, const std::string &when)
{
    check_equal(when + ": a further wait", wait_ms(uio, past_ms, nullptr), {-1, EBADF});
    check(when + ": its windows are unmapped", !window_of(uio, 0) && !window_of(uio, 1), "");
    check_equal(when + ": no descriptor is left",
                libuio_get_uio_fd(uio.get()) + libuio_get_removed_fd(uio.get()), -2);
    const long before = open_descriptors();
    uio.reset();
    check_equal(when + ": closing", open_descriptors(), before);
}

// On this kernel an attribute that has not changed is readable like any file, and the wait takes
// every event on it for the removal.
void check_attribute()
{
    uio_handle uio = plug("opened, with its removal notice in sysfs");
    check_equal("regblock: device directory", libuio_get_sys_device_dir(uio.get()), device_dir);
    const int notice = libuio_get_removed_fd(uio.get());
    check_equal("regblock: before the removal, sysfs reports no change", events_on(notice, POLLPRI),
                0);
    check_equal("regblock: but readability", events_on(notice, POLLIN), POLLIN);
    regblock("notify");
    check_equal("regblock: the removal is announced in sysfs", events_on(notice, POLLPRI),
                POLLPRI | POLLERR);
    check_equal("regblock: the wait reports it", wait_ms(uio, long_ms, nullptr), {-1, ECANCELED});
    check_shut(std::move(uio), "regblock: after the notice");
    regblock("unplug");

    uio = plug("plugged again");
    check_equal("regblock: the wait takes mere readability for the removal",
                wait_ms(uio, long_ms, nullptr), {-1, ECANCELED});
    uio.reset();
    regblock("unplug");
}

void check_windows(const uio_handle &uio)
{
    size_t size = 0;
    check_equal("regblock: map limit", libuio_get_map_limit(uio.get()), 2);
    check_equal("regblock: windows mapped", libuio_mmap(uio.get(), 0), 2);
    libuio_get_mapinfo(uio.get(), 1, &size);
    check_equal("regblock: size of window 1", static_cast<long long>(size), 0x2000);
    check_equal("regblock: window 0", ioread32(window_of(uio, 0)), 0x5a4d0000);
    check_equal("regblock: window 1", ioread32(window_of(uio, 1)), 0x5a4d0100);
    check_equal("regblock: window 1, second page", ioread32(window_of(uio, 1) + 0x1000),
                0x5a4d0101);
}

void check_interrupts(const uio_handle &uio)
{
    uint32_t count = 0;
    check_equal("regblock: wait without interrupt", wait_ms(uio, 100, &count), {-1, ETIMEDOUT});
    check_equal("regblock: interrupt enabled", irq_control(uio, 1), {0, 0});
    check_equal("regblock: interrupt", wait_ms(uio, long_ms, &count), {0, 0});
    check_equal("regblock: count", count, 1);
    check_equal("regblock: enabled again", irq_control(uio, 1), {0, 0});
    check_equal("regblock: disabled", irq_control(uio, 0), {0, 0});
    check_equal("regblock: no interrupt then", wait_ms(uio, 200, &count), {-1, ETIMEDOUT});
}

// As the library needs it: nothing is heard of the notice until the removal.
uio_handle plug_with_silent_notice()
{
    regblock("plug");
    ::mount("/dev/zmt_removal", (device_dir + "/uio_maps").c_str(), nullptr, MS_BIND, nullptr);
    uio_handle uio(libuio_open_timed(node, &long_wait));
    check("regblock: opened, with a silent removal notice", uio != nullptr, std::strerror(errno));
    return uio;
}

void check_removal()
{
    uio_handle uio = plug_with_silent_notice();
    check_windows(uio);
    check_interrupts(uio);

    {
        const later unplug(200, [] { regblock("unplug"); });
        check_equal("regblock: removed during a wait", wait_ms(uio, long_ms, nullptr),
                    {-1, ECANCELED});
    }
    check_shut(std::move(uio), "regblock: after the removal");
    check("regblock: the node is gone", ::access(node, F_OK) != 0, "");

    uio = plug_with_silent_notice();
    irq_control(uio, 1);
    check_equal("regblock: an interrupt is pending", wait_ms(uio, long_ms, nullptr), {0, 0});
    regblock("notify");
    check_equal("regblock: the removal comes before it", wait_ms(uio, past_ms, nullptr),
                {-1, ECANCELED});
    uio.reset();
    regblock("unplug");
}

} // namespace

void check_uio_of_the_chassis()
{
    check_attribute();
    check_removal();
}

} // namespace guest

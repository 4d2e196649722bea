// UIO on a device of the virtual machine, bound to the kernel's driver for any PCI device.
#include "pci.h"
#include "uio.h"

#include <device_access/regiomap_x86.h>

#include <cerrno>
#include <cstring>

#include <sys/stat.h>
#include <unistd.h>

namespace guest
{
namespace
{

const std::string driver = "/sys/bus/pci/drivers/uio_pci_generic";
constexpr char node[] = "/dev/uio0";

// After each interrupt the driver leaves the device's line masked, in the command register.
void finish_interrupt(char *window)
{
    iowrite32(1, window + edu_irq_acknowledge);
    pci_config_bitclr16(0x400, 0x04, open_config(edu).get());
}

void check_opening()
{
    const uio_handle missing(libuio_open_timed(node, &no_wait));
    check("uio: a node that is not there", !missing && errno == ENOENT, std::strerror(errno));

    const later bind(200, [] { write_text(driver + "/new_id", "1234 11e8"); });
    const timespec start = in_ms(0);
    const uio_handle uio(libuio_open_timed(node, &long_wait));
    check("uio: opened when the driver is bound meanwhile", uio && ms_since(start) >= 200,
          std::string(std::strerror(errno)) + " after " + text_of(ms_since(start)) + " ms");
}

void check_names()
{
    const uio_handle uio(libuio_open(node));
    check_equal("uio: class directory", libuio_get_sys_class_dir(uio.get()), "/sys/class/uio/uio0");
    check_equal("uio: device directory", libuio_get_sys_device_dir(uio.get()),
                real_path(std::string("/sys/bus/pci/devices/") + edu));
    check_equal("uio: no removal notice", libuio_get_removed_fd(uio.get()), -1);

    static_cast<void>(::symlink(node, "/dev/regblock"));
    const uio_handle linked(libuio_open_timed("/dev/regblock", &no_wait));
    check("uio: opened through a link", linked != nullptr, std::strerror(errno));

    struct stat status;
    ::stat(node, &status);
    ::mknod("/dev/renamed", S_IFCHR | 0600, status.st_rdev);
    const uio_handle renamed(libuio_open_timed("/dev/renamed", &no_wait));
    check("uio: a node of another name is found by its number",
          renamed && std::string(libuio_get_sys_class_dir(renamed.get())) == "/sys/class/uio/uio0",
          std::strerror(errno));
}

void check_maps(const uio_handle &uio)
{
    size_t size = 0;
    check_equal("uio: map limit", libuio_get_map_limit(uio.get()), 1);
    check_equal("uio: all maps but map 0", libuio_mmap(uio.get(), 1), 0);
    check_equal("uio: maps mapped", libuio_mmap(uio.get(), 0), 1);
    char *window = static_cast<char *>(libuio_get_mapinfo(uio.get(), 0, &size));
    check_equal("uio: size of map 0", static_cast<long long>(size), 0x100000);
    check_equal("uio: identification register", ioread32(window + edu_identification),
                edu_identity);
    iowrite32(0x12345678, window + edu_inverter);
    check_equal("uio: a register written", ioread32(window + edu_inverter), 0xedcba987);
}

void check_interrupts(const uio_handle &uio)
{
    char *window = window_of(uio, 0);
    uint32_t count = 0;

    check_equal("uio: interrupt control, which the driver has not", irq_control(uio, 1),
                {-1, ENOSYS});
    const timespec start = in_ms(0);
    check_equal("uio: wait past its deadline", wait_ms(uio, 100, &count), {-1, ETIMEDOUT});
    check("uio: the deadline was kept", ms_since(start) >= 100, text_of(ms_since(start)) + " ms");

    {
        const later raise(100, [=] { iowrite32(1, window + edu_irq_raise); });
        check_equal("uio: an interrupt during a wait", wait_ms(uio, long_ms, nullptr), {0, 0});
    }
    check_equal("uio: not counted, it is there for the next wait", wait_ms(uio, past_ms, &count),
                {0, 0});
    check_equal("uio: count of interrupts", count, 1);
    check_equal("uio: once counted, it is gone", wait_ms(uio, past_ms, &count), {-1, ETIMEDOUT});

    finish_interrupt(window);
    iowrite32(1, window + edu_irq_raise);
    check_equal("uio: a wait without deadline",
                outcome_of([&] { return libuio_irqwait(uio.get(), nullptr, &count); }), {0, 0});
    check_equal("uio: count of two interrupts", count, 2);
    finish_interrupt(window);
}

// Without a removal notice, what the node itself says is all there is.
void check_unbinding(uio_handle &&uio)
{
    uint32_t count = 0;
    {
        const later unbind(200, [] { write_text(driver + "/unbind", edu); });
        check_equal("uio: the driver is unbound during a wait", wait_ms(uio, long_ms, &count),
                    {-1, EIO});
    }
    check_equal("uio: then, a wait that takes no count wakes at once",
                wait_ms(uio, long_ms, nullptr), {0, 0});
    check_equal("uio: then, interrupt control", irq_control(uio, 1), {-1, EINVAL});
    const long before = open_descriptors();
    uio.reset();
    check_equal("uio: then, closing releases the descriptors", open_descriptors(), before - 2);
    check("uio: then, the node is gone", comes_true([] { return ::access(node, F_OK) != 0; }), "");

    write_text(driver + "/bind", edu);
    const uio_handle again(libuio_open_timed(node, &long_wait));
    check("uio: opened when bound again", again != nullptr, std::strerror(errno));
}

} // namespace

void check_uio_on_a_pci_device()
{
    check_opening();
    check_names();
    uio_handle uio(libuio_open(node));
    check_maps(uio);
    check_interrupts(uio);
    check_unbinding(std::move(uio));
}

} // namespace guest

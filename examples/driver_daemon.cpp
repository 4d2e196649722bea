// A driver daemon: waits for its device, maps its registers, serves its interrupts until the device
// is removed.
//
// driver_daemon_cxx [NODE]    NODE: "/dev/uio0" unless given
#include <device_access/uio.hpp>

#include <cstdio>

namespace
{

using namespace std::chrono_literals;
using device_access::uio;
constexpr size_t control_register = 0x10;
constexpr std::chrono::seconds quiet = 2s;

int fail(const device_access::failure &failed)
{
    std::fprintf(stderr, "%s: %s\n", failed.call, failed.reason());
    return 1;
}

// Until the device has gone: EIO comes when it goes before the interrupt's count is read.
int serve(uio &device)
{
    for (;;) {
        (void)device.enable_interrupt(); // perhaps removed: then the wait says so
        const auto count = device.wait_for(quiet);
        if (count)
            std::printf("interrupt %u\n", *count);
        else if (count.error().error == ETIMEDOUT)
            std::printf("quiet for %d s\n", static_cast<int>(quiet.count()));
        else if (count.error().error == ECANCELED || count.error().error == EIO)
            return 0;
        else if (count.error().error != EINTR)
            return fail(count.error());
    }
}

} // namespace

int main(int argc, char **argv)
{
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    const char *node = argc > 1 ? argv[1] : "/dev/uio0";
    auto device = uio::open(node, 5s);
    if (!device)
        return fail(device.error());
    if (const auto mapped = device->map(); !mapped)
        return fail(mapped.error());
    const auto registers = device->mapped(0);
    if (!registers)
        return fail({"libuio_get_mapinfo", ENXIO});
    registers->write<uint32_t>(control_register, 1);
    std::printf("%s runs, control register 0x%x\n", node,
                registers->read<uint32_t>(control_register));
    const int status = serve(*device);
    std::printf("%s: removed\n", node);
    return status;
}

// A device is unplugged and plugged again, through the virtual machine's monitor, while it is
// listed and in use. The kernel takes some seconds to let it go.
#include "pci.h"
#include "uio.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace guest
{
namespace
{

// Lists and describes all functions until the condition holds. What has just gone is described by
// all ones, but no listing may fail.
void list_until(const std::string &name, const std::function<bool()> &condition)
{
    long listings = 0;
    std::string wrong;
    const bool came = comes_true([&] {
        const std::vector<std::string> all = names_of(sysfs_pci_list());
        ++listings;
        if (all.empty() || !std::is_sorted(all.begin(), all.end()))
            wrong += "a listing of " + text_of(static_cast<long long>(all.size())) + "; ";
        for (const std::string &id : all) {
            const sysfs_pci_identity_t ident = identity(id);
            com_pci_dev_t device;
            sysfs_pci_dev_fill(&device, &ident);
            if (id == edu && device.vendor != 0x1234 && device.vendor != 0xffff)
                wrong += text_of(device.vendor) + "; ";
        }
        return condition();
    });
    check("hot-plug: " + name, came && wrong.empty(),
          text_of(listings) + " listings; wrong: " + wrong);
}

bool has_device(const char *port)
{
    const sysfs_pci_identity_t ident = identity(port);
    return !names_of(sysfs_pci_children_list(&ident)).empty();
}

} // namespace

void check_hotplug()
{
    uio_handle uio(libuio_open_timed("/dev/uio0", &long_wait));
    check_equal("hot-plug: maps of the device", libuio_mmap(uio.get(), 0), 1);
    const config_handle config = open_config(edu);

    unplug_device("edu1");
    list_until("listed while the device is unplugged", [] { return !has_device(port_of_device); });
    uint32_t count;
    check_equal("hot-plug: a wait on the device that is gone", wait_ms(uio, long_ms, &count),
                {-1, EIO});
    check("hot-plug: its configuration cannot be read",
          pci_config_read32(0, config.get()) == 0xffffffff && errno == ENODEV,
          std::strerror(errno));
    uio.reset();
    check("hot-plug: the slot is turned off", device_is_deleted(), "");
    check_equal("hot-plug: the link is down", wait_link_up(port_of_device), ETIMEDOUT);

    plug_device("edu", "edu1", "rp1");
    list_until("listed while the device is plugged", [] { return has_device(port_of_device); });
    check_equal("hot-plug: the link is up", wait_link_up(port_of_device), 0);
    uio.reset(libuio_open_timed("/dev/uio0", &long_wait));
    check("hot-plug: the device is back", uio != nullptr, std::strerror(errno));
}

} // namespace guest

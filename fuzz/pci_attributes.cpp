// The attribute files of a PCI function, as the scan and the attribute calls read them.
//
// Input: the contents of the files below, separated by the byte 0x1e, then an identity.
#include "fuzz/support.h"
#include "sim/base/files.h"
#include "sim/program/private_root.h"

#include <device_access/pci_sysfs.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace
{

constexpr const char *attributes[] = {"resource", "vendor", "device", "subsystem_vendor",
                                      "subsystem_device"};
const std::string directory = "/sys/bus/pci/devices/0000:01:00.0";
const sysfs_pci_identity_t function = {"0000:01:00.0", {}};

void scan()
{
    fuzz::require(sysfs_pci_info_init() == 0);
    sysfs_pci_get_next_element_t next;
    sysfs_pci_info_fetch_init(&next);
    int found = 0;
    while (sysfs_pci_info_fetch_next(&next))
        ++found;
    fuzz::require(found == 1);
    // The library keeps the results of every scan; so many would fill the memory.
    std::free(const_cast<void *>(next.seed));
}

void read_attributes()
{
    for (const char *attribute : attributes) {
        for (size_t count : {1u, 3u, 100u}) {
            const auto numbers = std::make_unique<int64_t[]>(count);
            const ssize_t read = sysfs_pci_show_nums(numbers.get(), count, attribute, &function);
            fuzz::require(read >= -1 && read <= static_cast<ssize_t>(count));
        }
        for (size_t room : {2u, 20u, 5000u}) {
            const auto text = std::make_unique<char[]>(room);
            size_t length = 0;
            if (sysfs_pci_show(text.get(), room, &length, attribute, &function))
                fuzz::require(length < room && text[length] == '\0');
        }
        std::free(sysfs_pci_show(nullptr, 0, nullptr, attribute, &function));
    }
    com_pci_dev_t filled;
    sysfs_pci_dev_fill(&filled, &function);
}

void use_identity(const std::string &text)
{
    const auto identity = std::make_unique<sysfs_pci_identity_t>();
    std::memcpy(identity->str, text.data(), std::min(text.size(), sizeof identity->str));
    sysfs_pci_identity_domain(identity.get());
    sysfs_pci_identity_atox(0, 13, identity.get());
    const int devfn = sysfs_pci_identity_devfn(identity.get());
    fuzz::require(devfn >= 0 && devfn <= 255);
    com_pci_dev_t filled;
    sysfs_pci_dev_fill(&filled, identity.get());
    std::free(sysfs_pci_abspath(nullptr, 0, text.c_str(), identity.get()));
    std::free(sysfs_pci_children_list(identity.get()));
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    chassis_sim::enter_private_root();
    chassis_sim::make_directory(directory);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const auto texts =
        fuzz::parts({reinterpret_cast<const char *>(data), size}, std::size(attributes) + 1);
    const fuzz::descriptor_check descriptors;
    for (size_t i = 0; i < std::size(attributes); ++i)
        fuzz::set_contents((directory + "/" + attributes[i]).c_str(), texts[i]);
    scan();
    read_attributes();
    use_identity(texts.back());
    return 0;
}

// The configuration space of a PCI function. The input is its "config" file.
#include "fuzz/support.h"
#include "sim/base/files.h"
#include "sim/program/private_root.h"

#include <device_access/pci_config.h>
#include <device_access/pci_sysfs.h>

#include <array>

#include <sys/mman.h>

namespace
{

const std::string directory = "/sys/bus/pci/devices/0000:01:00.0";
const sysfs_pci_identity_t function = {"0000:01:00.0", {}};

// A capability list that leads back to itself is followed for ever; this ends it.
void cut_loops(std::string &config)
{
    for (size_t pointer_register : {0x34u, 0x14u}) {
        std::array<bool, 256> seen = {};
        size_t link = pointer_register;
        while (link < config.size()) {
            const auto next = static_cast<uint8_t>(config[link]);
            if (seen[next])
                config[link] = 0;
            if (next == 0 || seen[next])
                break;
            seen[next] = true;
            link = next + 1u;
        }
    }
}

void use_registers(void *handle)
{
    for (int id : {0x01, 0x05, 0x10, 0x11, 0xff}) {
        const int found = pci_config_find_capability(static_cast<uint8_t>(id), handle);
        fuzz::require(found == -1 || (found > 0 && found < 256));
    }
    pcie_config_is_hotplug(handle);
    for (uint32_t offset : {0u, 1u, 2u, 62u, 252u, 255u, 4094u, 0xFFFFFFFCu}) {
        pci_config_read8(offset, handle);
        pci_config_read16(offset, handle);
        pci_config_read32(offset, handle);
    }
    pci_config_bitset16(0x0006, 0x04, handle);
    pci_config_bitclr8(0xFF, 0x3C, handle);
}

// Of a small resource the library asks the configuration space whether it is memory. Where that
// cannot be read, the resource is mapped, and stays so.
void use_resources()
{
    std::array<void *, 6> resources;
    if (sysfs_pci_mmap(resources.data(), 0, &function) != 0)
        return;
    const auto mapped = resources;
    sysfs_pci_munmap(resources.data(), &function);
    for (void *address : mapped)
        if (address)
            ::munmap(address, 1);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    chassis_sim::enter_private_root();
    for (int bar = 0; bar < 6; ++bar)
        chassis_sim::write_file(directory + "/resource" + std::to_string(bar),
                                std::string(bar % 2 ? 200 : 4096, '\0'));
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string config(reinterpret_cast<const char *>(data), size);
    cut_loops(config);
    const fuzz::descriptor_check descriptors;
    fuzz::set_contents((directory + "/config").c_str(), config);
    use_resources();
    pcie_config_wait_link_up(&function);
    if (void *handle = pci_config_open(&function)) {
        use_registers(handle);
        pci_config_close(handle);
    }
    return 0;
}

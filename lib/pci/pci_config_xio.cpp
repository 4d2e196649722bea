// Capabilities of a PCI function, and what the PCI Express one tells of link and slot.
#include <device_access/pci_config.h>

#include "lib/base/errors.h"

#include <cerrno>
#include <cstring>

#include <unistd.h>

using namespace device_access;

namespace
{

// Registers of every function.
constexpr uint32_t status_register = 0x06;
constexpr uint32_t status_has_capabilities = 0x10;
constexpr uint32_t header_type_register = 0x0e;
constexpr uint32_t capabilities_pointer = 0x34;
constexpr uint32_t cardbus_capabilities_pointer = 0x14;

// Registers of a PCI Express capability, from its beginning.
constexpr uint8_t pcie_capability = 0x10;
constexpr uint32_t pcie_capabilities = 0x02;
constexpr uint32_t pcie_has_slot = 0x100;
constexpr uint32_t link_capabilities = 0x0c;
constexpr uint32_t link_reports_active = 0x100000;
constexpr uint32_t link_status = 0x12;
constexpr uint32_t link_is_active = 0x2000;
constexpr uint32_t link_is_training = 0x0800;
constexpr uint32_t link_width = 0x3f0;
constexpr uint32_t slot_capabilities = 0x14;
constexpr uint32_t slot_is_hotplug = 0x40;

constexpr int poll_interval_us = 10000;
constexpr int poll_budget_us = 500000;

bool pci_config_read8_error(uint32_t val)
{
    return val == 0xffffffff;
}

bool pci_config_read16_error(uint32_t val)
{
    return val == 0xffffffff;
}

bool pci_config_read32_error(uint32_t val)
{
    return val == 0xffffffff && errno != 0;
}

uint32_t pcicap_config_read16(uint32_t offset, uint8_t cap, void *handle)
{
    return pci_config_read16(cap + offset, handle);
}

uint32_t pcicap_config_read32(uint32_t offset, uint8_t cap, void *handle)
{
    return pci_config_read32(cap + offset, handle);
}

int no_capability()
{
    return fail(-1, ENOENT);
}

// The register that points to the capability list, or -1.
int find_capabilities_pointer(void *handle)
{
    const uint32_t status = pci_config_read16(status_register, handle);
    if (pci_config_read16_error(status))
        return -1;
    if ((status & status_has_capabilities) == 0)
        return no_capability();
    const uint32_t header_type = pci_config_read8(header_type_register, handle);
    if (pci_config_read8_error(header_type))
        return -1;
    // The multi-function bit is part of what is compared: such functions count as without a list.
    switch (header_type) {
    case 0:
    case 1:
        return capabilities_pointer;
    case 2:
        return cardbus_capabilities_pointer;
    default:
        return no_capability();
    }
}

// Both polls return 0 or the result of the whole wait; with EIO, errno is what the failed read
// left.
int sysfs_pcie_poll_dlink_active(uint8_t pcie_cap, void *cfg_ioh)
{
    for (int budget_us = poll_budget_us;; budget_us -= poll_interval_us) {
        const uint32_t status = pcicap_config_read16(link_status, pcie_cap, cfg_ioh);
        if (pci_config_read16_error(status))
            return EIO;
        if (status & link_is_active)
            return 0;
        if (budget_us <= 0)
            return ETIMEDOUT;
        ::usleep(poll_interval_us);
    }
}

// Waits until training has ended; stuck is the result if it does not.
int sysfs_pcie_poll_link_up(uint8_t pcie_cap, void *cfg_ioh, int budget_us, int stuck)
{
    for (;; budget_us -= poll_interval_us) {
        const uint32_t status = pcicap_config_read16(link_status, pcie_cap, cfg_ioh);
        if (pci_config_read16_error(status))
            return EIO;
        if ((status & link_is_training) == 0)
            return (status & link_width) == 0 ? ENOLINK : 0;
        if (budget_us <= 0)
            return stuck;
        ::usleep(poll_interval_us);
    }
}

int poll_link(uint8_t pcie_cap, void *cfg_ioh)
{
    const uint32_t capabilities = pcicap_config_read32(link_capabilities, pcie_cap, cfg_ioh);
    if (pci_config_read32_error(capabilities))
        return EIO;
    if ((capabilities & link_reports_active) == 0)
        return sysfs_pcie_poll_link_up(pcie_cap, cfg_ioh, poll_budget_us, ETIMEDOUT);
    const int result = sysfs_pcie_poll_dlink_active(pcie_cap, cfg_ioh);
    return result ? result : sysfs_pcie_poll_link_up(pcie_cap, cfg_ioh, 0, EPROTO);
}

int wait_link_up(void *cfg_ioh)
{
    const int pcie_cap = pci_config_find_capability(pcie_capability, cfg_ioh);
    if (pcie_cap < 1)
        return pcie_cap;
    const int result = poll_link(static_cast<uint8_t>(pcie_cap), cfg_ioh);
    if (result != EIO)
        errno = result;
    return result;
}

} // namespace

int pci_config_find_capability(uint8_t cap_id, void *handle)
{
    const int pointer_register = find_capabilities_pointer(handle);
    if (pointer_register < 0)
        return -1;
    uint32_t pointer = pci_config_read8(static_cast<uint32_t>(pointer_register), handle);
    if (pci_config_read8_error(pointer))
        return -1;
    while (pointer) {
        const uint32_t entry = pci_config_read16(pointer, handle);
        if (pci_config_read16_error(entry))
            return -1;
        if ((entry & 0xff) == cap_id)
            return static_cast<int>(pointer);
        pointer = entry >> 8;
    }
    return no_capability();
}

int pcie_config_wait_link_up(const sysfs_pci_identity_t *pci_ident)
{
    void *cfg_ioh = pci_config_open(pci_ident);
    if (!cfg_ioh)
        return -1;
    const int result = wait_link_up(cfg_ioh);
    pci_config_close(cfg_ioh);
    return result;
}

int pcie_config_is_hotplug(void *cfg_ioh)
{
    if (!cfg_ioh)
        return fail(0, EINVAL);
    const int found = pci_config_find_capability(pcie_capability, cfg_ioh);
    if (found < 0) {
        if (errno == ENOENT)
            errno = 0;
        return 0;
    }
    const auto pcie_cap = static_cast<uint8_t>(found);
    const uint32_t capabilities = pcicap_config_read16(pcie_capabilities, pcie_cap, cfg_ioh);
    if (pci_config_read16_error(capabilities) || (capabilities & pcie_has_slot) == 0)
        return 0;
    const uint32_t slot = pcicap_config_read32(slot_capabilities, pcie_cap, cfg_ioh);
    if (slot == 0xffffffff)
        return 0;
    return (slot & slot_is_hotplug) != 0;
}

const char *pcie_config_link_strerror(int errno_value)
{
    switch (errno_value) {
    case EPROTO:
        return "PCIe link-training stuck at asserted";
    case ETIMEDOUT:
        return "PCIe link-up waiting timed out";
    case ENOLINK:
        return "PCIe link-up not achieved";
    default:
        return std::strerror(errno_value);
    }
}

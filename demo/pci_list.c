/*
 * Lists the PCI functions of the machine it runs on: ids, base address registers and capabilities.
 * Reads only.
 */
#include <device_access/pci_config.h>
#include <device_access/pci_sysfs.h>

#include <errno.h>
#include <inttypes.h>
#include <stdio.h>
#include <string.h>

static const char *capability_name(unsigned int id)
{
    switch (id) {
    case 0x01:
        return "power management";
    case 0x05:
        return "MSI";
    case 0x09:
        return "vendor specific";
    case 0x10:
        return "PCI Express";
    case 0x11:
        return "MSI-X";
    default:
        return "capability";
    }
}

/* Lists the entries in their order, on whatever kind of function. */
static void print_capabilities(void *config)
{
    const int most = 48; /* so many fit; a list that is longer runs in a circle */
    if ((pci_config_read16(0x06, config) & 0x10) == 0)
        return;
    uint32_t position = pci_config_read8(0x34, config) & 0xfc;
    for (int i = 0; i < most && position; ++i) {
        uint32_t entry = pci_config_read16(position, config);
        if (entry > 0xffff)
            return;
        printf("  [%02x] %s (id 0x%02x)\n", position, capability_name(entry & 0xff), entry & 0xff);
        position = entry >> 8 & 0xfc;
    }
}

static void print_config(const sysfs_pci_identity_t *ident)
{
    void *config = pci_config_open(ident);
    if (!config) {
        printf("  configuration space cannot be opened: %s\n", strerror(errno));
        return;
    }
    printf("  class 0x%06x, header type 0x%02x, command 0x%04x, status 0x%04x\n",
           pci_config_read32(0x08, config) >> 8, pci_config_read8(0x0e, config),
           pci_config_read16(0x04, config), pci_config_read16(0x06, config));
    print_capabilities(config);
    if (pcie_config_is_hotplug(config))
        printf("  hot-plug slot\n");
    pci_config_close(config);
}

static void print_device(const sysfs_pci_info_t *info)
{
    sysfs_pci_identity_t ident;
    com_pci_dev_t dev;
    memset(&ident, 0, sizeof ident);
    memcpy(ident.str, strrchr(info->id.sys_fs, '/') + 1, sizeof ident.str - 1);
    sysfs_pci_dev_fill(&dev, &ident);
    printf("%s  %04x:%04x  subsystem %04x:%04x\n", ident.str, dev.vendor, dev.device,
           dev.subsystem_vendor, dev.subsystem_device);
    for (int n = 0; n < 6; ++n) {
        const sysfs_pci_bar_t *bar = &info->resource_bar[n];
        if (bar->flags)
            printf("  BAR %d: %s at 0x%" PRIx64 ", %" PRIu32 " bytes, flags 0x%" PRIx64 "\n", n,
                   bar->flags & 0x100 ? "I/O" : "memory", bar->base, (uint32_t)bar->size,
                   bar->flags);
    }
    print_config(&ident);
}

int main(void)
{
    sysfs_pci_get_next_element_t next;
    const sysfs_pci_info_t *info;
    int count = 0;
    if (sysfs_pci_info_init() != 0) {
        printf("this machine shows no PCI devices\n");
        return 0;
    }
    sysfs_pci_info_fetch_init(&next);
    for (; (info = sysfs_pci_info_fetch_next(&next)) != NULL; ++count)
        print_device(info);
    printf("%d functions\n", count);
    return 0;
}

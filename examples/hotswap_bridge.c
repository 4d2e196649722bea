/*
 * Switches a hot-swap bridge on, shows the devices that appear behind it, and switches it off.
 */
#include <device_access/qel_pci_hotswap.h>

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int give_up(const char *what)
{
    fprintf(stderr, "%s: %s\n", what, strerror(errno));
    return 1;
}

static void show(const sysfs_pci_identity_t *ident)
{
    void *resource[6];
    com_pci_dev_t device;
    sysfs_pci_dev_fill(&device, ident);
    printf("%s appeared: vendor %04x, device %04x\n", ident->str, device.vendor, device.device);
    if (sysfs_pci_mmap(resource, 0, ident) != 0) {
        give_up("sysfs_pci_mmap");
        return;
    }
    for (int bar = 0; bar < 6; ++bar)
        if (resource[bar])
            printf("its BAR %d is mapped\n", bar);
    sysfs_pci_munmap(resource, ident);
}

int main(int argc, char **argv)
{
    sysfs_pci_identity_t bridge = {.str = "0000:00:1e.0"};
    if (argc > 1)
        snprintf(bridge.str, sizeof bridge.str, "%s", argv[1]);

    if (qel_pci_hotswap_install(QEL_PCI_HOTSWAP_ALL_PCIEHP_BRIDGES) != 0)
        return give_up("loading the module failed");
    printf("module loaded for the bridges that can do hot-plug\n");
    if (qel_pci_hotswap_bridge_usable(&bridge) != 0)
        return give_up(bridge.str);

    sysfs_pci_identity_t *devices = qel_pci_hotswap_bridge_enable(&bridge);
    if (!devices)
        return give_up("nothing behind the bridge");
    printf("bridge %s enabled\n", bridge.str);
    for (const sysfs_pci_identity_t *device = devices; device->str[0]; ++device)
        show(device);
    free(devices);

    if (qel_pci_hotswap_bridge_disable(&bridge) != 0)
        return give_up("disabling the bridge");
    printf("bridge %s disabled\n", bridge.str);
    return 0;
}

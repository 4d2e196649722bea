/*
 * Brings up what is behind a hot-plug port: finds the port and its PCI Express capability, waits
 * for the link, and maps and uses the memory of the devices behind it.
 */
#define _POSIX_C_SOURCE 200809L /* for strict C, which leaves out what POSIX adds */

#include <device_access/pci_config.h>
#include <device_access/pci_sysfs.h>
#include <device_access/regiomap_x86.h>

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

/* Finds the first port with a hot-plug slot; 0 if there is none. */
static int find_port(sysfs_pci_identity_t *port)
{
    int found = 0;
    sysfs_pci_identity_t *list = sysfs_pci_list();
    for (sysfs_pci_identity_t *ident = list; list && ident->str[0] && !found; ++ident) {
        void *config = pci_config_open(ident);
        if (!config)
            continue;
        found = pcie_config_is_hotplug(config);
        if (found) {
            *port = *ident;
            printf("%s has a hot-plug slot; its PCI Express capability is at 0x%02x\n", port->str,
                   (unsigned int)pci_config_find_capability(0x10, config));
        }
        pci_config_close(config);
    }
    free(list);
    return found;
}

static int wait_for_link(const sysfs_pci_identity_t *port)
{
    struct timespec start, end;
    clock_gettime(CLOCK_MONOTONIC, &start);
    int result = pcie_config_wait_link_up(port);
    clock_gettime(CLOCK_MONOTONIC, &end);
    long ms = (long)(end.tv_sec - start.tv_sec) * 1000 + (end.tv_nsec - start.tv_nsec) / 1000000;
    if (result == 0)
        printf("its link is up after %ld ms\n", ms);
    else
        printf("its link is not up after %ld ms: %s\n", ms,
               pcie_config_link_strerror(result < 0 ? errno : result));
    return result;
}

static void use_device(const sysfs_pci_identity_t *ident)
{
    void *bars[6];
    int64_t vendor = 0;
    sysfs_pci_show_nums(&vendor, 1, "vendor", ident);
    printf("below it: %s of vendor 0x%04x\n", ident->str, (unsigned int)vendor);
    if (sysfs_pci_store_num(1, "enable", ident) != 0)
        printf("  cannot be enabled: %s\n", strerror(errno));
    if (sysfs_pci_mmap(bars, 0, ident) != 0) {
        printf("  cannot be mapped: %s\n", strerror(errno));
        return;
    }
    for (int n = 0; n < 6; ++n) {
        if (!bars[n])
            continue;
        iowrite32(0xc0ffee00u + (unsigned int)n, bars[n]);
        printf("  BAR %d mapped; its first register reads 0x%x\n", n, ioread32(bars[n]));
    }
    sysfs_pci_munmap(bars, ident);
}

int main(void)
{
    sysfs_pci_identity_t port;
    if (!find_port(&port)) {
        fprintf(stderr, "no port with a hot-plug slot\n");
        return 1;
    }
    if (wait_for_link(&port) != 0)
        return 1;
    sysfs_pci_identity_t *children = sysfs_pci_children_list(&port);
    for (const sysfs_pci_identity_t *ident = children; children && ident->str[0]; ++ident)
        use_device(ident);
    free(children);
    return 0;
}

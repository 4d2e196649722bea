/*
 * Hot-swap bridges: the PCI bridges in front of the chassis's cards, whose downstream side the
 * kernel module "qel_pci_hotswap" switches on and off through an attribute "bridge_enable".
 *
 * Threads: no call keeps state; all may be used from several threads.
 */
#ifndef DEVICE_ACCESS_QEL_PCI_HOTSWAP_H
#define DEVICE_ACCESS_QEL_PCI_HOTSWAP_H

#include <device_access/pci_sysfs.h>

DEVICE_ACCESS_BEGIN_DECLS

/* The bridges that the module is to manage. */
typedef enum qel_pci_hotswap_opts_e DEVICE_ACCESS_INT_ENUM {
    QEL_PCI_HOTSWAP_ALL_PCI_BRIDGES = 0,
    QEL_PCI_HOTSWAP_ALL_PCIE_BRIDGES = 1,
    QEL_PCI_HOTSWAP_ALL_PCIEHP_BRIDGES = 2 /* PCI Express bridges that can do hot-plug */
} qel_pci_hotswap_options_t;

/*
 * Load the module, with "/sbin/modprobe -s qel_pci_hotswap" and the option that opts stands for (a
 * value that is none of the above counts as 0). The command, and what goes wrong with it, is logged
 * through syslog(3) at LOG_DAEMON | LOG_NOTICE. Runs a shell and waits for it, see system(3).
 *
 * Returns 0 when the command has exited with status 0 (or was killed by a signal), else -1. errno
 * has no meaning.
 */
DEVICE_ACCESS_API int qel_pci_hotswap_install(qel_pci_hotswap_options_t opts);

/*
 * Whether a bridge can be switched: 0 when it has a writable "bridge_enable", else -1 with errno as
 * for sysfs_pci_access(), e.g. ENOENT when the module does not manage it.
 */
DEVICE_ACCESS_API int qel_pci_hotswap_bridge_usable(const sysfs_pci_identity_t *pci_ident);

/*
 * Switch a bridge on and wait for devices below it: they are looked for 101 times, every 5 ms, so
 * for about half a second.
 *
 * Returns the devices as sysfs_pci_children_list() does, at least one, to be released with free();
 * NULL with errno on failure: ENODEV when none appeared in time (the bridge stays on), else as for
 * sysfs_pci_store() or sysfs_pci_children_list().
 */
DEVICE_ACCESS_API sysfs_pci_identity_t *
qel_pci_hotswap_bridge_enable(const sysfs_pci_identity_t *pci_ident);

/* Switch a bridge off. Returns 0; -1 with errno as for sysfs_pci_store(). */
DEVICE_ACCESS_API int qel_pci_hotswap_bridge_disable(const sysfs_pci_identity_t *pci_ident);

DEVICE_ACCESS_END_DECLS

#endif

// Hot-swap bridges: loads their kernel module, switches them on and off.
#include <device_access/qel_pci_hotswap.h>

#include "lib/base/errors.h"
#include "lib/base/unique_malloc.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <sys/types.h>
#include <syslog.h>
#include <unistd.h>

using namespace device_access;

namespace
{

constexpr char loader[] = "/sbin/modprobe -s";
constexpr char enable_attr[] = "bridge_enable";
constexpr int log_priority = LOG_DAEMON | LOG_NOTICE;

constexpr int list_tries = 101;
constexpr useconds_t list_interval_us = 5000;

// The calling program's path, for log lines.
void proc_exe_name(char *buf, size_t max)
{
    const ssize_t length = ::readlink("/proc/self/exe", buf, max - 1);
    if (length < 0)
        std::snprintf(buf, max, "<unknown>");
    else
        buf[length] = '\0';
}

const char *module_option(qel_pci_hotswap_options_t opts)
{
    switch (opts) {
    case QEL_PCI_HOTSWAP_ALL_PCIE_BRIDGES:
        return " pcie_only";
    case QEL_PCI_HOTSWAP_ALL_PCIEHP_BRIDGES:
        return " pciehp_only";
    default:
        return "";
    }
}

} // namespace

int qel_pci_hotswap_install(qel_pci_hotswap_options_t opts)
{
    char command[128];
    std::snprintf(command, sizeof command, "%s qel_pci_hotswap%s", loader, module_option(opts));
    char program[256];
    proc_exe_name(program, sizeof program);
    ::syslog(log_priority, "%s: %s\n", program, command);

    const int result = std::system(command);
    if (result == -1) {
        ::syslog(log_priority, "%s: %s failed to spawn: %s\n", program, loader, error_text());
        return -1;
    }
    // Of a loader that a signal killed this is 0: it counts as a success.
    const int status = result >> 8 & 0xff;
    if (status != 0) {
        ::syslog(log_priority, "%s: %s exited with status %d\n", program, command, status);
        return -1;
    }
    return 0;
}

int qel_pci_hotswap_bridge_usable(const sysfs_pci_identity_t *pci_ident)
{
    return sysfs_pci_access(enable_attr, W_OK, pci_ident);
}

sysfs_pci_identity_t *qel_pci_hotswap_bridge_enable(const sysfs_pci_identity_t *pci_ident)
{
    if (sysfs_pci_store("1", enable_attr, pci_ident) != 0)
        return nullptr;
    for (int i = 0; i < list_tries; ++i) {
        if (i > 0)
            ::usleep(list_interval_us);
        unique_malloc<sysfs_pci_identity_t> children(sysfs_pci_children_list(pci_ident));
        if (!children || children->str[0])
            return children.release();
    }
    return fail(nullptr, ENODEV);
}

int qel_pci_hotswap_bridge_disable(const sysfs_pci_identity_t *pci_ident)
{
    return sysfs_pci_store("0", enable_attr, pci_ident);
}

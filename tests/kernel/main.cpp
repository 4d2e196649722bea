// Runs in a virtual machine, as the only program of note, on a kernel as the distribution ships it.
#include "guest.h"

#include <cstdio>

int main()
{
    ::setvbuf(stdout, nullptr, _IOLBF, 0);
    guest::check_pci();
    guest::check_uio_on_a_pci_device();
    guest::check_uio_emulation();
    guest::check_memory();
    guest::check_hotplug();
    guest::check_uio_of_the_chassis();
    guest::check_pod_log();
    guest::check_post_logs();
    return 0;
}

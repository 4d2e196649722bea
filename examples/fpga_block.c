/*
 * Uses a register block of an FPGA that has no UIO driver, under its pseudo node name.
 */
#include <device_access/libuio.h>
#include <device_access/regiomap_x86.h>

#include <errno.h>
#include <stdio.h>
#include <string.h>

int main(int argc, char **argv)
{
    const char *name = argc > 1 ? argv[1] : "sysfs_pci:uio_cma.alsw1";
    const struct timespec limit = {5, 0};
    libuio_dev_t *uio = libuio_open_timed(name, &limit);
    if (!uio) {
        fprintf(stderr, "cannot open %s: %s\n", name, strerror(errno));
        return 1;
    }
    printf("opened %s: device %s\n", name, libuio_get_sys_device_dir(uio));
    printf("mapped %d ranges\n", libuio_mmap(uio, 0));
    for (unsigned int index = 0; index < libuio_get_map_limit(uio); ++index) {
        size_t size = 0;
        char *window = libuio_get_mapinfo(uio, index, &size);
        if (!window)
            continue;
        iowrite32(0xf00d0000u + index, window + 0x10);
        printf("map %u: %zu bytes; register 0x10 reads 0x%x\n", index, size,
               ioread32(window + 0x10));
    }
    if (libuio_irqwait(uio, NULL, NULL) != 0)
        printf("no interrupts: %s\n", strerror(errno));
    libuio_close(uio);
    printf("closed\n");
    return 0;
}

/* A small client in C, built against the installed package. */
#include <device_access/libuio.h>
#include <device_access/regiomap_x86.h>

#include <stdio.h>

int main(void)
{
    const struct timespec no_wait = {0, 0};
    libuio_dev_t *uio = libuio_open_timed("/dev/uio0", &no_wait);
    if (!uio)
        return perror("/dev/uio0"), 1;
    int windows = libuio_mmap(uio, ~(uint64_t)1);
    void *window = libuio_get_mapinfo(uio, 0, NULL);
    iowrite32(0x1234, window);
    printf("%d window, register 0x%x\n", windows, ioread32(window));
    libuio_close(uio);
    return 0;
}

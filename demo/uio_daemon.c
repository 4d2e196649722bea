/*
 * A driver daemon's whole life with one UIO device: wait for its node, open it, map its register
 * windows, use the registers, take interrupts until the device is removed, close it.
 */
#include <device_access/libuio.h>
#include <device_access/regiomap_x86.h>

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

/* Switches the library's own diagnostics on; only its presence counts. */
#ifdef WITH_DIAGNOSTICS
int libuio_log;
#endif

static struct timespec after_ms(long ms)
{
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    time.tv_nsec += ms % 1000 * 1000000;
    time.tv_sec += ms / 1000 + time.tv_nsec / 1000000000;
    time.tv_nsec %= 1000000000;
    return time;
}

static void use_registers(libuio_dev_t *uio)
{
    for (unsigned int index = 0; index < libuio_get_map_limit(uio); ++index) {
        size_t size = 0;
        char *window = libuio_get_mapinfo(uio, index, &size);
        if (!window)
            continue;
        iowrite32(0xc0ffee00u + index, window + 0x10);
        iowrite64(0x1122334455667788u, window + 0x18);
        printf("map %u: %zu bytes; register 0x10 reads 0x%x, 0x18 reads 0x%llx, 0x1c reads 0x%x\n",
               index, size, ioread32(window + 0x10), (unsigned long long)ioread64(window + 0x18),
               ioread32(window + 0x1c));
    }
}

/* Waits up to ms milliseconds, or without limit when ms is 0; returns errno, 0 for an interrupt. */
static int wait_and_tell(libuio_dev_t *uio, long ms)
{
    const struct timespec deadline = after_ms(ms);
    uint32_t count = 0;
    if (libuio_irqwait(uio, ms ? &deadline : NULL, &count) == 0) {
        printf("interrupt; the driver has counted %u\n", count);
        return 0;
    }
    const int error = errno;
    printf("the wait ended: %s\n", strerror(error));
    return error;
}

int main(int argc, char **argv)
{
    const char *node = argc > 1 ? argv[1] : "/dev/uio0";
    const struct timespec limit = {5, 0};
    setvbuf(stdout, NULL, _IOLBF, 0);

    printf("waiting up to 5 s for %s\n", node);
    libuio_dev_t *uio = libuio_open_timed(node, &limit);
    if (!uio) {
        fprintf(stderr, "cannot open %s: %s\n", node, strerror(errno));
        return 1;
    }
    printf("opened; class directory %s, device %s\n", libuio_get_sys_class_dir(uio),
           libuio_get_sys_device_dir(uio));
    printf("mapped %d windows\n", libuio_mmap(uio, 0));
    use_registers(uio);

    printf("interrupt enabled; waiting with a deadline in 1 s\n");
    if (libuio_irqcontrol(uio, 1) != 0)
        perror("libuio_irqcontrol");
    wait_and_tell(uio, 1000);
    printf("interrupt disabled; waiting with a deadline in 200 ms\n");
    libuio_irqcontrol(uio, 0);
    wait_and_tell(uio, 200);

    printf("waiting for the device to be removed\n");
    int error;
    while ((error = wait_and_tell(uio, 0)) == 0) {
    }
    libuio_close(uio);
    printf("closed\n");
    return error == ECANCELED ? 0 : 1;
}

/*
 * A driver daemon: waits for its device, maps its registers, serves its interrupts until the device
 * is removed.
 *
 * driver_daemon_c [NODE]    NODE: "/dev/uio0" unless given
 */
#define _POSIX_C_SOURCE 200809L /* for strict C, which leaves out what POSIX adds */

#include <device_access/libuio.h>
#include <device_access/regiomap_x86.h>

#include <errno.h>
#include <stdio.h>
#include <string.h>

enum { control_register = 0x10, quiet_seconds = 2 };

static struct timespec in_seconds(int seconds)
{
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    time.tv_sec += seconds;
    return time;
}

/* Returns how the device ended: ECANCELED when it was removed, EIO when that came between an
 * interrupt and the reading of its count. */
static int serve(libuio_dev_t *uio)
{
    for (;;) {
        const struct timespec deadline = in_seconds(quiet_seconds);
        uint32_t count;
        if (libuio_irqcontrol(uio, 1) != 0) /* perhaps removed: then the wait says so */
            perror("enable the interrupt");
        if (libuio_irqwait(uio, &deadline, &count) == 0)
            printf("interrupt %u\n", count);
        else if (errno == ETIMEDOUT)
            printf("quiet for %d s\n", quiet_seconds);
        else if (errno != EINTR)
            return errno;
    }
}

int main(int argc, char **argv)
{
    const char *node = argc > 1 ? argv[1] : "/dev/uio0";
    const struct timespec max_wait = {5, 0};
    setvbuf(stdout, NULL, _IOLBF, 0);

    libuio_dev_t *uio = libuio_open_timed(node, &max_wait);
    if (!uio) {
        fprintf(stderr, "%s: %s\n", node, strerror(errno));
        return 1;
    }
    char *registers = libuio_mmap(uio, 0) > 0 ? libuio_get_mapinfo(uio, 0, NULL) : NULL;
    if (!registers) {
        fprintf(stderr, "%s: no registers\n", node);
        libuio_close(uio);
        return 1;
    }
    iowrite32(1, registers + control_register);
    printf("%s runs, control register 0x%x\n", node, ioread32(registers + control_register));

    const int end = serve(uio);
    libuio_close(uio);
    const int removed = end == ECANCELED || end == EIO;
    printf("%s: %s\n", node, removed ? "removed" : strerror(end));
    return removed ? 0 : 1;
}

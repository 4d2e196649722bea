/*
 * A driver for a small device: starts it, waits for its interrupt, and reads its samples. The
 * device is described in sampler.json, so that it can be run without one:
 *
 * chassis-sim --description chassis.json -- ./sampler_c
 */
#define _POSIX_C_SOURCE 200809L /* for strict C, which leaves out what POSIX adds */
#include <device_access/libuio.h>
#include <device_access/regiomap_x86.h>

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

enum { control_register = 0x0, status_register = 0x4, data_register = 0x8 };
enum { control_start = 1, status_busy = 1, status_ready = 2, samples = 3 };

static int take_samples(libuio_dev_t *uio, char *registers)
{
    struct timespec deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += 2;
    iowrite32(control_start, registers + control_register);
    if (libuio_irqwait(uio, &deadline, NULL) != 0)
        return -1;
    if (ioread32(registers + status_register) != status_ready) {
        errno = EIO;
        return -1;
    }
    printf("samples:");
    for (int i = 0; i < samples; ++i)
        printf(" %u", ioread32(registers + data_register));
    printf("\n");
    iowrite32(status_ready, registers + status_register); /* a 1 clears it */
    return 0;
}

int main(int argc, char **argv)
{
    const char *node = argc > 1 ? argv[1] : "/dev/uio0";
    libuio_dev_t *uio = libuio_open(node);
    char *registers = uio && libuio_mmap(uio, 0) > 0 ? libuio_get_mapinfo(uio, 0, NULL) : NULL;
    const int done =
        registers && libuio_irqcontrol(uio, 1) == 0 && take_samples(uio, registers) == 0;
    if (!done)
        fprintf(stderr, "%s: %s\n", node, strerror(errno));
    libuio_close(uio);
    return done ? 0 : 1;
}

/*
 * A driver in an event loop of its own: watches the device's interrupt, its removal and standard
 * input, of which a line "quit" ends it.
 *
 * event_loop_c [NODE]    NODE: "/dev/uio0" unless given
 */
#include <device_access/libuio.h>

#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

/* The library tells what has come: a deadline long past keeps it from waiting. */
static int look(libuio_dev_t *uio)
{
    const struct timespec past = {0, 0};
    uint32_t count;
    if (libuio_irqwait(uio, &past, &count) == 0) {
        printf("interrupt %u\n", (unsigned int)count);
        libuio_irqcontrol(uio, 1);
    } else if (errno == ECANCELED || errno == EIO) {
        return 0; /* removed */
    } else if (errno != ETIMEDOUT && errno != EINTR) {
        perror("wait");
        return 0;
    }
    return 1;
}

static int asked_to_quit(void)
{
    char line[64];
    const ssize_t length = read(STDIN_FILENO, line, sizeof line);
    return length <= 0 || strncmp(line, "quit", 4) == 0;
}

int main(int argc, char **argv)
{
    const struct timespec limit = {5, 0};
    libuio_dev_t *uio = libuio_open_timed(argc > 1 ? argv[1] : "/dev/uio0", &limit);
    if (!uio) {
        perror("open");
        return 1;
    }
    setvbuf(stdout, NULL, _IOLBF, 0);
    libuio_irqcontrol(uio, 1);
    /* A descriptor of -1, for a device that gives no notice, is left out by poll() itself. */
    struct pollfd set[] = {{.fd = libuio_get_uio_fd(uio), .events = POLLIN},
                           {.fd = libuio_get_removed_fd(uio), .events = POLLPRI},
                           {.fd = STDIN_FILENO, .events = POLLIN}};
    for (int running = 1; running;) {
        if (poll(set, 3, -1) < 0 && errno != EINTR)
            break;
        if (set[0].revents || set[1].revents)
            running = look(uio);
        if (set[2].revents && asked_to_quit())
            running = 0;
    }
    printf("ended\n");
    libuio_close(uio);
    return 0;
}

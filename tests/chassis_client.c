/* chassis_client NODE COUNT: a daemon's event loop, by libevent: waits for that many interrupts of
 * the device, enabling it before each, and prints their counts; then ends when the device is
 * removed. */
#include <event2/event.h>

#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

static const uint32_t on = 1;
static int interrupts_left;

static void interrupted(int fd, short what, void *base)
{
    uint32_t count;
    (void)what;
    if (read(fd, &count, sizeof count) != sizeof count) {
        printf("%s\n", errno == EIO ? "removed" : "failed");
        event_base_loopbreak(base);
        return;
    }
    printf("%u\n", count);
    fflush(stdout);
    if (--interrupts_left > 0 && write(fd, &on, sizeof on) != sizeof on)
        event_base_loopbreak(base);
}

int main(int argc, char **argv)
{
    struct event_base *base = event_base_new();
    struct event *event;
    const int fd = argc == 3 ? open(argv[1], O_RDWR | O_CLOEXEC | O_NONBLOCK) : -1;
    if (fd < 0 || !base)
        return 1;
    interrupts_left = atoi(argv[2]);
    event = event_new(base, fd, EV_READ | EV_PERSIST, interrupted, base);
    /* Maps it only now, as its user may. */
    if (!event || event_add(event, NULL) != 0 || write(fd, &on, sizeof on) != sizeof on ||
        mmap(NULL, 4096, PROT_READ, MAP_SHARED, fd, 0) == MAP_FAILED)
        return 1;
    event_base_dispatch(base);
    return 0;
}

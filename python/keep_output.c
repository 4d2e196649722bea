/*
 * Keeps what C code prints. While any thread wants that, C's standard streams, which this C library
 * lets a program set, are two that write into the memory of the thread that prints; what other
 * threads print goes where it went before.
 *
 * Also defines libuio_log, which the library looks for when it is loaded: so the modules that use
 * it get its diagnostics, and keep them.
 */
#define _GNU_SOURCE
#include "keep_output.h"

#include <errno.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

__attribute__((visibility("default"))) char libuio_log;

static struct {
    FILE *kept;
    FILE *program; /* the stream in place of which it stands */
} out, err;

static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static int users;

static __thread struct {
    char *text;
    size_t length;
    size_t room;
    int depth; /* calls of keep_output() that have not ended */
} mine;

static int has_room_for(size_t size)
{
    if (mine.room - mine.length >= size)
        return 1;
    const size_t wanted = 2 * mine.room + size;
    char *const larger = realloc(mine.text, wanted);
    if (!larger)
        return 0;
    mine.text = larger;
    mine.room = wanted;
    return 1;
}

static ssize_t take(void *stream, const char *text, size_t size)
{
    if (mine.depth == 0) {
        FILE *const program = stream == &out ? out.program : err.program;
        return (ssize_t)fwrite(text, 1, size, program);
    }
    if (has_room_for(size)) {
        memcpy(mine.text + mine.length, text, size);
        mine.length += size;
    }
    return (ssize_t)size;
}

static FILE *open_kept(void *stream)
{
    FILE *const kept = fopencookie(stream, "w", (cookie_io_functions_t){.write = take});
    if (kept)
        setvbuf(kept, NULL, _IONBF, 0);
    return kept;
}

static void replace_streams(void)
{
    if (!out.kept)
        out.kept = open_kept(&out);
    if (!err.kept)
        err.kept = open_kept(&err);
    out.program = stdout;
    err.program = stderr;
    if (out.kept)
        stdout = out.kept;
    if (err.kept)
        stderr = err.kept;
}

size_t keep_output(void)
{
    if (mine.depth++ == 0) {
        mine.length = 0;
        pthread_mutex_lock(&lock);
        if (users++ == 0)
            replace_streams();
        pthread_mutex_unlock(&lock);
    }
    return mine.length;
}

static char *copy_from(size_t mark)
{
    char *const text = malloc(mine.length - mark);
    if (text)
        memcpy(text, mine.text + mark, mine.length - mark);
    return text;
}

static char *give_away(void)
{
    char *const text = mine.text;
    mine.text = NULL;
    mine.room = 0;
    return text;
}

char *kept_output(size_t mark, size_t *length)
{
    const int error = errno;
    if (--mine.depth == 0) {
        pthread_mutex_lock(&lock);
        if (--users == 0) {
            stdout = out.program;
            stderr = err.program;
        }
        pthread_mutex_unlock(&lock);
    }
    *length = mine.length - mark;
    char *const text = *length == 0 ? NULL : mine.depth == 0 ? give_away() : copy_from(mark);
    mine.length = mark;
    errno = error;
    return text;
}

/* Keeps what C code prints on the standard streams, for the thread that asks for it. */
#ifndef DEVICE_ACCESS_PYTHON_KEEP_OUTPUT_H
#define DEVICE_ACCESS_PYTHON_KEEP_OUTPUT_H

#include <stddef.h>

/* From now on, what this thread prints is kept. Returns a mark for kept_output(). May be nested. */
size_t keep_output(void);

/*
 * Ends that, and gives what was printed since the mark was made: a block of length bytes, to be
 * released with free(); NULL when there is nothing, or no memory for it. Never changes errno.
 */
char *kept_output(size_t mark, size_t *length);

#endif

/* Listing and reading the POST logs, whichever way they are reached. */
#ifndef DEMO_POST_WALK_H
#define DEMO_POST_WALK_H

#include <device_access/post_log_nvram.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Lists a log's histories, newest first, and leaves the block open. Returns the newest, or < 0. */
int list_histories(log_type_t blk);

/* Opens a history and prints its entries; leaves the block open. */
void read_history(log_type_t blk, int history);

#ifdef __cplusplus
}
#endif

#endif

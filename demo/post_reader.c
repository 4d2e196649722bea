/*
 * Reads the firmware's POST logs through device files: lists each log's histories, reads the newest
 * entry by entry, and dumps the whole log.
 */
#include "post_walk.h"

#include <stdio.h>

int main(void)
{
    postlog_map_def_nvram_access();
    for (int number = OFWEVENT_LOG; number <= OFWDIAG_ERROR_LOG; ++number) {
        const log_type_t blk = (log_type_t)number;
        const int newest = list_histories(blk);
        if (newest < 0)
            return 1;
        postlog_nvram_close_dir(blk); /* a device file is opened once at a time */
        read_history(blk, newest);
        postlog_nvram_close_log(blk, newest);
        printf("dump:\n");
        if (postlog_nvram_dump_all_log_msgs(blk) != 1)
            return 1;
    }
    return 0;
}

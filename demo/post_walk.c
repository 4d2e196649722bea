#include "post_walk.h"

#include <stdio.h>

static const char *const titles[] = {"event log", "diagnostic test log", "diagnostic error log"};

static void print_time(time_t time)
{
    char text[32];
    struct tm utc;
    strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", gmtime_r(&time, &utc));
    printf("%s", text);
}

int list_histories(log_type_t blk)
{
    const int newest = postlog_nvram_open_dir(blk);
    printf("%s: newest history %d\n", titles[blk], newest);
    for (int history = newest; history >= 0;) {
        time_t time = 0;
        const int older = postlog_nvram_read_dir(blk, history, &time);
        printf("  history %d of ", history);
        print_time(time);
        printf("\n");
        history = older;
    }
    return newest;
}

void read_history(log_type_t blk, int history)
{
    int position = postlog_nvram_open_log(blk, history);
    printf("  entries of history %d:\n", history);
    while (position >= 0) {
        char message[256] = "";
        time_t time = 0;
        const int next = postlog_nvram_read_log(blk, position, &time, message, sizeof message - 1);
        if (next == -1)
            return;
        printf("    at %d, ", position);
        print_time(time);
        printf(": %s\n", message);
        position = next;
    }
}

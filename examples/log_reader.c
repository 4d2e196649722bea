/*
 * A log reader: prints a card's POD log, or one of the firmware's POST logs, newest history first.
 *
 * log_reader_c CARD | event | test | error     CARD: of the slot table, such as SW1
 *
 * card_reader.c reads those that the slot table lacks, too.
 */
#include <device_access/pod_log.h>
#include <device_access/post_log_nvram.h>

#include <stdio.h>
#include <string.h>

enum { most_histories = 32 };

static void print_entry(int history, time_t time, const char *message)
{
    char text[32];
    strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", gmtime(&time));
    printf("%d  %s  %s\n", history, text, message);
}

/* A log is walked first and its histories are read afterwards: it is opened once at a time. */
static int read_card(const char *card)
{
    int count = 0, histories[most_histories];
    time_t time;
    int history = podlog_open_dir(card);
    const int is_open = history >= 0;
    while (history >= 0 && count < most_histories) {
        histories[count++] = history;
        history = podlog_read_dir(history, &time);
    }
    if (is_open)
        podlog_close_dir(card);
    for (int i = 0; i < count; ++i) {
        int position = podlog_open_log(card, histories[i]);
        while (position > 0) {
            char message[128] = "";
            position = podlog_read_log(position, &time, message, sizeof message - 1);
            if (position != -1)
                print_entry(histories[i], time, message);
        }
        podlog_close_log(card, histories[i]);
    }
    return history == -1 ? 1 : 0;
}

static int read_post_log(log_type_t log)
{
    int count = 0, histories[most_histories];
    time_t time;
    postlog_map_def_nvram_access();
    int history = postlog_nvram_open_dir(log);
    while (history >= 0 && count < most_histories) {
        histories[count++] = history;
        history = postlog_nvram_read_dir(log, history, &time);
    }
    postlog_nvram_close_dir(log);
    for (int i = 0; i < count; ++i) {
        int position = postlog_nvram_open_log(log, histories[i]);
        while (position >= 0) {
            char message[256] = "";
            position = postlog_nvram_read_log(log, position, &time, message, sizeof message - 1);
            if (position != -1)
                print_entry(histories[i], time, message);
        }
        postlog_nvram_close_log(log, histories[i]);
    }
    return history == -1 ? 1 : 0;
}

int main(int argc, char **argv)
{
    static const char *const post_logs[] = {"event", "test", "error"};
    const char *log = argc > 1 ? argv[1] : "SW1";
    for (int i = OFWEVENT_LOG; i <= OFWDIAG_ERROR_LOG; ++i)
        if (strcmp(log, post_logs[i]) == 0)
            return read_post_log((log_type_t)i);
    podlog_config_pod_storage_n20_n10(ChassisType_N20, 0);
    return read_card(log);
}

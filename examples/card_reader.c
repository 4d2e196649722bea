/*
 * Prints the POD log of any card of the registry, those that the slot table lacks too: it is read
 * where the registry says that it is kept.
 *
 * card_reader_c [CARD]     CARD: such as SW3; all cards unless given
 */
#include <device_access/pod_log.h>
#include <device_access/pod_log_file.h>
#include <device_access/pod_log_nvram.h>

#include <stdio.h>
#include <string.h>

enum { most_histories = 32 };

/* How a storage is read, by its pod_storage_type_t. */
static const struct {
    int (*open_dir)(int id);
    int (*read_dir)(int id, int history, time_t *time);
    int (*open_log)(int id, int history);
    int (*read_log)(int id, int offset, time_t *time, char *message, uint32_t size);
    void (*close)(int id);
} storages[] = {
    {podlog_nvram_open_dir, podlog_nvram_read_dir, podlog_nvram_open_log, podlog_nvram_read_log,
     podlog_nvram_close},
    {podlog_file_open_dir, podlog_file_read_dir, podlog_file_open_log, podlog_file_read_log,
     podlog_file_close},
};

/* What a call has opened is closed; what it could not open may be open for somebody else. */
static int read_card(const storage_info_t *card)
{
    const int id = card->storage_inst_id, type = card->type;
    int count = 0, histories[most_histories];
    time_t time;
    if (type != PODSTORAGE_NVRAM && type != PODSTORAGE_FILE)
        return 1;
    int history = storages[type].open_dir(id);
    const int is_open = history >= 0;
    while (history >= 0 && count < most_histories) {
        histories[count++] = history;
        history = storages[type].read_dir(id, history, &time);
    }
    if (is_open)
        storages[type].close(id);
    for (int i = 0; i < count; ++i) {
        int position = storages[type].open_log(id, histories[i]);
        if (position <= 0)
            continue;
        while (position > 0) {
            char message[128] = "";
            position = storages[type].read_log(id, position, &time, message, sizeof message - 1);
            if (position != -1)
                printf("%s  %d  %s\n", card->inst_name, histories[i], message);
        }
        storages[type].close(id);
    }
    return history == -1;
}

int main(int argc, char **argv)
{
    int status = 0;
    podlog_config_pod_storage_n20_n10(ChassisType_N20, 0);
    if (argc > 1) {
        storage_info_t card;
        if (podlog_find_pod_storage(argv[1], &card) != 1)
            return fprintf(stderr, "the registry has no %s\n", argv[1]), 1;
        return read_card(&card);
    }
    pod_storage_info_t table;
    podlog_get_pod_storage_table(&table);
    for (int row = 0; row < table.num_storage; ++row)
        status |= read_card(&table.dev[row]);
    return status;
}

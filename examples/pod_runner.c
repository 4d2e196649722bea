/*
 * A POD runner: logs one run of a card's power-on diagnostics, and sets the card's status.
 *
 * pod_runner_c CARD STEP=RESULT...     CARD: such as SW3; RESULT: PASS, else it is a failure
 */
#include <device_access/pod_log.h>
#include <device_access/pod_log_nvram.h>

#include <stdio.h>
#include <string.h>

static char info[] = "INFO: ";
static char error[] = "ERROR: ";

/* Logs "STEP=RESULT". Returns whether it passed. */
static int log_step(int card, const char *step_and_result)
{
    char step[40] = "";
    const size_t length = strcspn(step_and_result, "=");
    memcpy(step, step_and_result, length < sizeof step ? length : sizeof step - 1);
    const char *result = step_and_result + length + (step_and_result[length] == '=');
    const int passed = strcmp(result, "PASS") == 0;
    if (podlog_add(card, passed ? info : error, step, result, "step of %zu letters", length) != 1)
        fprintf(stderr, "cannot log step %s\n", step);
    return passed;
}

/*
 * Cards that the slot table lacks, such as SW3, all have the id -1, with which the calls reach the
 * first of them. Here each gets an id of its own.
 */
static void give_every_card_an_id(void)
{
    enum { first_id = 1000 }; /* above all slot numbers */
    pod_storage_info_t table;
    pod_nvram_inst_map_t words;
    podlog_get_pod_storage_table(&table);
    podlog_nvram_get_inst_mapping(0, &words);
    for (int row = 0; row < table.num_storage; ++row) {
        storage_info_t *card = &table.dev[row];
        if (card->inst_id != -1)
            continue;
        card->inst_id = first_id + row;
        for (int i = 0; i < words.num_inst; ++i)
            if (strcmp(words.name0[i], card->inst_name) == 0)
                words.index0[i] = card->inst_id;
    }
    podlog_config_pod_storage_info(&table);
    podlog_nvram_config_inst_mapping(0, &words);
}

/* The status words are in the route processor's NVRAM. */
static void set_status(int card, int passed)
{
    const int nvram = 0;
    if (podlog_nvram_init(nvram, 0) != 1)
        return;
    podlog_set_pod_status(card, (int)(passed ? POD_STATUS_PASSED : POD_STATUS_FAILED));
    printf("status: %s\n", podlog_nvram_convert_pod_status_str(podlog_get_pod_status(card)));
    podlog_nvram_close(nvram);
}

int main(int argc, char **argv)
{
    static char sw1[] = "SW1";
    char *name = argc > 1 ? argv[1] : sw1;
    int card;

    podlog_config_pod_storage_n20_n10(ChassisType_N20, 0);
    give_every_card_an_id();
    if (podlog_find_pod_instance(name, &card) != 1 || podlog_set_curr_active_inst(card, 0) != 0 ||
        podlog_init(card, 0) != 1) {
        fprintf(stderr, "cannot run the diagnostics of %s\n", name);
        return 1;
    }
    int passed = 1;
    for (int i = 2; i < argc; ++i)
        passed &= log_step(card, argv[i]);
    podlog_use_nxt_log(card);
    podlog_close(card);
    podlog_clr_curr_active_inst(card, !passed);
    set_status(card, passed);
    return passed ? 0 : 1;
}

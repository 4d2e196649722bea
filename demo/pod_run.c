/*
 * A power-on-diagnostics run and its readers: the registry is configured for a chassis, a run of
 * the route processor logs to NVRAM, one of a switch card to its file and, copied at the end, to
 * the card's EEPROM; then the histories are read back, newest first, and POD status words shown.
 */
#include <device_access/pod_log.h>
#include <device_access/pod_log_nvram.h>

#include <stdio.h>
#include <string.h>

/* The switch card's EEPROM; a real client reaches the card here. */
static uint8_t eeprom[16384];

static int eeprom_read(uint32_t offset, uint8_t *buffer, uint32_t num_byte)
{
    if (offset > sizeof eeprom || num_byte > sizeof eeprom - offset)
        return 0;
    memcpy(buffer, eeprom + offset, num_byte);
    return (int)num_byte;
}

static int eeprom_write(uint32_t offset, uint8_t *buffer, uint32_t num_byte)
{
    if (offset > sizeof eeprom || num_byte > sizeof eeprom - offset)
        return 0;
    memcpy(eeprom + offset, buffer, num_byte);
    return (int)num_byte;
}

/* One run of a card's diagnostics. */
static int run_diagnostics(const char *name, int inst_id, int run)
{
    static char info[] = "INFO: ";
    static char error[] = "ERROR: ";
    static char memory[] = "memory test";
    static char fabric[] = "fabric link";
    if (podlog_set_curr_active_inst(inst_id, 0) != 0 || podlog_init(inst_id, 0) != 1)
        return -1;
    printf("%s, run %d: storage open, claimed for instance %d\n", name, run,
           podlog_get_active_inst_id());
    podlog_add(inst_id, info, memory, "PASS", "%d MiB at 0x%llx", 512 * run, 0x100000000ull);
    podlog_add(inst_id, error, fabric, "FAIL", "lane %d: %s, %d%% errors", run, "no lock", 7);
    if (run > 1)
        podlog_add(inst_id, info, NULL, NULL, "retry passed");
    podlog_use_nxt_log(inst_id);
    podlog_close(inst_id);
    podlog_clr_curr_active_inst(inst_id, 0);
    return 0;
}

static void print_entry(const char *msg, time_t ts)
{
    char when[32];
    strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S", gmtime(&ts));
    printf("    %s  %s\n", when, msg);
}

/* A card whose name the slot table knows is read by its name. */
static void read_card(const char *card)
{
    int histories[16];
    int count = 0;
    time_t ts;
    printf("%s by name, newest history first:\n", card);
    for (int h = podlog_open_dir(card); h >= 0 && count < 16; h = podlog_read_dir(h, &ts))
        histories[count++] = h;
    podlog_close_dir(card);
    for (int i = 0; i < count; ++i) {
        char msg[65] = "";
        printf("  history %d\n", histories[i]);
        int offset = podlog_open_log(card, histories[i]);
        while (offset > 0) {
            offset = podlog_read_log(offset, &ts, msg, sizeof msg - 1);
            if (offset != -1)
                print_entry(msg, ts);
        }
        podlog_close_log(card, histories[i]);
    }
}

/* The route processors have no slot names; their NVRAM is read through its own calls. */
static void read_nvram(int nvram_id)
{
    int histories[16];
    int count = 0;
    time_t ts;
    printf("NVRAM %d, newest history first:\n", nvram_id);
    for (int h = podlog_nvram_open_dir(nvram_id); h >= 0 && count < 16;
         h = podlog_nvram_read_dir(nvram_id, h, &ts))
        histories[count++] = h;
    podlog_nvram_close_dir(nvram_id);
    for (int i = 0; i < count; ++i) {
        printf("  history %d\n", histories[i]);
        int offset = podlog_nvram_open_log(nvram_id, histories[i]);
        while (offset > 0) {
            char msg[65] = "";
            offset = podlog_nvram_read_log(nvram_id, offset, &ts, msg, sizeof msg - 1);
            if (offset != -1)
                print_entry(msg, ts);
        }
        podlog_nvram_close_log(nvram_id, histories[i]);
    }
}

/* Status words and fault flags are in the NVRAM, for as long as it is open. */
static void show_status(int nvram_id, int inst_id)
{
    podlog_nvram_init(nvram_id, 0);
    podlog_set_pod_status(inst_id, 0);
    printf("SW1: %s", podlog_nvram_convert_pod_status_str(podlog_get_pod_status(inst_id)));
    podlog_set_pod_status(inst_id, 0x0FFFFFFF);
    printf(", then %s", podlog_nvram_convert_pod_status_str(podlog_get_pod_status(inst_id)));
    podlog_invalidate_pod_status(inst_id);
    printf(", then %s\n", podlog_nvram_convert_pod_status_str(podlog_get_pod_status(inst_id)));
    printf("a POD failure injected for it:\n");
    podlog_faultinject_pod_status(inst_id, 0);
    nvram_disp_faultinject_status(nvram_id);
    printf("and cleared:\n");
    podlog_nvram_clr_all_faultinject(nvram_id);
    nvram_disp_faultinject_status(nvram_id);
    podlog_nvram_close(nvram_id);
}

int main(void)
{
    static char rp_name[] = "RPSW1";
    static char sw_name[] = "SW1";
    int rp;
    int sw;
    setvbuf(stdout, NULL, _IOLBF, 0);
    podlog_config_pod_storage_n20_n10(ChassisType_N20, 0);
    if (podlog_find_pod_instance(rp_name, &rp) != 1 || podlog_find_pod_instance(sw_name, &sw) != 1)
        return 1;
    podlog_bind_secondary_log_access_func(sw, eeprom_read, eeprom_write);

    for (int run = 1; run <= 2; ++run)
        if (run_diagnostics(rp_name, rp, run) != 0 || run_diagnostics(sw_name, sw, run) != 0)
            return 1;
    read_nvram(0);
    read_card(sw_name);

    printf("copy of SW1's newest history to its EEPROM: %d\n",
           podlog_cpy_curr_subblock_to_secondary(sw));
    printf("what the EEPROM holds now:\n");
    podlog_eeprom_dump_all_log_msgs(2);
    show_status(0, sw);
    podlog_unbind_secondary_log_access_func(sw);
    return 0;
}

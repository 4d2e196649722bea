/*
 * Copies the newest history of a card's POD log to the EEPROM on the card, and prints what is there
 * then. The EEPROM is a file here; a real client reaches the card in the two functions.
 *
 * eeprom_copy_c FILE [CARD]    CARD: "SW1" unless given
 */
#define _POSIX_C_SOURCE 200809L /* for strict C, which leaves out what POSIX adds */

#include <device_access/pod_log.h>
#include <device_access/pod_log_eeprom.h>

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

static int file;

static int read_eeprom(uint32_t offset, uint8_t *buffer, uint32_t num_byte)
{
    return (int)pread(file, buffer, num_byte, (off_t)offset);
}

static int write_eeprom(uint32_t offset, uint8_t *buffer, uint32_t num_byte)
{
    return (int)pwrite(file, buffer, num_byte, (off_t)offset);
}

int main(int argc, char **argv)
{
    static char default_card[] = "SW1";
    char *card = argc > 2 ? argv[2] : default_card;
    pod_secondary_storage_type_t type;
    int id, eeprom, row;
    if (argc < 2 || (file = open(argv[1], O_RDWR | O_CREAT, 0644)) < 0 ||
        ftruncate(file, 16384) != 0) {
        perror(argc < 2 ? "which file?" : argv[1]);
        return 1;
    }
    podlog_config_pod_storage_n20_n10(ChassisType_N20, 0);
    if (podlog_find_pod_instance(card, &id) != 1 ||
        podlog_get_pod_secondary_storage_info(id, &type, &eeprom, &row) != 1 ||
        podlog_bind_secondary_log_access_func(id, read_eeprom, write_eeprom) != 1 ||
        podlog_cpy_curr_subblock_to_secondary(id) == -1) {
        fprintf(stderr, "cannot copy the log of %s\n", card);
        return 1;
    }
    podlog_eeprom_dump_all_log_msgs(eeprom);
    podlog_unbind_secondary_log_access_func(id);
    return 0;
}

/*
 * A small inventory: for each card slot a file with the card's serial number and product code as
 * the diagnostics software last recorded them, so that they can be told without touching the card.
 *
 * Slots are named as in slot_names.h, in any case, with the chassis type in force. The files are
 * "/flash/diags/SLOT.div", SLOT being the table's name of the slot; names beginning "rpsw" or
 * "RPSW" are not looked up and share "/var/log/diags/RPSW.div". A name the slot table lacks is
 * reported and then has no file: opening it fails.
 *
 * Messages go to standard error and begin "DIAG's INVENTORY: ". errno is that of the failing open
 * where one failed. Slot names must not be NULL.
 *
 * Threads: no call keeps state; calls for the same slot, and stores, must not overlap.
 */
#ifndef DEVICE_ACCESS_DIAG_INVENTORY_H
#define DEVICE_ACCESS_DIAG_INVENTORY_H

#include <stdint.h>

#include <device_access/device_access_api.h>

DEVICE_ACCESS_BEGIN_DECLS

/* A record, and the whole content of a file: 29 bytes. */
typedef struct diag_inventory_s {
    char magicWord[5];   /* "DiIn" and a NUL */
    char formatRev[5];   /* "0001" and a NUL */
    uint8_t serNo[14];   /* serial number; need not be terminated */
    uint8_t prodCode[5]; /* product code; need not be terminated */
} diag_inventory_t;

/*
 * Write a slot's record, and a second copy to "/flash/diags/aaa", which each store overwrites. The
 * directories must be there. What is printed includes the opening of the second copy.
 *
 * pContent: the record; its magicWord and formatRev are filled in here.
 *
 * Returns 1 when the slot's file was opened (writing is not checked), else 0, whatever became of
 * the second copy.
 */
DEVICE_ACCESS_API int diag_inventory_store(const char *slotName, diag_inventory_t *pContent);

/*
 * Read a slot's record. Returns 1 when it is whole and of the known kind; else 0 with a message,
 * and pContent keeps whatever was read.
 */
DEVICE_ACCESS_API int diag_inventory_get_all(const char *slotName, diag_inventory_t *pContent);

/*
 * Copy the 14 bytes of a slot's serial number to pBuff, without a terminator. size: bytes of pBuff,
 * at least 14. Returns 1; 0 with a message when there is no valid record or no room.
 */
DEVICE_ACCESS_API int diag_inventory_get_serno(const char *slotName, uint8_t *pBuff, int size);

/*
 * Copy 5 bytes to pBuff: the first 5 of the serial number, not those of prodCode; diagnostics rely
 * on it. size: bytes of pBuff, at least 5. Returns 1; 0 with a message when there is no valid
 * record or no room.
 */
DEVICE_ACCESS_API int diag_inventory_get_prod_code(const char *slotName, uint8_t *pBuff, int size);

/* Delete a slot's file, if there is one. Returns 1. */
DEVICE_ACCESS_API int diag_inventory_clear(const char *slotName);

/*
 * Make the two directories, with mode 0700, and delete the files of the route processors and of
 * alsw1, alsw2 and sw1 to sw4; names among these that the slot table lacks are reported. Returns 1.
 */
DEVICE_ACCESS_API int diag_inventory_clear_all(void);

DEVICE_ACCESS_END_DECLS

#endif

/*
 * The life of inventory records: make the directories, store a switch card's and a route
 * processor's record, read them back, clear one.
 */
#include <device_access/diag_inventory.h>

#include <stdio.h>
#include <string.h>

static int store(const char *slot, const char *serial, const char *product)
{
    diag_inventory_t record;
    memcpy(record.serNo, serial, sizeof record.serNo);
    memcpy(record.prodCode, product, sizeof record.prodCode);
    const int stored = diag_inventory_store(slot, &record);
    printf("stored %s: %d\n", slot, stored);
    return stored;
}

static void show(const char *slot)
{
    diag_inventory_t record;
    uint8_t serial[14];
    uint8_t product[5];
    if (!diag_inventory_get_all(slot, &record)) {
        printf("%s: no record\n", slot);
        return;
    }
    printf("%s: %s %s, product code %.5s", slot, record.magicWord, record.formatRev,
           (const char *)record.prodCode);
    if (diag_inventory_get_serno(slot, serial, sizeof serial))
        printf("; serial number %.14s", (const char *)serial);
    if (diag_inventory_get_prod_code(slot, product, sizeof product))
        printf("; product code call %.5s", (const char *)product);
    printf("\n");
}

int main(void)
{
    setvbuf(stdout, NULL, _IOLBF, 0);
    diag_inventory_clear_all();
    if (!store("sw1", "FX0123456789AB", "SW-4A") || !store("RPSW2", "FX9876543210ZY", "RP-2B"))
        return 1;
    show("SW1");
    show("rpsw1"); /* the route processors share a record */
    printf("cleared sw1: %d\n", diag_inventory_clear("sw1"));
    show("SW1");
    return 0;
}

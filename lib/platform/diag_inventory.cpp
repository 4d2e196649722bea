// The diagnostic inventory: a file for each slot.
#include <device_access/diag_inventory.h>

#include "lib/base/errors.h"
#include "lib/base/print.h"
#include "lib/base/unique_fd.h"

#include <device_access/slot_names.h>

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <initializer_list>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace device_access;

namespace
{

constexpr char magic_word[5] = "DiIn";
constexpr char format_rev[5] = "0001";

static_assert(sizeof(diag_inventory_t) == 29);
static_assert(offsetof(diag_inventory_t, formatRev) == 5);
static_assert(offsetof(diag_inventory_t, serNo) == 10);
static_assert(offsetof(diag_inventory_t, prodCode) == 24);

struct inv_file_name {
    char str[128];
};

// The path of a slot's file; empty, so that it cannot be opened, when there is no such slot.
inv_file_name get_inv_file_name(const char *slotName)
{
    if (std::strncmp(slotName, "rpsw", 4) == 0 || std::strncmp(slotName, "RPSW", 4) == 0)
        return {"/var/log/diags/RPSW.div"};
    inv_file_name path = {};
    const SLOT_INFO *slot = GetSlotByName(slotName);
    if (slot->slotN != -1)
        std::snprintf(path.str, sizeof path.str, "/flash/diags/%s.div", slot->slot_name);
    else
        print_error("DIAG's INVENTORY: Invalid slot name %s\n", slotName);
    return path;
}

unique_fd open_for_writing(const char *path)
{
    return unique_fd(::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
}

void write_record(const unique_fd &file, const diag_inventory_t &record)
{
    static_cast<void>(!::write(file.get(), &record, sizeof record)); // success is not promised
}

void diag_inventory_crt(const char *slotName)
{
    ::unlink(get_inv_file_name(slotName).str);
}

// Copies the first size bytes of the serial number.
int copy_from_serno(const char *slotName, uint8_t *pBuff, int room, int size)
{
    diag_inventory_t record;
    if (!diag_inventory_get_all(slotName, &record))
        return 0;
    if (room < size)
        return REFUSE(print_error, 0, "DIAG's INVENTORY: not enough memory for serial number\n");
    std::memcpy(pBuff, record.serNo, static_cast<size_t>(size));
    return 1;
}

} // namespace

int diag_inventory_store(const char *slotName, diag_inventory_t *pContent)
{
    std::memcpy(pContent->magicWord, magic_word, sizeof magic_word);
    std::memcpy(pContent->formatRev, format_rev, sizeof format_rev);
    const inv_file_name path = get_inv_file_name(slotName);

    print_error("DIAG's INVENTORY: openning aaa !\n");
    if (const unique_fd copy = open_for_writing("/flash/diags/aaa")) {
        print_error("DIAG's INVENTORY: aaa opened!\n");
        write_record(copy, *pContent);
    } else {
        print_error("DIAG's INVENTORY: cannot open inventory aaa!\n");
    }

    const unique_fd file = open_for_writing(path.str);
    if (!file)
        return REFUSE(print_error, 0, "DIAG's INVENTORY: cannot open inventory %s!\n", path.str);
    write_record(file, *pContent);
    return 1;
}

int diag_inventory_get_all(const char *slotName, diag_inventory_t *pContent)
{
    const inv_file_name path = get_inv_file_name(slotName);
    const unique_fd file(::open(path.str, O_RDONLY | O_CLOEXEC));
    if (!file)
        return REFUSE(print_error, 0, "DIAG's INVENTORY: cannot open inventory %s\n", path.str);
    if (::read(file.get(), pContent, sizeof *pContent) == sizeof *pContent &&
        std::memcmp(pContent->magicWord, magic_word, sizeof magic_word) == 0 &&
        std::memcmp(pContent->formatRev, format_rev, sizeof format_rev) == 0)
        return 1;
    return REFUSE(print_error, 0, "DIAG's INVENTORY: inventory %s is corrupted\n", path.str);
}

int diag_inventory_get_serno(const char *slotName, uint8_t *pBuff, int size)
{
    return copy_from_serno(slotName, pBuff, size, sizeof(diag_inventory_t::serNo));
}

int diag_inventory_get_prod_code(const char *slotName, uint8_t *pBuff, int size)
{
    return copy_from_serno(slotName, pBuff, size, sizeof(diag_inventory_t::prodCode));
}

int diag_inventory_clear(const char *slotName)
{
    diag_inventory_crt(slotName);
    return 1;
}

int diag_inventory_clear_all(void)
{
    ::mkdir("/var/log/diags", 0700);
    diag_inventory_crt("rpsw");
    ::mkdir("/flash/diags", 0700);
    for (const char *slotName : {"alsw1", "alsw2", "sw1", "sw2", "sw3", "sw4"})
        diag_inventory_crt(slotName);
    return 1;
}

// The secondary storage of a card's POD log, an EEPROM: bound, switched to, copied to.
#include <device_access/pod_log.h>

#include <device_access/pod_log_eeprom.h>

#include "lib/base/errors.h"
#include "lib/base/print.h"
#include "lib/base/unique_malloc.h"
#include "lib/podlog/registry.h"

#include <algorithm>
#include <cstring>

using namespace device_access;

namespace
{

// Room for one entry as either end of the copy takes it, and a NUL after its text.
unique_malloc<uint8_t> make_entry_buffer(const storage_info_t *row)
{
    const pod_log_ring source = primary_log(row);
    const pod_log_ring target = eeprom_ring(row->secondary_storage_inst_id);
    const size_t size = std::max(source ? source.raw_entry_size() : 0, target.raw_entry_size());
    return unique_malloc<uint8_t>(static_cast<uint8_t *>(std::calloc(1, size + 1)));
}

// Whether a raw read has filled the header of an entry that was blank before: no valid one is.
bool has_entry(const uint8_t *entry)
{
    return std::any_of(entry, entry + sizeof(pod_entry), [](uint8_t byte) { return byte != 0; });
}

// The last entry is read even when what follows it cannot be.
int copy_entries(const char *func, const storage_info_t *row, int offset)
{
    const unique_malloc<uint8_t> entry = make_entry_buffer(row);
    if (!entry)
        return -1;
    pod_log_ring target = eeprom_ring(row->secondary_storage_inst_id);
    for (int count = 0; offset > 0; ++count) {
        std::memset(entry.get(), 0, sizeof(pod_entry));
        offset = podlog_read_raw_log(offset, entry.get());
        if (!has_entry(entry.get()))
            return -1;
        if (target.add_raw_log(entry.get()) == -1)
            return REFUSE(print_error, -1,
                          "ERROR: %s: faild to write %dth log to the secondary storage!\n", func,
                          count);
    }
    return 1;
}

// Moves the secondary storage, opened by the copy, to its next history and closes it.
int close_secondary_history(const char *func, const storage_info_t *row, int result)
{
    pod_log_ring target = eeprom_ring(row->secondary_storage_inst_id);
    if (target.use_nxt_log() == -1)
        result =
            REFUSE(print_error, -1,
                   "ERROR: %s: faild to increment to next history for secondary storage!\n", func);
    target.close();
    return result;
}

} // namespace

int podlog_bind_secondary_log_access_func(int inst_id, mem_access_fp_t rd_fp, mem_access_fp_t wr_fp)
{
    const storage_info_t *row = find_secondary_or_report(__func__, inst_id);
    if (!row)
        return -1;
    podlog_bind_eeprom_access_func(row->secondary_storage_inst_id, rd_fp, wr_fp);
    return 1;
}

int podlog_unbind_secondary_log_access_func(int inst_id)
{
    const storage_info_t *row = find_secondary_or_report(__func__, inst_id);
    if (!row)
        return -1;
    podlog_unbind_eeprom_access_func(row->secondary_storage_inst_id);
    return 1;
}

int podlog_select_primary_secondary_storage(int inst_id, int use_primary)
{
    const storage_info_t *row = find_secondary_or_report(__func__, inst_id);
    if (!row)
        return -1;
    uses_primary(row) = use_primary;
    return 1;
}

int podlog_cpy_curr_subblock_to_secondary(int inst_id)
{
    storage_info_t *const row = find_instance(inst_id);
    if (!row)
        return invalid_instance(__func__, inst_id);
    if (row->secondary_storage_type == POD2NDSTORAGE_NONE)
        return 1;
    const char *const name = row->inst_name;

    uses_primary(row) = 0;
    if (podlog_init(inst_id, 0) == -1)
        return REFUSE(print_error, -1, "ERROR: %s: failed to open device for instance %d!\n",
                      __func__, inst_id);
    uses_primary(row) = 1;
    const int history = podlog_open_dir(name);
    podlog_close_dir(name);
    if (history == -1)
        return REFUSE(print_error, -1, "ERROR: failed when opening the storage device!\n");
    if (history == -2)
        print_output("No log!\n");

    int result = copy_entries(__func__, row, podlog_open_log(name, history));
    result = close_secondary_history(__func__, row, result);
    const int closed = podlog_close_log(name, history);
    if (closed != 1)
        return REFUSE(print_error, closed, "ERROR: %s: faild to close podlog rtn_close=%d\n",
                      __func__, closed);
    return result;
}

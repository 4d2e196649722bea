// The POD log in EEPROMs, through functions that the client binds.
#include <device_access/pod_log_eeprom.h>

#include "lib/podlog/ring.h"

#include <iterator>

namespace
{

using namespace device_access;

struct eeprom_dev_info_t {
    char name[40];
    int attr = 2;
    int mem_size = 8192;
    int num_subblock = 2;
    int msg_size = 64;
    uint32_t log_align_msk = 0xFFFFFFFF;
    int subblock_size = 0; // computed by init
    mem_access_fp_t rd_fp = nullptr;
    mem_access_fp_t wr_fp = nullptr;
};

eeprom_dev_info_t eeproms[] = {
    {"pod_card_eeprom_alsw1"}, {"pod_card_eeprom_alsw2"}, {"pod_card_eeprom_sw1"},
    {"pod_card_eeprom_sw2"},   {"pod_card_eeprom_sw3"},   {"pod_card_eeprom_sw4"},
};

eeprom_dev_info_t nowhere = {""}; // stands for every id without EEPROM

bool has_eeprom(int eeprom_id)
{
    return eeprom_id >= 0 && eeprom_id < static_cast<int>(std::size(eeproms));
}

eeprom_dev_info_t &row_of(int eeprom_id)
{
    return has_eeprom(eeprom_id) ? eeproms[eeprom_id] : nowhere;
}

// The functions are only asked for what an int can address.
bool can_address(int64_t position, uint32_t size)
{
    return position >= 0 && position + size <= INT32_MAX;
}

//--- the storage ----------------------------------------------------------------------------------

class eeprom_storage final : public pod_storage
{
public:
    constexpr eeprom_storage()
        : pod_storage({.kind = "eeprom",
                       .index_size = sizeof(eeprom_log_index_t),
                       .first_header = 44,
                       .status_position = 32,
                       .index_sets_distance = true,
                       .dumps_epoch = true,
                       .announces_start = false,
                       .reports_failed_dump = false},
                      0x1FE2C363)
    {
    }

    pod_shape shape(int eeprom_id) const override { return shape_of(row_of(eeprom_id)); }
    bool open(int eeprom_id, bool rdonly) override;
    void close(int) override {}
    int mem_rd(int eeprom_id, int64_t position, void *data, uint32_t size) override;
    int mem_wr(int eeprom_id, int64_t position, const void *data, uint32_t size) override;
};

constinit eeprom_storage storage;

bool eeprom_storage::open(int eeprom_id, bool)
{
    if (!has_eeprom(eeprom_id))
        return false;
    compute_subblock_size(row_of(eeprom_id), 32);
    return true;
}

int eeprom_storage::mem_rd(int eeprom_id, int64_t position, void *data, uint32_t size)
{
    const mem_access_fp_t rd_fp = row_of(eeprom_id).rd_fp;
    if (!rd_fp)
        return REFUSE(print_error, 0,
                      "ERROR(pod_eeprom_mem_rd): No binded EEPROM %d read function!\n", eeprom_id);
    if (!can_address(position, size))
        return 0;
    return rd_fp(static_cast<uint32_t>(position), static_cast<uint8_t *>(data), size);
}

int eeprom_storage::mem_wr(int eeprom_id, int64_t position, const void *data, uint32_t size)
{
    const mem_access_fp_t wr_fp = row_of(eeprom_id).wr_fp;
    if (!wr_fp)
        return REFUSE(print_error, 0, "ERROR: No binded EEPROM write function!\n");
    if (!can_address(position, size))
        return 0;
    uint8_t *const bytes = const_cast<uint8_t *>(static_cast<const uint8_t *>(data));
    return wr_fp(static_cast<uint32_t>(position), bytes, size);
}

} // namespace

pod_log_ring device_access::eeprom_ring(int eeprom_id)
{
    return {storage, eeprom_id, storage.shape(eeprom_id)};
}

//--- the interface --------------------------------------------------------------------------------

void podlog_eeprom_set_pod_info(int eeprom_id, char *dev_name, int mem_size, int num_log,
                                int msg_len, uint32_t align_msk)
{
    if (has_eeprom(eeprom_id))
        set_pod_info(row_of(eeprom_id), dev_name, 15, mem_size, num_log, msg_len, align_msk);
}

void podlog_bind_eeprom_access_func(int eeprom_id, mem_access_fp_t rd_fp, mem_access_fp_t wr_fp)
{
    if (!has_eeprom(eeprom_id))
        return;
    row_of(eeprom_id).rd_fp = rd_fp;
    row_of(eeprom_id).wr_fp = wr_fp;
}

void podlog_unbind_eeprom_access_func(int eeprom_id)
{
    podlog_bind_eeprom_access_func(eeprom_id, nullptr, nullptr);
}

int podlog_eeprom_init(int eeprom_id, int flg_rdonly)
{
    return eeprom_ring(eeprom_id).init(flg_rdonly != 0);
}

void podlog_eeprom_close(int) {}

int podlog_eeprom_reset(int eeprom_id)
{
    return eeprom_ring(eeprom_id).reset();
}

int podlog_eeprom_add(int eeprom_id, char *event_level, char *diag_string, const char *ret_string,
                      const char *fmt, va_list args)
{
    return eeprom_ring(eeprom_id).add(event_level, diag_string, ret_string, fmt, args);
}

int podlog_eeprom_add_raw_log(int eeprom_id, uint8_t *buf)
{
    return eeprom_ring(eeprom_id).add_raw_log(buf);
}

int podlog_eeprom_use_nxt_log(int eeprom_id)
{
    return eeprom_ring(eeprom_id).use_nxt_log();
}

int podlog_eeprom_set_curr_log_status(int eeprom_id, int)
{
    return eeprom_ring(eeprom_id).set_curr_log_status();
}

int podlog_eeprom_open_dir(int eeprom_id)
{
    return eeprom_ring(eeprom_id).open_dir();
}

int podlog_eeprom_read_dir(int eeprom_id, int log_num, time_t *ts)
{
    return eeprom_ring(eeprom_id).read_dir(log_num, ts);
}

int podlog_eeprom_close_dir(int)
{
    return 1;
}

int podlog_eeprom_open_log(int eeprom_id, int log_num)
{
    return eeprom_ring(eeprom_id).open_log(log_num);
}

int podlog_eeprom_read_log(int eeprom_id, int offset, time_t *ts, char *msg, uint32_t buf_size)
{
    return eeprom_ring(eeprom_id).read_log(offset, ts, msg, buf_size);
}

int podlog_eeprom_read_raw_log(int eeprom_id, int offset, uint8_t *buf)
{
    return eeprom_ring(eeprom_id).read_raw_log(offset, buf);
}

int podlog_eeprom_dump_log_msgs(int eeprom_id, int log_num)
{
    return eeprom_ring(eeprom_id).dump_log_msgs(log_num);
}

int podlog_eeprom_dump_curr_log_msgs(int eeprom_id)
{
    return eeprom_ring(eeprom_id).dump_curr_log_msgs();
}

int podlog_eeprom_dump_all_log_msgs(int eeprom_id)
{
    return eeprom_ring(eeprom_id).dump_all_log_msgs();
}

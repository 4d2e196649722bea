#include <device_access/pod_log_eeprom.h>

#include "internal/pod_log_raw_entry.h"
#include "internal/pod_log_ring.h"

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

eeprom_dev_info_t _eeprom_dev_info[] = {
    {"pod_card_eeprom_alsw1"}, {"pod_card_eeprom_alsw2"}, {"pod_card_eeprom_sw1"},
    {"pod_card_eeprom_sw2"},   {"pod_card_eeprom_sw3"},   {"pod_card_eeprom_sw4"},
};

eeprom_dev_info_t nowhere = {""}; // stands for every id without EEPROM

class eeprom_ring : public pod_bare_index_ring<eeprom_ring>
{
public:
    static constexpr pod_log_traits traits = {
        .overhead = 32,
        .first_header = 44,
        .status_position = index_position,
        .name_limit = 15,
        .dumps_epoch = true,
        .announces_start = false,
        .reports_failed_dump = false,
        .init = "podlog_eeprom_init",
        .get_log_hdr_pos = "eeprom_get_log_hdr_pos",
        .get_curr_log_hdr_pos = "eeprom_get_curr_log_hdr_pos",
        .read_dir = "podlog_eeprom_read_dir",
        .dump_curr_log_msgs = "podlog_eeprom_dump_curr_log_msgs",
        .dump_log_block_header = "eeprom_dump_log_block_header",
    };

    explicit eeprom_ring(int eeprom_id)
        : id_(eeprom_id),
          row_(eeprom_id >= 0 && eeprom_id < static_cast<int>(std::size(_eeprom_dev_info))
                   ? _eeprom_dev_info[eeprom_id]
                   : nowhere)
    {
    }

    eeprom_dev_info_t &row() const { return row_; }
    bool exists() const { return &row_ != &nowhere; }

    void bind(mem_access_fp_t rd_fp, mem_access_fp_t wr_fp)
    {
        if (!exists())
            return;
        row_.rd_fp = rd_fp;
        row_.wr_fp = wr_fp;
    }

    int init(bool rdonly) { return exists() ? check(rdonly) : -1; }
    void close() {}

    int mem_rd(int64_t position, void *data, uint32_t size)
    {
        if (!row_.rd_fp) {
            print_error("ERROR(%s): No binded EEPROM %d read function!\n", "pod_eeprom_mem_rd",
                        id_);
            return 0;
        }
        return has(position, size)
                   ? row_.rd_fp(static_cast<uint32_t>(position), static_cast<uint8_t *>(data), size)
                   : 0;
    }

    int mem_wr(int64_t position, const void *data, uint32_t size)
    {
        if (!row_.wr_fp) {
            print_error("ERROR: No binded EEPROM write function!\n");
            return 0;
        }
        return has(position, size)
                   ? row_.wr_fp(static_cast<uint32_t>(position),
                                const_cast<uint8_t *>(static_cast<const uint8_t *>(data)), size)
                   : 0;
    }

    int add_raw_log(uint8_t *buf)
    {
        if (row_.msg_size < 0)
            return -1;
        const uint32_t room = static_cast<uint32_t>(row_.msg_size);
        char *message = reinterpret_cast<char *>(buf + sizeof(pod_entry));
        if (room > 0 && strnlen(message, size_t{room} + 1) > room)
            message[room - 1] = '\0';
        current_header current;
        pod_entry old;
        if (!load(current))
            return -1;
        const int64_t position = free_position(current);
        if (position == -1) {
            print_error("ERROR: %s: failed to get next available log position!\n",
                        "podlog_eeprom_add_raw_log");
            return -1;
        }
        if (!read(position, old) || !write_bytes(position, buf, uint32_t{sizeof(pod_entry)} + room))
            return -1;
        const int advanced = advance(current, position);
        if (!advanced)
            warn_of_full_history(current, position);
        return write_header(current) ? advanced : -1;
    }

private:
    static bool has(int64_t position, uint32_t size)
    {
        return position >= 0 && position + size <= last_position;
    }

    static void warn_of_full_history(const current_header &current, int64_t position)
    {
        print_output("WARNING:\n");
        print_output("  hdr pos =0x%x log size =0x%x\n", static_cast<uint32_t>(current.position),
                     current.log_size);
        print_output("  lg pos =0x%x\n", static_cast<uint32_t>(position));
        print_output("  NVLOG %s reached log area limit:\n", "POD LOG (EEPROM)");
        print_output("  Subsequent entries will overide the last entry\n");
    }

    int id_;
    eeprom_dev_info_t &row_;
};

} // namespace

size_t device_access::eeprom_raw_entry_size(int eeprom_id)
{
    return eeprom_ring(eeprom_id).raw_entry_size();
}

//--- the interface --------------------------------------------------------------------------------

void podlog_eeprom_set_pod_info(int eeprom_id, char *dev_name, int mem_size, int num_log,
                                int msg_len, uint32_t align_msk)
{
    eeprom_ring(eeprom_id).describe(dev_name, mem_size, num_log, msg_len, align_msk);
}

void podlog_bind_eeprom_access_func(int eeprom_id, mem_access_fp_t rd_fp, mem_access_fp_t wr_fp)
{
    eeprom_ring(eeprom_id).bind(rd_fp, wr_fp);
}

void podlog_unbind_eeprom_access_func(int eeprom_id)
{
    eeprom_ring(eeprom_id).bind(nullptr, nullptr);
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

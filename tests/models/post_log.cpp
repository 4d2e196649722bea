// The POST log reader on its two ways of access beside its model: device files, and the registers
// of a PCIe NVRAM controller, access by access.
#include "models/calls.h"
#include "models/walk.h"
#include "support/nvram_controller.h"
#include "support/post_access.h"

#include "sim/base/files.h"
#include "sim/parts/post_log.h"

#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

namespace
{

using namespace models;
using chassis_sim::byte_order;
using chassis_sim::number;
using std::string;

constexpr uint32_t far_at = 0x80000010;
constexpr uint32_t right_magic = 0x106F11E5;
constexpr uint32_t addresses[] = {0x8000, 0xFD118000, 0x20000};
constexpr log_type_t blocks[] = {OFWEVENT_LOG, OFWDIAG_TEST_LOG};

nvram_dev_info_t table[3]; // of the client

void close_block(log_type_t blk)
{
    std::fputs("closed\n", stderr);
    postlog_dev_file_nvram_close(blk);
    errno = EPIPE; // which must not hide why a call failed
}

int opened(log_type_t)
{
    return 1;
}

class post_model : public model
{
public:
    explicit post_model(choices &choose) : pcie_(choose.one_in(2))
    {
        ::setenv("TZ", "EAST-1", 1);
        postlog_map_pcie_nvram_access(controller_.base());
        for (const log_type_t blk : blocks)
            fill(choose, blk);
        map(choose);
        mirror_ = table[0], mirror_1_ = table[1];
    }

    void step(choices &choose) override
    {
        blk_ = choose.of({OFWEVENT_LOG, OFWDIAG_TEST_LOG, OFWDIAG_TEST_LOG});
        const int kind_of_step = choose.below(20);
        if (kind_of_step == 0)
            fill(choose, blk_);
        else if (kind_of_step == 1)
            map(choose);
        else if (kind_of_step < 6)
            damage(choose);
        else if (pcie_ && kind_of_step == 6)
            transfer(choose);
        else
            call(choose);
    }

private:
    byte_order order() const { return pcie_ ? byte_order::big : byte_order::little; }
    string word(uint64_t value, size_t size = 4) const { return number(order(), value, size); }
    nvram_dev_info_t &row() { return blk_ == OFWEVENT_LOG ? mirror_ : mirror_1_; }
    string &bytes() { return bytes_[blk_]; }

    //--- the world

    // A log of a few entries, or none.
    void fill(choices &choose, log_type_t blk)
    {
        blk_ = blk;
        chassis_sim::post_block log = {"", 2000, 32, 0, {}};
        for (int i = blk == OFWEVENT_LOG ? 1 : choose.between(2, 4); i > 0; --i) {
            auto &history = log.histories.emplace_back();
            for (int k = choose.below(4); k > 0; --k)
                history.push_back({choose.bits() >> choose.of({0, 32, 34}),
                                   choose.bits() >> choose.of({1, 33}), choose.text(30)});
        }
        log.current = static_cast<uint32_t>(choose.below(static_cast<int>(log.histories.size())));
        table[blk] = {"", "",   7, 2000,          static_cast<int>(log.histories.size()),
                      32, ~31u, 0, table[blk].fd, 0x1234};
        table[blk].fd = table[blk].path[0] ? table[blk].fd : -1;
        std::strcpy(table[blk].path, blk == OFWEVENT_LOG ? "/dev/event" : "/dev/results");
        std::strcpy(table[blk].name, blk == OFWEVENT_LOG ? "event" : "results");
        row() = table[blk];
        bytes() = log.image(order());
        if (blk != OFWEVENT_LOG)
            distance_ = log.log_size();
        store();
        note(printed("block %d has another log, of %zu histories", blk, log.histories.size()));
    }

    // A device file has an entry beyond the largest position, too.
    void store()
    {
        if (pcie_)
            return controller_.store(addresses[blk_], bytes());
        chassis_sim::write_file(table[blk_].path, bytes());
        std::filesystem::resize_file(table[blk_].path, far_at);
        std::ofstream(table[blk_].path, std::ios::app) << far_entry();
    }
    string far_entry() const
    {
        return chassis_sim::post_entry_head(order(), 1, 2, 8) + string(48, '\0');
    }

    void map(choices &choose)
    {
        opens_ = choose.one_in(2);
        const nvram_init_fp opening_call = !opens_ ? opened
                                           : pcie_ ? postlog_pcie_nvram_init
                                                   : postlog_dev_file_nvram_init;
        test::map_post_access(pcie_, table, opening_call, close_block);
        note(string("mapped to ") + (pcie_ ? "the controller" : "device files") +
             (opens_ ? "" : ", opening nothing"));
    }

    // The first entry's message is so long that the next entry lies beyond the largest position.
    void lead_far(choices &choose)
    {
        last_ = blk_ == OFWEVENT_LOG ? 24 : 36;
        const auto at = static_cast<uint32_t>(last_);
        const uint32_t size = choose.of({far_at - 40 - at, 0xFFFFFFF0u, 0x7FFFFFF0u});
        bytes().replace(at, 40, chassis_sim::post_entry_head(order(), 1, 2, size));
        store();
        note(printed("an entry of block %d leads beyond the largest position", blk_));
    }

    // A field of a record becomes another one, mostly with a right checksum; or something else
    // breaks.
    void damage(choices &choose)
    {
        if (!pcie_ && choose.one_in(15))
            return lead_far(choose);
        const size_t header =
            blk_ == OFWEVENT_LOG ? 0 : 12 + distance_ * static_cast<size_t>(choose.below(4));
        const size_t at =
            choose.of({size_t{0}, header, header + 24 + 72 * static_cast<size_t>(choose.below(3))});
        const size_t length = at == 0 && blk_ != OFWEVENT_LOG ? 12 : at == header ? 24 : 40;
        const auto value = static_cast<uint32_t>(choose.of(
            {choose.hostile(), choose.below(300), static_cast<int>(far_at - 40 - at), 72}));
        unreadable =
            choose.one_in(10) ? byte_range{choose.of({0, choose.below(900)}), 900} : byte_range{};
        busy_looks_ = choose.one_in(5) ? choose.of({1, 9, 10, 25}) : 0;
        controller_.set_busy_looks(busy_looks_);
        if (choose.one_in(12))
            row().num_subblock = table[blk_].num_subblock = choose.of({0, 1, -1, 3});
        if (at + length > bytes().size() || choose.one_in(4))
            return note(printed("from byte %jd on nothing can be read, the controller is %d times "
                                "busy, %d histories",
                                intmax_t{unreadable.from}, busy_looks_, row().num_subblock));
        string changed = bytes().substr(at, length);
        const size_t field = 4 * static_cast<size_t>(choose.below(static_cast<int>(length / 4)));
        changed.replace(length == 40 && choose.one_in(2) ? 36 : field, 4, word(value)); // its size
        if (length == 24 && !choose.one_in(3))
            changed.replace(0, 4, word(chassis_sim::cksum(changed.substr(4))));
        if (length == 40 && !choose.one_in(3)) {
            changed.replace(32, 4, 4, '\0');
            changed.replace(32, 4, word(chassis_sim::cksum(changed)));
        }
        bytes().replace(at, length, changed);
        store();
        note(printed("block %d has another record at %zu", blk_, at));
    }

    //--- what the model says

    struct record {
        int result; // 1, or that of a failed read
        std::vector<uint64_t> fields = {};
        string bytes = {};
    };

    [[gnu::format(printf, 2, 3)]] void err(const char *format, ...)
    {
        char text[300];
        va_list args;
        va_start(args, format);
        std::vsnprintf(text, sizeof text, format, args);
        va_end(args);
        said_.err += text;
    }
    int refuse(int value, const string &line)
    {
        said_.err += line;
        return value;
    }
    bool is_ready()
    {
        for (int look = 0; look < 10; ++look) {
            const bool busy = busy_left_ > 0;
            accesses_ += busy ? "b" : "s";
            if (!busy)
                return true;
            pauses_.push_back(1000);
            --busy_left_;
        }
        return refuse(0, "check_nvc_ready(): PCIE NVRAM Busy check Timed out.\n");
    }

    int read_registers(uint32_t address, uint32_t size, char *to, bool swaps)
    {
        const string timeout = "pcie_nvram_read(): PCIE NVRAM Busy check Timed out.\n";
        if (!to || address == 0 || size == 0)
            return refuse(1, "pcie_nvram_read(): argument error \n");
        if (!is_ready())
            return refuse(1, timeout);
        accesses_ += printed("c%x ", (address & 0xFFFFF) | (size > 32 ? 0x200000 : 0));
        busy_left_ = busy_looks_;
        for (uint32_t n = 0; n < size; n += 4) {
            if (n % 32 == 0 && !is_ready())
                return refuse(1, timeout);
            string four = nvram_bytes((address & 0xFFFFF) + n);
            accesses_ += "d";
            if ((n + 4) % 32 == 0)
                busy_left_ = busy_looks_;
            if (swaps)
                std::reverse(four.begin(), four.end());
            if (size - n < 4)
                to[n] = four[size - n - 1]; // the only byte of a tail that is stored
            else
                four.copy(to + n, 4);
        }
        return 0;
    }

    // Four bytes of the controller's NVRAM.
    string nvram_bytes(uint32_t address) const
    {
        string four(4, '\0');
        for (uint32_t i = 0; i < 4; ++i)
            for (const log_type_t blk : blocks)
                if (const uint32_t at = (address + i) % 0x100000 - (addresses[blk] & 0xFFFFF);
                    at < bytes_[blk].size())
                    four[i] = bytes_[blk][at];
        return four;
    }

    // Beyond its addresses the controller has nothing.
    bool read_controller(uint32_t offset, uint32_t size, char *to)
    {
        return (addresses[blk_] & 0xFFFFF) + uint64_t{offset} + size <= 0x100000 &&
               read_registers(addresses[blk_] + offset, size, to, false) == 0;
    }

    int rd(uint32_t offset, uint32_t size, char *to)
    {
        if (pcie_)
            return read_controller(offset, size, to)
                       ? static_cast<int>(size)
                       : refuse(0, "ERROR: postlog_pcie_nvram_rd(): POST NVRAM Read error!\n");
        if (row().fd == -1)
            return refuse(0, "ERROR: post_nvram_mem_rd: cannot access device!\n");
        const bool fails = unreadable.meets(offset, size);
        const size_t length = fails ? 0 : copy(offset, size, to);
        if (fails)
            said_.error = EIO;
        if (length < 1)
            err("ERROR: post_nvram_mem_rd: cannot read or reach eof!! range=0x%x-0x%x\n", offset,
                offset + size - 1);
        return static_cast<int>(length);
    }

    // What a device file has there.
    size_t copy(uint32_t offset, uint32_t size, char *to) const
    {
        const string far = far_entry();
        const uint64_t end = far_at + far.size();
        if (offset >= end)
            return 0;
        size = static_cast<uint32_t>(std::min<uint64_t>(size, end - offset));
        for (uint32_t at = offset; at != offset + size; ++at)
            to[at - offset] = at < bytes_[blk_].size() ? bytes_[blk_][at]
                              : at < far_at            ? '\0'
                                                       : far[at - far_at];
        unsteady.meet(offset, to, size);
        return size;
    }

    void close()
    {
        said_.err += "closed\n";
        said_.opens -= row().fd != -1;
        row().fd = -1;
    }

    // A record of these widths; what a short read lacks is 0.
    record read_record(const char *name, uint32_t offset, const std::vector<size_t> &widths)
    {
        size_t size = 0;
        for (const size_t width : widths)
            size += width;
        record one = {-1, {}, string(size, '\0')};
        if (pcie_ && !read_controller(offset, static_cast<uint32_t>(size), one.bytes.data()))
            return {
                refuse(-1, printed("ERROR: postlog_pcie_%s(): POST NVRAM Read error!\n", name))};
        if (!pcie_ && rd(offset, static_cast<uint32_t>(size), one.bytes.data()) < 1) {
            err("ERROR postlog_dev_%s: cannot read from the device file!", name);
            err(widths.size() == 6 ? " offset = 0x%x\n" : "\n", offset);
            close();
            return {-1};
        }
        size_t at = 0;
        for (const size_t width : widths) {
            uint64_t value = 0;
            for (size_t i = 0; i < width; ++i)
                value =
                    value << 8 | static_cast<uint8_t>(one.bytes[at + (pcie_ ? i : width - 1 - i)]);
            one.fields.push_back(value);
            at += width;
        }
        one.result = 1;
        return one;
    }
    record read_index() { return read_record("rd_log_index", 0, {4, 4, 4}); }
    record read_header(int64_t at)
    {
        return read_record("rd_log_header", static_cast<uint32_t>(at), {4, 4, 4, 4, 8});
    }
    record read_entry(int64_t at)
    {
        const uint32_t offset = at > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(at);
        return read_record("rd_log", offset, {8, 8, 8, 8, 4, 4});
    }

    static bool is_good_header(const record &one)
    {
        return one.fields[0] == chassis_sim::cksum(one.bytes.substr(4));
    }
    static bool is_good_entry(record one)
    {
        one.bytes.replace(32, 4, 4, '\0');
        return one.fields[4] == chassis_sim::cksum(one.bytes);
    }

    int header_position(uint64_t history, uint64_t distance)
    {
        const int64_t position = static_cast<int>(history) * static_cast<int64_t>(distance) + 12;
        if (position >= 0 && position < row().mem_size)
            return static_cast<int>(position);
        err("post_get_log_hdr_pos: calcuated hdr position 0x%x exceeds to storage size! "
            "index log_size = 0x%x\n",
            static_cast<uint32_t>(position), static_cast<uint32_t>(distance));
        return -1;
    }

    int header_of(int history)
    {
        record index = {1, {}, {}};
        if (blk_ != OFWEVENT_LOG && (index = read_index()).result != 1)
            return -1;
        if (blk_ == OFWEVENT_LOG ? history != 0 : history >= row().num_subblock) {
            err("ERROR: post_get_log_hdr_pos: invalid index %d; must less than %d!\n", history,
                row().num_subblock);
            return -1;
        }
        if (blk_ == OFWEVENT_LOG)
            return 0;
        if (index.fields[0] != right_magic) {
            said_.out += printed("ERROR: post_get_log_hdr_pos: invalid magic number 0x%x!\n",
                                 static_cast<uint32_t>(index.fields[0]));
            return -1;
        }
        return header_position(static_cast<uint64_t>(int64_t{history}), index.fields[2]);
    }

    int current_header()
    {
        if (blk_ == OFWEVENT_LOG)
            return 0;
        const record index = read_index();
        if (index.result != 1)
            return -1;
        const auto magic = static_cast<uint32_t>(index.fields[0]);
        if (static_cast<int64_t>(index.fields[1]) >= row().num_subblock) {
            said_.out += printed("post_get_log_hdr_pos: index 0x%x exceeds the maximum 0x%x! ",
                                 static_cast<uint32_t>(index.fields[1]),
                                 static_cast<uint32_t>(index.fields[2]));
            return -1;
        }
        if (magic != right_magic)
            return refuse(
                -1,
                printed("ERROR: post_get_curr_log_hdr_pos: invalid magic number 0x%x!\n", magic));
        return header_position(index.fields[1], index.fields[2]);
    }

    int current_history()
    {
        if (blk_ == OFWEVENT_LOG)
            return 0;
        const record index = read_index();
        return index.result == 1 && index.fields[0] == right_magic
                   ? static_cast<int>(index.fields[1])
                   : -1;
    }

    int first_entry(int history)
    {
        const int at = header_of(history);
        if (at == -1)
            return refuse(
                -1, printed("post_get_log_pos: failed to get hdr postition. subblock=%d log=0\n",
                            history));
        const record header = read_header(at);
        if (header.result != 1)
            return refuse(-1, printed("post_get_log_pos: subblock=%d log=0 hdr position = 0x%x\n",
                                      history, static_cast<uint32_t>(at)));
        if (!is_good_header(header) || header.fields[2] == 0)
            return 0;
        const int first = at + 24;
        const record entry = read_entry(first);
        if (entry.result == 1)
            return is_good_entry(entry) ? first : 0;
        err("post_get_log_pos: faild to read log structure at position 0x%x",
            static_cast<uint32_t>(first));
        err("post_get_log_pos: hdr struct: OFW base = %x  start addr/offset=%jx/0x%x "
            "index =0x%x log pos = 0x%x\n",
            row().ofw_base, uintmax_t{header.fields[4]}, static_cast<uint32_t>(first),
            static_cast<uint32_t>(header.fields[2]), static_cast<uint32_t>(first));
        return -1;
    }

    int previous(int history)
    {
        return history > 0 ? history - 1 : std::max(row().num_subblock, 1) - 1;
    }

    //--- opening

    int init()
    {
        if (!opens_)
            return 1;
        if (pcie_)
            return check("postlog_pcie_nvram_init", blk_ == OFWEVENT_LOG ? 1 : 10);
        if (row().fd != -1)
            return refuse(-1, "ERROR: postlog_dev_file_nvram_init: current device is currently "
                              "opened already!\n");
        err("ERROR: %s: cannot find nvram block named postlog_nvram_find_blk_properties!\n",
            row().name); // sysfs is empty
        said_.out += "WARNING: failed to read NVRAM info. use default value.\n";
        row().fd = 1000;
        ++said_.opens;
        const int count = row().num_subblock;
        row().subblock_size = count == 0
                                  ? 0
                                  : static_cast<int>(static_cast<uint32_t>(row().mem_size / count) &
                                                     row().log_align_msk);
        return check("postlog_dev_file_nvram_init", count);
    }

    int check(const string &routine, int histories)
    {
        const bool has_header = histories < 2;
        const record one = has_header ? read_header(0) : read_index();
        if (one.result == 1 && (has_header ? is_good_header(one) : one.fields[0] == right_magic))
            return 1;
        if (one.result != 1 && pcie_)
            said_.err += "ERROR " + routine + ": cannot read from the device file!\n";
        else if (one.result == 1 && has_header)
            said_.err += "ERROR: " + routine +
                         " : header structure not initialized! cannot open for reading!!\n";
        else if (one.result == 1) {
            const auto magic = static_cast<uint32_t>(one.fields[0]);
            err("ERROR: postlog_dev_file_nvram_init: magic number not initialized! "
                "cannot open for reading!!\n"
                "magic number: read = 0x%x expect = 0x106f11e5\n",
                magic);
            if (!pcie_)
                said_.out += printed("post_nvram_dump_block_index: \t  magic number = 0x%x \n"
                                     "\t header index = 0x%x\t size = 0x%x \n\t\n",
                                     magic, static_cast<uint32_t>(one.fields[1]),
                                     static_cast<uint32_t>(one.fields[2]));
        }
        if (one.result == 1 || pcie_ || row().fd != -1)
            close(); // or a reader has
        return -1;
    }

    int closed_with(int value)
    {
        close();
        return value;
    }

    //--- the calls

    int open_dir()
    {
        const char *const routine = "postlog_nvram_open_dir";
        if (init() != 1) {
            said_.out += printed("%s: cannot open device!!\n", routine);
            return -1;
        }
        int history = current_history();
        if (history == -1 || history < 0 || history >= row().num_subblock) {
            said_.out += history == -1
                             ? printed("%s: cannot get curr log index!!\n", routine)
                             : printed("%s: invalid subblock # %d!! must be smaller than %d\n",
                                       routine, history, row().num_subblock);
            return closed_with(-1);
        }
        const int at = header_of(history);
        const record header = at == -1 ? record{-1} : read_header(at);
        if (header.result == 1 && !is_good_header(header)) {
            err("ERROR %s: check header failed!\n", routine);
            return closed_with(-2);
        }
        for (left_ = row().num_subblock; left_ > 0; --left_) {
            const int position = first_entry(history);
            if (position == -1) {
                err("ERROR %s: failed to get log position!\n", routine);
                return closed_with(-1);
            }
            if (position > 0)
                return history;
            history = previous(history);
        }
        return closed_with(-2);
    }

    int read_dir(int history, time_t &time)
    {
        int position = first_entry(history);
        if (position == -1)
            return refuse(-1, "ERROR: postlog_nvram_read_dir: failed to get lg position!\n");
        if (position > 0) {
            const record entry = read_entry(position);
            if (entry.result != 1) {
                said_.out +=
                    printed("postlog_nvram_read_dir: failed to read log from position 0x%x\n",
                            static_cast<uint32_t>(position));
                return -1;
            }
            if (!is_good_entry(entry))
                return refuse(-1, "ERROR: postlog_nvram_read_dir: invalid LOG entry!\n");
            time = static_cast<time_t>(static_cast<uint32_t>(entry.fields[0]));
        } else {
            time = 0;
        }
        do {
            left_ = std::max(left_ - 1, 0);
            if (left_ < 1)
                return -2;
            history = previous(history);
            position = first_entry(history);
        } while (position == 0);
        return position < 0 ? -1 : history;
    }

    int open_log(int history)
    {
        if (init() != 1)
            return -1;
        const int position = first_entry(history);
        if (position > 0) {
            const record entry = read_entry(position);
            if (entry.result == 1 && is_good_entry(entry))
                return position;
        }
        return closed_with(-1);
    }

    // The entry after this one, which is read; false at an end that cannot be read.
    bool step_on(int64_t &position, record &entry)
    {
        position += 40 + static_cast<int64_t>(entry.fields[5]);
        entry = read_entry(position);
        return entry.result == 1 && position <= INT_MAX;
    }

    int read_log(int offset, time_t &time, char *text, uint32_t size)
    {
        record entry = read_entry(offset);
        if (entry.result != 1 || !is_good_entry(entry))
            return -1;
        const int64_t at = int64_t{offset} + 40;
        if (rd(static_cast<uint32_t>(at), std::min(size, static_cast<uint32_t>(entry.fields[5])),
               text) < 1)
            return -1;
        time = static_cast<time_t>(static_cast<uint32_t>(entry.fields[0]));
        int64_t next = offset;
        if (!step_on(next, entry))
            return -1;
        return is_good_entry(entry) ? static_cast<int>(next) : -2;
    }

    // Messages are shown in pieces of a page, no more than the block is large.
    bool dump_entry(int64_t position, const record &entry)
    {
        const uint32_t size = std::min(static_cast<uint32_t>(entry.fields[5]),
                                       static_cast<uint32_t>(std::max(row().mem_size, 4096)));
        uint32_t done = 0;
        do {
            string piece(4096, '\0');
            const uint32_t wanted = std::min(size - done, 4096u);
            const int got =
                rd(static_cast<uint32_t>(std::min<int64_t>(position + 40 + done, UINT32_MAX)),
                   wanted, piece.data());
            if (got < 1)
                return false;
            const auto time = static_cast<time_t>(static_cast<uint32_t>(entry.fields[0]));
            char date[26];
            if (done == 0)
                said_.out +=
                    printed("   epoch time (since boot): %ld seconds.  timestamp: %s     msg = ",
                            static_cast<long>(entry.fields[2]), ::ctime_r(&time, date));
            const size_t length =
                ::strnlen(piece.data(), std::min(static_cast<uint32_t>(got), wanted));
            said_.out += piece.substr(0, length);
            if (length < 4096)
                break;
            done += 4096;
        } while (done < size);
        said_.out += "\n\n";
        return true;
    }

    int dump(int history)
    {
        const int first = first_entry(history);
        if (first <= 0)
            return first == 0 ? 1 : -1;
        record entry = read_entry(first);
        int64_t position = first;
        if (entry.result != 1)
            return -1;
        while (is_good_entry(entry))
            if (!dump_entry(position, entry) || !step_on(position, entry))
                return -1;
        return 1;
    }

    int dump_current()
    {
        const int history = row().num_subblock < 2 ? 0 : current_history();
        said_.out += printed("postlog_nvram_dump_curr_log_msgs: curr log =%d \n", history);
        return dump(history);
    }

    int dump_all()
    {
        if (init() != 1)
            return -1;
        int history = current_history();
        int result = 1;
        for (int left = row().num_subblock; left > 0 && result == 1; --left) {
            const int position = first_entry(history);
            if (position >= 0)
                said_.out += printed("-------- history/subblock = %d --------\n", history);
            result = position < 0 || (position > 0 && dump(history) == -1) ? -1 : 1;
            history = previous(history);
        }
        return closed_with(result);
    }

    int next_position()
    {
        const int at = current_header();
        const record header = at == -1 ? record{-1} : read_header(at);
        if (header.result != 1 || !is_good_header(header))
            return -1;
        const uint64_t next = header.fields[1] * header.fields[2] + static_cast<uint32_t>(at) + 24;
        return next > INT_MAX ? -1 : static_cast<int>(next);
    }

    outcome done(intmax_t value)
    {
        unsteady.reads = 0;
        said_.value = value;
        said_.error = value == -1 && said_.error == EIO ? EIO : any_error;
        return std::exchange(said_, outcome{.error = untouched});
    }

    void call(choices &choose)
    {
        const int history = choose.of({choose.between(-1, 4), choose.below(3), choose.hostile()});
        openings.clear();
        note(printed("block %d, history %d", blk_, history));
        unsteady.position = -1;
        switch (choose.below(10)) {
        case 0:
            be_unsteady(choose, first_place(history));
            COMPARE(keep(done(open_log(history))), postlog_nvram_open_log(blk_, history));
            break;
        case 1:
        case 2:
            compare_read_log(choose);
            break;
        case 3:
        case 4:
        case 5:
            compare_dump(choose, history);
            break;
        default:
            compare_walk(choose, history);
        }
        expect_same_rows();
        expect_same_accesses();
        for (const opening &one : openings)
            if (one.path == table[blk_].path)
                expect_same("the flags that the device is opened with", O_RDONLY | O_EXCL,
                            one.flags);
    }

    void compare_walk(choices &choose, int history)
    {
        time_t time = 77, seen = 77;
        const int which = choose.below(4);
        if (which == 0)
            COMPARE(done(open_dir()), postlog_nvram_open_dir(blk_));
        else if (which == 1)
            COMPARE(done(closed_with(1)), postlog_nvram_close_dir(blk_));
        else {
            be_unsteady(choose, first_place(history));
            COMPARE(done(read_dir(history, time)), postlog_nvram_read_dir(blk_, history, &seen));
        }
        expect_same("the time", time, seen);
    }

    // Of the first entry of a history, where nothing is damaged.
    int64_t first_place(int history) const
    {
        return blk_ == OFWEVENT_LOG ? 24 : 36 + static_cast<int64_t>(distance_) * history;
    }

    // Files only: every second read of a byte is wrong.
    void be_unsteady(choices &choose, int64_t position)
    {
        if (pcie_ || !choose.one_in(4))
            return;
        unsteady = {position + choose.below(40), 0};
        note(printed("every second read of byte %jd is wrong", intmax_t{unsteady.position}));
    }

    void compare_read_log(choices &choose)
    {
        const int position = choose.of({24, 36, last_, last_, choose.hostile()});
        const uint32_t size = static_cast<uint32_t>(choose.of({0, 1, 32, 100}));
        time_t time = 77, seen = 77;
        string text(200, '#'), read = text;
        note(printed("position %d, %u bytes", position, size));
        be_unsteady(choose, position);
        COMPARE(keep(done(read_log(position, time, text.data(), size))),
                postlog_nvram_read_log(blk_, position, &seen, read.data(), size));
        expect_same("the time", time, seen);
        expect_same("what is read", text, read);
    }

    void compare_dump(choices &choose, int history)
    {
        const int which = choose.below(3);
        if (which == 0)
            COMPARE(done(dump(history)), postlog_nvram_dump_log_msgs(blk_, history));
        else if (which == 1)
            COMPARE(done(dump_all()), postlog_nvram_dump_all_log_msgs(blk_));
        else
            COMPARE(done(dump_current()), postlog_nvram_dump_curr_log_msgs(blk_));
        COMPARE(done(current_header()), post_get_curr_log_hdr_pos(blk_));
        COMPARE(done(next_position()), post_get_nxt_log_pos(blk_));
    }

    outcome keep(const outcome &what)
    {
        last_ = what.value > 0 ? static_cast<int>(what.value) : last_;
        return what;
    }

    void expect_same_rows()
    {
        nvram_dev_info_t expected = row(), seen = table[blk_];
        expect_same("whether the block is open", expected.fd != -1, seen.fd != -1);
        seen.fd = expected.fd;
        expect_same("the block's row",
                    string(reinterpret_cast<const char *>(&expected), sizeof expected),
                    string(reinterpret_cast<const char *>(&seen), sizeof seen));
    }

    // Each of 4 bytes: s and b, a look that finds it ready or busy; c, a command; d, data.
    void expect_same_accesses()
    {
        string seen;
        for (const auto &[what, offset, width, value] : controller_.take_log()) {
            const bool writes = what != chassis_sim::register_access::read;
            seen += width != 4 || writes != (offset == chassis_sim::nvram_controller::control) ? "?"
                                                                                               : "";
            seen += offset == chassis_sim::nvram_controller::status ? (value & 1 ? "b" : "s")
                    : offset == chassis_sim::nvram_controller::data
                        ? "d"
                        : printed("c%jx ", uintmax_t{value});
        }
        expect_same("what is done to the registers", std::exchange(accesses_, ""), seen);
        expect_sleeps(std::exchange(pauses_, {}));
    }

    void transfer(choices &choose)
    {
        const uint32_t address =
            choose.of({0u, 0x8000u, 0x18004u, static_cast<uint32_t>(choose.bits())});
        const uint32_t size =
            static_cast<uint32_t>(choose.of({0, choose.below(8), choose.below(80), 32, 33}));
        const int swaps = choose.of({0, 1, -1});
        const bool reads = !choose.one_in(20);
        string text(100, '#'), read = text;
        note(printed("address 0x%x, %u bytes, swapped %d", address, size, swaps));
        COMPARE(done(read_registers(address, size, reads ? text.data() : nullptr, swaps)),
                pcie_nvram_read(address, size,
                                reads ? reinterpret_cast<uint8_t *>(read.data()) : nullptr, swaps));
        expect_same("what is read", text, read);
        const uint32_t expected =
            (address & 0xFFFFF) | (swaps ? 0x100000 | size << 24 : 0) | (reads ? 0x200000 : 0);
        COMPARE(done(expected), set_nvc_ctl_reg(address, swaps, reads, static_cast<uint8_t>(size)));
        expect_same_accesses();
    }

    const bool pcie_;
    chassis_sim::nvram_controller controller_;
    string bytes_[2];                    // of the blocks, as they are stored
    nvram_dev_info_t mirror_, mirror_1_; // of the table's rows
    bool opens_;                         // with the library's own init
    log_type_t blk_ = OFWEVENT_LOG;
    size_t distance_ = 0; // of histories
    int busy_looks_ = 0;
    int busy_left_ = 0;
    int left_ = 0;                        // histories of a walk
    int last_ = 0;                        // the position of an entry that was found
    string accesses_;                     // of the registers, by a call
    std::vector<unsigned int> pauses_;    // in microseconds, by a call
    outcome said_ = {.error = untouched}; // by a call, so far
};

} // namespace

int main(int argc, char **argv)
{
    return walk(argc, argv, [](choices &choose) { return std::make_unique<post_model>(choose); });
}

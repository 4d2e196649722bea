#include "models/pod_device.h"

#include "sim/base/bytes.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace models
{

//--- regions --------------------------------------------------------------------------------------

void region::resize(int64_t size)
{
    if (size < size_)
        for (auto at = pages_.lower_bound(size / page_size); at != pages_.end(); ++at) {
            const int64_t kept = std::clamp<int64_t>(size - at->first * page_size, 0, page_size);
            std::fill(at->second.begin() + kept, at->second.end(), '\0');
        }
    size_ = size;
}

int region::read(int64_t position, void *data, size_t size, int &error) const
{
    if (position < 0 || unreadable.meets(position, size)) {
        error = position < 0 ? EINVAL : EIO;
        return -1;
    }
    const int64_t end = std::min(size_, position + static_cast<int64_t>(size));
    char *to = static_cast<char *>(data);
    for (int64_t at = position; at < end;) {
        const int64_t start = at % page_size;
        const int64_t length = std::min(end - at, page_size - start);
        const auto found = pages_.find(at / page_size);
        if (found == pages_.end())
            std::fill_n(to, length, '\0');
        else
            std::copy_n(found->second.begin() + start, length, to);
        to += length;
        at += length;
    }
    if (position < end)
        unsteady.meet(position, static_cast<char *>(data), static_cast<size_t>(end - position));
    return static_cast<int>(std::max<int64_t>(0, end - position));
}

int region::write(int64_t position, const void *data, size_t size, int &error)
{
    if (position < 0 || unwritable.meets(position, size)) {
        error = position < 0 ? EINVAL : EIO;
        return -1;
    }
    int64_t end = position + static_cast<int64_t>(size);
    end = grows_ ? end : std::min(end, size_);
    size_ = size == 0 ? size_ : std::max(size_, end);
    for (int64_t at = position; at < end; ++at)
        pages_[at / page_size][static_cast<size_t>(at % page_size)] =
            static_cast<const char *>(data)[at - position];
    return static_cast<int>(std::max<int64_t>(0, end - position));
}

void region::expect_same_as(const std::string &path) const
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat status = {};
    ::fstat(fd, &status);
    page seen;
    std::string different;
    for (const auto &[number, bytes] : pages_) {
        seen.fill('\0');
        const ssize_t length = ::pread(fd, seen.data(), seen.size(), number * page_size);
        if (length < 0 || bytes != seen)
            different = path + ", from byte " + std::to_string(number * page_size) + " on,";
        if (!different.empty()) {
            ::close(fd);
            expect_same(different, {bytes.data(), bytes.size()}, {seen.data(), seen.size()});
        }
    }
    ::close(fd);
    expect_same("the size of " + path, size_, int64_t{status.st_size});
}

std::string region::all() const
{
    std::string bytes;
    for (int64_t at = 0; at < size_; at += page_size) {
        const auto found = pages_.find(at / page_size);
        bytes += found == pages_.end() ? std::string(page_size, '\0')
                                       : std::string(found->second.begin(), found->second.end());
    }
    bytes.resize(static_cast<size_t>(size_));
    return bytes;
}

void region::expect_same_as(const region &seen, const std::string &name) const
{
    if (pages_ != seen.pages_)
        expect_same(name, all(), seen.all());
}

//--- what is said ---------------------------------------------------------------------------------

uint32_t sum_of(const void *data, size_t size)
{
    return chassis_sim::cksum({static_cast<const char *>(data), size});
}

const char *name_of(kind what)
{
    return what == kind::nvram ? "nvram" : what == kind::file ? "file" : "eeprom";
}

namespace
{

std::string vprinted(const char *format, va_list args)
{
    char text[4096];
    std::vsnprintf(text, sizeof text, format, args);
    return text;
}

// An entry's checksum is that of its header with the checksum taken as 0.
uint32_t sum_of_entry(std::array<uint32_t, 5> entry)
{
    entry[2] = 0;
    return sum_of(entry.data(), 16);
}

bool is_valid_entry(const std::array<uint32_t, 5> &entry)
{
    return entry[2] == sum_of_entry(entry);
}

bool is_valid_header(const std::array<uint32_t, 5> &header)
{
    return header[0] == sum_of(&header[1], 16);
}

} // namespace

void pod_device::err(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    said_.err += vprinted(format, args);
    va_end(args);
}

void pod_device::out(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    said_.out += vprinted(format, args);
    va_end(args);
}

void pod_device::begin()
{
    said_ = {.error = untouched};
    asked.clear();
    pauses.clear();
    mode_mask = 022;
}

// errno is only promised of failures.
outcome pod_device::done(intmax_t value)
{
    said_.value = value;
    if (value != -1)
        said_.error = any_error;
    return said_;
}

//--- the device -----------------------------------------------------------------------------------

pod_device::pod_device(kind kind_of_it, int id_of_it, bool does_exist, file_system &files)
    : mem_size(kind_of_it == kind::eeprom ? 8192 : 16384),
      num_subblock(kind_of_it == kind::eeprom ? 2 : 10),
      align_mask(kind_of_it == kind::nvram ? 0xFFFFFFE0 : 0xFFFFFFFF), what(kind_of_it),
      id(id_of_it), exists(does_exist), files_(files)
{
}

void pod_device::set_pod_info(const std::string &name, int size, int histories, int message,
                              uint32_t mask)
{
    if (!exists)
        return;
    if (what != kind::eeprom)
        path = name.substr(0, 40);
    mem_size = size;
    num_subblock = histories;
    msg_size = message;
    align_mask = mask;
}

region *pod_device::storage()
{
    const auto found = files_.find(is_open ? open_path_ : path);
    return found == files_.end() ? nullptr : &found->second;
}

int pod_device::rd(int64_t position, void *data, uint32_t size)
{
    if (what == kind::eeprom && !is_bound)
        err("ERROR(pod_eeprom_mem_rd): No binded EEPROM %d read function!\n", id);
    else if (is_nvram() && !is_open)
        err("ERROR: pod_nvram_mem_rd: nvram %d: cannot access device!\n", id);
    else if (what == kind::file && !is_open)
        err("ERROR: pod_file_mem_rd: cannot access device!\n");
    if (what == kind::eeprom ? !is_bound : !is_open)
        return 0;
    int ignored;
    const int length =
        storage()->read(position, data, size, what == kind::eeprom ? ignored : said_.error);
    if (length >= 1 || what == kind::eeprom)
        return length;
    const uint32_t first = static_cast<uint32_t>(position);
    err("ERROR: pod_%s_mem_rd: cannot read or reach eof!! range=0x%x-0x%x\n", name_of(what), first,
        first + size - 1);
    return 0;
}

int pod_device::wr(int64_t position, const void *data, uint32_t size)
{
    if (what == kind::eeprom && !is_bound)
        err("ERROR: No binded EEPROM write function!\n");
    else if (is_nvram() && !is_open)
        err("ERROR: pod_nvram_mem_wr: cannot access device %d!\n", id);
    else if (what == kind::file && !is_open)
        err("ERROR: pod_file_mem_wr: cannot access device for file instance %d !\n", id);
    if (what == kind::eeprom ? !is_bound : !is_open)
        return 0;
    int ignored;
    int length = -1;
    if (is_rdonly_ && position >= 0 && !unwritable.meets(position, size))
        said_.error = EBADF;
    else
        length =
            storage()->write(position, data, size, what == kind::eeprom ? ignored : said_.error);
    if (length >= 1 || what == kind::eeprom)
        return length;
    if (is_nvram())
        err("ERROR: pod_nvram_mem_wr: cannot write %u bytes to 0x%x!!\n", size,
            static_cast<uint32_t>(position));
    else
        err("ERROR: pod_file_mem_wr: cannot write!!\n");
    return 0;
}

// What a short transfer lacks counts as 0.
bool pod_device::rd_record(int64_t position, record &words, uint32_t size)
{
    words = {};
    return rd(position, words.data(), size) > 0;
}

outcome pod_device::mem_rd(int64_t position, void *data, uint32_t size)
{
    begin();
    const int length = rd(position, data, size);
    return length > 0 ? done(length) : said_;
}

outcome pod_device::mem_wr(int64_t position, const void *data, uint32_t size)
{
    begin();
    const int length = wr(position, data, size);
    return length > 0 ? done(length) : said_;
}

//--- positions ------------------------------------------------------------------------------------

int64_t pod_device::header_position(int history)
{
    record index;
    if (!rd_index(index))
        return -1;
    if (history >= num_subblock) {
        err("ERROR: %s_get_log_hdr_pos: invalid index %d; must less than %d!\n", name_of(what),
            history, num_subblock);
        return -1;
    }
    if (index[0] != magic()) {
        if (is_nvram())
            err("nvram_get_log_hdr_pos: unexpected magic number 0x%x. canot not get the index from "
                "the structure!",
                index[0]);
        return -1;
    }
    const int64_t distance = is_nvram() ? static_cast<uint32_t>(subblock_size) : index[2];
    const int64_t position = 32 + index_size() + history * distance;
    return position > INT_MAX ? -1 : position;
}

int64_t pod_device::current_header_position()
{
    record index;
    if (!rd_index(index))
        return -1;
    const bool in_range = index[1] < static_cast<uint32_t>(num_subblock);
    if (!is_nvram() && (index[0] != magic() || !in_range)) {
        err("ERROR: %s_get_curr_log_hdr_pos: invalid index!\n", name_of(what));
        return -1;
    }
    if (index[0] != magic())
        return -1;
    if (!in_range) {
        err("ERROR: get_curr_log_hdr_pos: index %d out of range!\n", static_cast<int>(index[1]));
        return -1;
    }
    if (is_nvram() && index[2] != static_cast<uint32_t>(subblock_size)) {
        err("get_curr_log_hdr_pos: corrupted log size 0x%x in the structure!\n", index[2]);
        return -1;
    }
    const int64_t position = 32 + index_size() + static_cast<int>(index[1]) * int64_t{index[2]};
    return position > INT_MAX ? -1 : position;
}

int pod_device::current_history()
{
    record index;
    if (!rd_index(index))
        return -1;
    const uint32_t sum = sum_of(index.data(), 12);
    if (is_nvram() && index[3] != sum)
        out("nvram_verify_blk_index: incorrect CRC 0x%x! expected 0x%x ", index[3], sum);
    else if (is_nvram() && index[0] != magic())
        out("nvram_verify_blk_index: unexpected magic number 0x%x! expected 0x%x ", index[0],
            magic());
    else if (index[0] == magic())
        return static_cast<int>(index[1]);
    return -1;
}

// Of the first entry of a history; 0: there is none, -1: there is no telling.
int64_t pod_device::first_entry(int history)
{
    record header, entry;
    const int64_t position = header_position(history);
    if (position == -1 || !rd_record(position, header, 20))
        return -1;
    if (!is_valid_header(header) || header[2] == 0)
        return 0;
    const int64_t start = static_cast<int>(header[4]);
    if (start >= start + static_cast<int>(header[2]) || !rd_record(start, entry, 16))
        return -1;
    return is_valid_entry(entry) ? start : 0;
}

//--- opening --------------------------------------------------------------------------------------

bool pod_device::open_nvram(bool rdonly)
{
    if (is_open) {
        err("ERROR: podlog_nvram_init: nvram %d current device is currently opened already!\n", id);
        return false;
    }
    asked.push_back({path, O_EXCL | (rdonly ? O_RDONLY : O_RDWR)});
    return true;
}

bool pod_device::open_file(bool rdonly)
{
    if (is_open) {
        err("ERROR: podlog_file_init: file %d current device is currently  opened already!\n", id);
        said_.out = said_.err;
        return false;
    }
    if (mkdir_error != 0) {
        said_.error = mkdir_error;
        err("Unable to create POD directory: %s\n", std::strerror(mkdir_error));
        mode_mask = 0; // which it was for the directory
        return false;
    }
    said_.error = EEXIST; // of the directory
    asked.push_back({path, rdonly ? O_RDONLY : O_RDWR});
    if (storage())
        return true;
    said_.error = ENOENT;
    if (rdonly) {
        err("ERROR: file %s does not exist!\n", path.c_str());
        return false;
    }
    asked.push_back({path, O_RDWR | O_CREAT});
    if (!path.starts_with("/var/pod/")) {
        said_.error = ENOENT;
        return true; // without a descriptor
    }
    files_.emplace(path, region());
    const std::string zeros(16384, '\0');
    if (storage()->write(0, zeros.data(), zeros.size(), said_.error) == 16384)
        return true;
    err("ERROR: cannot write to file %s!\n", path.c_str());
    return false;
}

// Opens, and makes sure that there is a log: 1 or -1.
int pod_device::start(bool rdonly)
{
    if (!exists || (is_nvram() && !open_nvram(rdonly)) ||
        (what == kind::file && !open_file(rdonly)))
        return -1;
    is_rdonly_ = what != kind::eeprom && rdonly;
    if (what != kind::eeprom && storage()) {
        open_path_ = path;
        is_open = true;
        ++said_.opens;
    }
    const int beyond = is_nvram() ? 100 : 32;
    const int share = num_subblock == 0 ? 0 : (mem_size - beyond) / num_subblock;
    subblock_size = static_cast<int>(static_cast<uint32_t>(share) & align_mask);
    record index;
    int result = -1;
    if (!rd_index(index)) {
        if (is_nvram())
            err("ERROR: canot read magic number for NVRAM!\n");
    } else if (is_nvram()) {
        result = judge_nvram(index, rdonly);
    } else if (index[0] == magic()) {
        result = 1;
    } else if (!rdonly) {
        format();
        result = 1;
    } else {
        err("ERROR: podlog_%s_init: magic number not initialized! cannot open for reading!!\n"
            "magic number: read = 0x%x expect = 0x%x\n",
            name_of(what), index[0], magic());
    }
    if (result == -1)
        stop();
    return result;
}

int pod_device::judge_nvram(const record &index, bool rdonly)
{
    const uint32_t sum = sum_of(index.data(), 12);
    if (index[3] == sum)
        return verify_headers();
    out("nvram_dump_block_index: \t  magic number = 0x%x \n\t header index = 0x%x\t size = 0x%x \n"
        "\t checksum = 0x%x\n",
        index[0], index[1], index[2], index[3]);
    if (rdonly) {
        err("ERROR: podlog_nvram_init: checksum incorrect! cannot open for reading!!\n"
            "CRC: read = 0x%x expect = 0x%x\n"
            "Can not perform best guess for read-only NVRAM region!\n",
            index[3], sum);
        return -1;
    }
    out("WARNING: podlog_nvram_init: Block index structure CRC not matched!\n"
        "CRC: read = 0x%x expect = 0x%x\n",
        index[3], sum);
    if (index[0] != magic()) {
        format();
        return 1;
    }
    verify_headers();
    return -1;
}

int pod_device::check_header(int history)
{
    record header;
    const int64_t position = header_position(history);
    if (position == -1 && is_nvram())
        out("nvram_check_hdr failed to get_log_hdr_pos, nvram_id %d, subblock_id %d", id, history);
    if (position == -1 || !rd_record(position, header, 20))
        return -1;
    return is_valid_header(header);
}

int pod_device::verify_headers()
{
    for (int i = 0; i < num_subblock; ++i) {
        if (i > 0)
            pauses.push_back(200);
        if (check_header(i) != 1)
            return -1;
    }
    return 1;
}

void pod_device::stop()
{
    if (is_open)
        --said_.opens;
    is_open = false;
}

outcome pod_device::init(bool rdonly)
{
    begin();
    return done(start(rdonly));
}

outcome pod_device::close()
{
    begin();
    if (is_nvram() && !is_open)
        out("podlog_nvram_close: instance already closed previously! \n");
    stop();
    return done(0);
}

outcome pod_device::close_dir()
{
    close();
    return done(1);
}

//--- writing --------------------------------------------------------------------------------------

int pod_device::format()
{
    record index = {magic(), 0, static_cast<uint32_t>(subblock_size)};
    index[3] = sum_of(index.data(), 12);
    if (!wr_index(index)) {
        if (is_nvram())
            err("Failed to write NVRAM index structure!\n");
        return -1;
    }
    if (is_nvram()) {
        out("podlog_nvram_reset: reset POD status & fault injection\n");
        uint32_t words[9];
        std::fill_n(words, 8, 0x80000000);
        words[8] = 0;
        if (wr(status_position(), words, 32) < 1 || wr(mem_size - 40, &words[8], 4) < 1)
            return -1;
    }
    for (int i = 0; i < num_subblock; ++i) {
        const int64_t position = header_position(i);
        if (position == -1)
            return -1;
        empty(position);
    }
    return 1;
}

void pod_device::empty(int64_t header)
{
    record old;
    const record blank = {};
    if (header >= 0 && rd_record(header, old, 20)) {
        int64_t position = header + 20;
        while (wr(position, blank.data(), 16) > 0) {
            position += 80;
            if (position + 16 > header + subblock_size)
                break;
        }
    }
    record fresh = {0, static_cast<uint32_t>(subblock_size), 0, 0x1122,
                    static_cast<uint32_t>(header) + 20};
    fresh[0] = sum_of(&fresh[1], 16);
    wr(header, fresh.data(), 20);
}

outcome pod_device::reset()
{
    begin();
    return done(format());
}

// The bytes of the message that are written.
std::string composed(const entry_parts &parts)
{
    std::string field(64, '\0');
    int used = 0;
    const auto copy = [&](const std::string &part, int room) {
        const int length = std::min(static_cast<int>(part.size()), room);
        if (length > 0)
            field.replace(static_cast<size_t>(used), static_cast<size_t>(length), part, 0,
                          static_cast<size_t>(length));
        used += std::max(length, 0);
        return length;
    };
    if (parts.level)
        copy(parts.level, 64);
    for (const char *part : {parts.diag, parts.ret})
        if (part && copy(part, 62 - used) > 0)
            copy("  ", 2);
    copy(parts.text.substr(0, 63), 64 - used);
    if (used < 64)
        field[static_cast<size_t>(used++)] = '\0';
    field[63] = '\0';
    return field.substr(0, static_cast<size_t>(used));
}

outcome pod_device::add(const entry_parts &parts)
{
    begin();
    record header, old;
    const int64_t header_at_it = current_header_position();
    if (header_at_it == -1 || !rd_record(header_at_it, header, 20) || !is_valid_header(header))
        return done(-1);
    const int64_t position = int64_t{header[4]} + header[2];
    if (position > INT_MAX || !rd_record(position, old, 16))
        return done(-1);
    const uint64_t time = static_cast<uint64_t>(int64_t{static_cast<int32_t>(now)});
    record entry = {static_cast<uint32_t>(time), static_cast<uint32_t>(time >> 32), 0,
                    static_cast<uint32_t>(msg_size)};
    entry[2] = sum_of_entry(entry);
    const std::string message = composed(parts);
    if (wr(position, entry.data(), 16) < 1 ||
        wr(position + 16, message.data(), static_cast<uint32_t>(message.size())) < 1)
        return done(-1);
    return done(advance(position, header, header_at_it, false));
}

// Counts the entry if one more fits after it, and writes the header.
int pod_device::advance(int64_t position, record header, int64_t header_at_it, bool warns)
{
    const uint32_t size = static_cast<uint32_t>(msg_size);
    const bool fits = static_cast<uint32_t>(position) + 2 * size + 32 <
                      static_cast<uint32_t>(header_at_it) + header[1];
    if (fits)
        header[2] += size + 16;
    else if (warns)
        out("WARNING:\n  hdr pos =0x%x log size =0x%x\n  lg pos =0x%x\n"
            "  NVLOG POD LOG (EEPROM) reached log area limit:\n"
            "  Subsequent entries will overide the last entry\n",
            static_cast<uint32_t>(header_at_it), header[1], static_cast<uint32_t>(position));
    header[0] = sum_of(&header[1], 16);
    return wr(header_at_it, header.data(), 20) < 1 ? -1 : fits;
}

outcome pod_device::add_raw(std::string &raw)
{
    begin();
    const size_t room = static_cast<size_t>(msg_size);
    if (std::strlen(raw.c_str() + 16) > room && room > 0)
        raw[16 + room - 1] = '\0';
    record header, old;
    const int64_t header_at_it = current_header_position();
    if (header_at_it == -1 || !rd_record(header_at_it, header, 20))
        return done(-1);
    const int64_t position = int64_t{header[4]} + header[2];
    if (!is_valid_header(header) || position > INT_MAX) {
        err("ERROR: podlog_eeprom_add_raw_log: failed to get next available log position!\n");
        return done(-1);
    }
    if (!rd_record(position, old, 16) ||
        wr(position, raw.data(), static_cast<uint32_t>(16 + room)) < 1)
        return done(-1);
    return done(advance(position, header, header_at_it, true));
}

outcome pod_device::use_nxt_log()
{
    begin();
    record index;
    if (!rd_index(index))
        return done(-1);
    if (index[0] != magic())
        return done(1);
    index[1] = index[1] < static_cast<uint32_t>(num_subblock) - 1 ? index[1] + 1 : 0;
    index[3] = sum_of(index.data(), 12);
    if (!wr_index(index))
        return done(-1);
    const int64_t position = current_header_position();
    if (position == -1)
        return done(-1);
    empty(position);
    return done(1);
}

outcome pod_device::set_curr_log_status()
{
    begin();
    record index;
    if (!rd_index(index) || index[0] != magic())
        return done(-1);
    return done(wr(what == kind::file ? 0 : 32, index.data(), index_size()) > 0 ? 1 : -1);
}

//--- reading --------------------------------------------------------------------------------------

int pod_device::newest()
{
    int history = current_history();
    if (history < 0 || history >= num_subblock)
        return -1;
    if (check_header(history) == 0)
        return -2;
    left_[what] = num_subblock;
    int64_t position;
    while ((position = first_entry(history)) == 0) {
        history = previous(history);
        if (--left_[what] == 0)
            return -2;
    }
    return position > 0 ? history : -1;
}

outcome pod_device::open_dir()
{
    begin();
    if (start(true) != 1)
        return done(-1);
    const int history = newest();
    if (history < 0)
        stop();
    return done(history);
}

outcome pod_device::read_dir(int history, time_t &time)
{
    begin();
    const auto fail = [&](const char *why) {
        err("ERROR: podlog_%s_read_dir: %s!\n", name_of(what), why);
        return done(-1);
    };
    int64_t position = first_entry(history);
    record entry = {};
    if (position == -1)
        return fail("failed to get lg position");
    if (position != 0 && !rd_record(position, entry, 16))
        return fail("failed to read log position");
    if (position != 0 && !is_valid_entry(entry))
        return fail("invalid LOG entry");
    time = position == 0 ? 0 : time_of(entry);
    do {
        if (--left_[what] < 1) {
            left_[what] = 0;
            return done(-2);
        }
        history = previous(history);
        position = first_entry(history);
    } while (position == 0);
    return done(position < 0 ? -1 : history);
}

outcome pod_device::open_log(int history)
{
    begin();
    if (start(true) != 1)
        return done(-1);
    const int64_t position = first_entry(history);
    if (position > 0)
        return done(position);
    stop();
    return done(-1);
}

// The position of the entry after this one.
int pod_device::following(int64_t position, const record &entry)
{
    const int64_t next = position + 16 + entry[3];
    record one;
    if (!rd_record(next, one, 16) || next > INT_MAX)
        return -1;
    return is_valid_entry(one) ? static_cast<int>(next) : -2;
}

outcome pod_device::read_log(int position, time_t &time, char *message, uint32_t size)
{
    begin();
    record entry;
    if (!rd_record(position, entry, 16) || !is_valid_entry(entry) ||
        rd(int64_t{position} + 16, message, std::min(entry[3], size)) < 1)
        return done(-1);
    time = time_of(entry);
    return done(following(position, entry));
}

outcome pod_device::read_raw_log(int position, char *raw)
{
    begin();
    record entry;
    if (!rd_record(position, entry, 16) || !is_valid_entry(entry) ||
        rd(int64_t{position} + 16, raw + 16, std::min(entry[3], static_cast<uint32_t>(msg_size))) <
            1)
        return done(-1);
    std::memcpy(raw, entry.data(), 16);
    return done(following(position, entry));
}

} // namespace models

// The log of one POD device as a model: each operation as its rule says it, on bytes that the model
// keeps itself.
#pragma once

#include "models/calls.h"
#include "models/walk.h"

#include <array>
#include <map>
#include <optional>
#include <string>

#include <sys/types.h>
#include <time.h>

namespace models
{

// What a device holds, with room for far more than there is.
class region
{
public:
    explicit region(int64_t size = 0, bool grows = true) : size_(size), grows_(grows) {}
    int64_t size() const { return size_; }
    void resize(int64_t size);

    // As pread() and pwrite(): the number of bytes, or -1 and the error.
    int read(int64_t position, void *data, size_t size, int &error) const;
    int write(int64_t position, const void *data, size_t size, int &error);

    // Throws unless the file, or the other one, has these bytes.
    void expect_same_as(const std::string &path) const;
    void expect_same_as(const region &seen, const std::string &name) const;

private:
    std::string all() const;

    static constexpr int64_t page_size = 4096;
    using page = std::array<char, page_size>;
    std::map<int64_t, page> pages_; // those that are not all 0
    int64_t size_;
    bool grows_;
};

enum class kind { nvram, file, eeprom };
const char *name_of(kind what);

// Where paths lead to.
using file_system = std::map<std::string, region>;

// What an entry is composed of; NULL where there is none.
struct entry_parts {
    const char *level;
    const char *diag;
    const char *ret;
    std::string text;
};

class pod_device
{
public:
    pod_device(kind what, int id, bool exists, file_system &files);

    // Settings.
    std::string path;
    int mem_size;
    int num_subblock;
    int msg_size = 64;
    uint32_t align_mask;
    int subblock_size = 0;
    bool is_bound = false; // EEPROM
    static inline uint32_t nvram_magic = 0x1FE2C365;

    const kind what;
    const int id;
    const bool exists;
    bool is_open = false;
    void set_pod_info(const std::string &name, int size, int histories, int message, uint32_t mask);

    // The operations.
    outcome init(bool rdonly);
    outcome close();
    outcome reset();
    outcome add(const entry_parts &parts);
    outcome add_raw(std::string &entry);
    outcome use_nxt_log();
    outcome set_curr_log_status();
    outcome open_dir();
    outcome read_dir(int history, time_t &time);
    outcome close_dir();
    outcome open_log(int history);
    outcome read_log(int position, time_t &time, char *message, uint32_t size);
    outcome read_raw_log(int position, char *entry); // what it reads, as far as it comes
    outcome mem_rd(int64_t position, void *data, uint32_t size);
    outcome mem_wr(int64_t position, const void *data, uint32_t size);

    // Where things lie, by the configuration.
    uint32_t magic() const { return is_nvram() ? nvram_magic : 0x1FE2C363; }
    uint32_t index_size() const { return is_nvram() ? 16 : 12; }
    int64_t header_at(int64_t history) const { return 32 + index_size() + history * subblock_size; }
    bool is_nvram() const { return what == kind::nvram; }
    int status_position() const { return mem_size - 72; }

    region *storage(); // none: there is no such file

    // By the last operation.
    std::vector<opening> asked;       // of open()
    std::vector<unsigned int> pauses; // in microseconds
    mode_t mode_mask = 022;           // of the process, after it

private:
    using record = std::array<uint32_t, 5>; // of an index, a header or an entry
    void begin();
    outcome done(intmax_t value);
    [[gnu::format(printf, 2, 3)]] void err(const char *format, ...);
    [[gnu::format(printf, 2, 3)]] void out(const char *format, ...);

    int rd(int64_t position, void *data, uint32_t size);
    int wr(int64_t position, const void *data, uint32_t size);
    bool rd_record(int64_t position, record &words, uint32_t size);
    bool rd_index(record &words) { return rd_record(32, words, index_size()); }
    bool wr_index(const record &words) { return wr(32, words.data(), index_size()) > 0; }

    bool open_nvram(bool rdonly);
    bool open_file(bool rdonly);
    int start(bool rdonly);
    int judge_nvram(const record &index, bool rdonly);
    void stop();
    int verify_headers();
    int check_header(int history);
    int format();

    int64_t header_position(int history);
    int64_t current_header_position();
    int current_history();
    int64_t first_entry(int history);
    int64_t next_position();
    int previous(int history) const { return history > 0 ? history - 1 : num_subblock - 1; }
    int newest();
    int following(int64_t position, const record &entry);
    void empty(int64_t header);
    int advance(int64_t position, record header, int64_t header_position, bool warns);
    time_t time_of(const record &entry) const { return static_cast<time_t>(entry[0]); }

    file_system &files_;
    std::string open_path_; // when it was opened
    bool is_rdonly_ = false;
    outcome said_;                           // by the operation, so far
    static inline std::map<kind, int> left_; // histories of a walk, by kind
};

uint32_t sum_of(const void *data, size_t size);

} // namespace models

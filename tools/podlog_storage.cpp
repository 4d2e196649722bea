#include "podlog_storage.h"

#include "output.h"

#include <device_access/pod_log_eeprom.h>
#include <device_access/pod_log_file.h>
#include <device_access/pod_log_nvram.h>

#include <algorithm>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace devaccess
{
namespace
{

// What the three kinds of storage have in common, by pod_storage_type_t.
struct backend {
    const char *name;
    int (*open_dir)(int);
    int (*read_dir)(int, int, time_t *);
    int (*open_log)(int, int);
    int (*read_log)(int, int, time_t *, char *, uint32_t);
    int (*read_raw_log)(int, int, uint8_t *);
    void (*close)(int);
};

constexpr backend backends[] = {
    {"nvram", podlog_nvram_open_dir, podlog_nvram_read_dir, podlog_nvram_open_log,
     podlog_nvram_read_log, nullptr, podlog_nvram_close},
    {"file", podlog_file_open_dir, podlog_file_read_dir, podlog_file_open_log, podlog_file_read_log,
     podlog_file_read_raw_log, podlog_file_close},
    {"eeprom", podlog_eeprom_open_dir, podlog_eeprom_read_dir, podlog_eeprom_open_log,
     podlog_eeprom_read_log, podlog_eeprom_read_raw_log, podlog_eeprom_close},
};

constexpr int no_more = -2;
constexpr size_t largest_entry = 4096;

// Closes a storage at the end of its use; one that a failing call has closed already is no error.
class closing
{
public:
    closing(const backend &kind, int id) : kind_(kind), id_(id) {}
    ~closing()
    {
        ask([this] {
            kind_.close(id_);
            return 0;
        });
    }
    closing(const closing &) = delete;
    closing &operator=(const closing &) = delete;

private:
    const backend &kind_;
    int id_;
};

//--- an EEPROM in a file --------------------------------------------------------------------------

int eeprom_file = -1;
constexpr off_t eeprom_size = 8192;
constexpr off_t reach_beyond = 64; // accesses a little beyond the end are in order

bool reaches(uint32_t offset, uint32_t num_byte)
{
    return static_cast<off_t>(offset) + static_cast<off_t>(num_byte) <= eeprom_size + reach_beyond;
}

int read_eeprom(uint32_t offset, uint8_t *buffer, uint32_t num_byte)
{
    if (!reaches(offset, num_byte))
        return -1;
    std::memset(buffer, 0, num_byte);
    const ssize_t n = ::pread(eeprom_file, buffer, num_byte, static_cast<off_t>(offset));
    return n < 0 ? -1 : static_cast<int>(num_byte);
}

int write_eeprom(uint32_t offset, uint8_t *buffer, uint32_t num_byte)
{
    if (!reaches(offset, num_byte))
        return -1;
    return static_cast<int>(::pwrite(eeprom_file, buffer, num_byte, static_cast<off_t>(offset)));
}

} // namespace

void bind_eeprom_file(int eeprom, const std::string &path, bool writable)
{
    const int flags = writable ? O_RDWR | O_CREAT : O_RDONLY;
    eeprom_file = ::open(path.c_str(), flags | O_CLOEXEC, 0666);
    if (eeprom_file < 0)
        throw failure("open " + path, std::strerror(errno),
                      "'devaccess podlog copy' makes a file that holds an EEPROM");
    podlog_bind_eeprom_access_func(eeprom, read_eeprom, write_eeprom);
}

//--- logs -----------------------------------------------------------------------------------------

const char *storage_name(pod_storage_type_t type)
{
    return backends[type].name;
}

std::vector<log_history> pod_storage::histories() const
{
    const backend &kind = backends[type_];
    const std::string what = "read the POD log of " + owner_;
    auto reply = ask([&] { return kind.open_dir(id_); });
    if (reply.result == -1)
        fail(what, reply, log_hint);
    std::vector<log_history> found;
    if (reply.result == no_more)
        return found;
    const closing at_the_end(kind, id_);
    while (reply.result >= 0) {
        log_history history = {reply.result, 0};
        reply = ask([&] { return kind.read_dir(id_, history.number, &history.time); });
        if (reply.result == -1)
            fail(what, reply, log_hint);
        found.push_back(history);
    }
    return found;
}

// Visits the entries of a history; read_one reads the one at a position and returns the next one's.
// Returns how it failed, if it did.
std::optional<outcome> pod_storage::walk(int history,
                                         const std::function<int(int position)> &read_one) const
{
    const backend &kind = backends[type_];
    auto reply = ask([&] { return kind.open_log(id_, history); });
    if (reply.result < 0)
        fail("read history " + std::to_string(history) + " of " + owner_,
             reply.or_else("it holds no good entry"),
             "'devaccess podlog list " + owner_ + "' shows the histories");
    const closing at_the_end(kind, id_);
    while (reply.result > 0) {
        const int position = reply.result;
        reply = ask([&] { return read_one(position); });
    }
    if (reply.result == no_more)
        return std::nullopt;
    return reply.or_else("an entry is not valid");
}

log_contents pod_storage::read(int history) const
{
    log_contents contents;
    const auto broken = walk(history, [&](int position) {
        char message[largest_entry] = "";
        log_entry entry = {};
        const int next =
            backends[type_].read_log(id_, position, &entry.time, message, sizeof message);
        entry.message = printable(std::string(message, sizeof message));
        if (next != -1)
            contents.entries.push_back(entry);
        return next;
    });
    if (broken)
        contents.broken.emplace("read all of history " + std::to_string(history) + " of " + owner_,
                                broken->why(), "what is shown is good", broken->error);
    return contents;
}

int pod_storage::copy(int history, int eeprom) const
{
    if (!backends[type_].read_raw_log)
        throw failure("copy the log of " + owner_, "NVRAM entries cannot be copied as they are",
                      "'devaccess podlog cards' shows what each card has");
    const auto ready = ask([&] { return podlog_eeprom_init(eeprom, 0); });
    if (ready.result != 1)
        fail("open the EEPROM of " + owner_, ready, "is the file an EEPROM's contents?");
    int copied = 0;
    const auto broken = walk(history, [&](int position) {
        uint8_t entry[largest_entry] = {};
        const int next = backends[type_].read_raw_log(id_, position, entry);
        if (next == -1 || podlog_eeprom_add_raw_log(eeprom, entry) == -1)
            return -1;
        ++copied;
        return next;
    });
    const auto moved = ask([&] { return podlog_eeprom_use_nxt_log(eeprom); });
    if (broken)
        fail("copy the log of " + owner_, *broken, log_hint);
    if (moved.result != 1)
        fail("start the EEPROM's next history", moved, "is the file writable?");
    return copied;
}

} // namespace devaccess

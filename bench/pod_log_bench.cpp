// The POD log in a file and in NVRAM, whose node is a plain file of memory here, compared with the
// system calls that each operation needs: every record read or written once.
#include "bench/bench.h"
#include "sim/base/files.h"

#include <device_access/pod_log.h>
#include <device_access/pod_log_file.h>
#include <device_access/pod_log_nvram.h>
#include <device_access/slot_names.h>

#include <cstring>
#include <memory>

#include <fcntl.h>
#include <unistd.h>

namespace bench
{
namespace
{

constexpr int histories = 10;
constexpr int entries_of_full = 19;
constexpr int message_size = 64;
constexpr off_t entry_size = 16 + message_size;

struct storage {
    const char *label;
    char card[8];
    const char *path;
    pod_storage_type_t type;
    int device;
    decltype(&podlog_file_reset) reset;
    off_t first_header;
    off_t history_size;
    size_t index_size;
    bool is_checked; // opening checks every history's header, with a pause between two
    int instance = -1;
};

storage storages[] = {
    {"file", "SW1", "/var/pod/pod_sw1.hex", PODSTORAGE_FILE, 2, podlog_file_reset, 44, 1635, 12,
     false},
    {"NVRAM", "RP1", "/dev/nvlog-pod", PODSTORAGE_NVRAM, 0, podlog_nvram_reset, 48, 1600, 16, true},
};

void configure()
{
    pod_storage_info_t registry = {};
    for (storage &s : storages) {
        s.instance = GetSlotByName(s.card)->slotN;
        require(s.instance != -1, s.card);
        storage_info_t &row = registry.dev[registry.num_storage++];
        std::strcpy(row.inst_name, s.card);
        row.inst_id = s.instance;
        row.type = s.type;
        row.storage_inst_id = s.device;
        row.secondary_storage_inst_id = -1;
    }
    podlog_config_pod_storage_info(&registry);
    for (const storage &s : storages)
        chassis_sim::write_file(s.path, std::string(16384, '\0'));
}

void library_add(const storage &s)
{
    char level[] = "INFO ";
    char name[] = "memtest";
    require(podlog_add(s.instance, level, name, "ok", "bank %d", 5) != -1, "podlog_add");
}

// Leaves the log open, with so many histories full, and so many entries in the one after them.
void fill(const storage &s, int full, int more)
{
    require(podlog_init(s.instance, 0) == 1 && s.reset(s.device) == 1, "formatting");
    for (int history = 0; history < full; ++history) {
        for (int i = 0; i < entries_of_full; ++i)
            library_add(s);
        if (history + 1 < histories)
            podlog_use_nxt_log(s.instance);
    }
    for (int i = 0; i < more; ++i)
        library_add(s);
}

// A log that is open while the object lives, and the same file for bare calls.
class open_log
{
public:
    open_log(const storage &s, int full, int more) : storage_(s)
    {
        fill(s, full, more);
        file_ = ::open(s.path, O_RDWR | O_CLOEXEC);
        read_all(header_, s.first_header + full * s.history_size);
    }
    ~open_log()
    {
        ::close(file_);
        podlog_close(storage_.instance);
    }
    open_log(const open_log &) = delete;
    open_log &operator=(const open_log &) = delete;

    void restore_header(int history) const { write_all(header_, header_at(history)); }

    void bare_add(int history, int entry) const
    {
        char index[16];
        char header[20];
        char head[16];
        char message[22] = {};
        const off_t at = header_at(history) + 20 + entry * entry_size;
        read_all(index, 32);
        read_all(header, header_at(history));
        read_all(head, at);
        write_all(head, at);
        write_all(message, at + 16);
        write_all(header, header_at(history));
    }

private:
    off_t header_at(int history) const
    {
        return storage_.first_header + history * storage_.history_size;
    }
    template <size_t size>
    void read_all(char (&record)[size], off_t position) const
    {
        require(::pread(file_, record, size, position) == ssize_t{size}, "pread");
    }
    template <size_t size>
    void write_all(const char (&record)[size], off_t position) const
    {
        require(::pwrite(file_, record, size, position) == ssize_t{size}, "pwrite");
    }

    const storage &storage_;
    int file_;
    char header_[20];
};

std::string name_of(const char *operation, const storage &s, const std::string &state)
{
    return std::string(operation) + ", " + s.label + ", " + state;
}

// Entries into an empty history, which is then made empty again by one more write.
void add_row_of_empty(const storage &s)
{
    constexpr int entries = 16;
    const auto prepare = [&s] { return std::make_shared<open_log>(s, 0, 0); };
    add({.name = name_of("podlog_add", s, "empty ring"),
         .library = {"library",
                     [=, &s] {
                         return [log = prepare(), &s] {
                             for (int i = 0; i < entries; ++i)
                                 library_add(s);
                             log->restore_header(0);
                         };
                     }},
         .peers = {{"3 pread, 3 pwrite",
                    [=] {
                        return [log = prepare()] {
                            for (int i = 0; i < entries; ++i)
                                log->bare_add(0, i);
                            log->restore_header(0);
                        };
                    }}},
         .operations = entries});
}

void add_row_of_full(const storage &s)
{
    const auto prepare = [&s] {
        return std::make_shared<open_log>(s, histories - 1, entries_of_full);
    };
    add({.name = name_of("podlog_add", s, "full ring"),
         .library = {"library", [=, &s] { return [log = prepare(), &s] { library_add(s); }; }},
         .peers = {{"3 pread, 3 pwrite", [=] {
                        return [log = prepare()] { log->bare_add(9, entries_of_full - 1); };
                    }}}});
}

//--- reading
//---------------------------------------------------------------------------------------

class bare_reader
{
public:
    explicit bare_reader(const storage &s)
        : storage_(s), file_(::open(s.path, O_RDONLY | O_EXCL | O_CLOEXEC))
    {
        char index[16];
        read(index, s.index_size, 32);
        for (int history = 0; s.is_checked && history < histories; ++history) {
            if (history > 0)
                ::usleep(200);
            read_header(history);
        }
    }
    ~bare_reader() { ::close(file_); }
    bare_reader(const bare_reader &) = delete;
    bare_reader &operator=(const bare_reader &) = delete;

    void read_header(int history) const
    {
        char header[20];
        read(header, sizeof header, header_at(history));
    }
    void read_head(int history, int entry) const
    {
        char head[16];
        read(head, sizeof head, entry_at(history, entry));
    }
    void read_message(int history, int entry) const
    {
        char message[message_size];
        read(message, sizeof message, entry_at(history, entry) + 16);
    }

private:
    off_t header_at(int history) const
    {
        return storage_.first_header + history * storage_.history_size;
    }
    off_t entry_at(int history, int entry) const
    {
        return header_at(history) + 20 + entry * entry_size;
    }
    void read(void *record, size_t size, off_t position) const
    {
        require(::pread(file_, record, size, position) == static_cast<ssize_t>(size), "pread");
    }

    const storage &storage_;
    int file_;
};

void close_filled(const storage &s, int full, int more)
{
    fill(s, full, more);
    podlog_close(s.instance);
}

void library_walk(const storage &s, int expected)
{
    int history = podlog_open_dir(s.card);
    int visited = 0;
    for (; history >= 0; ++visited) {
        time_t ts;
        history = podlog_read_dir(history, &ts);
    }
    // An empty log is closed by the opening call.
    if (visited > 0)
        podlog_close_dir(s.card);
    require(visited == expected && history == -2, "the walk");
}

void bare_walk(const storage &s, int full)
{
    const bare_reader reader(s);
    for (int history = 0; history < histories; ++history) {
        reader.read_header(history);
        if (history < full)
            reader.read_head(history, 0);
    }
}

void add_row_of_walk(const storage &s, int full, const char *state)
{
    const auto prepare = [&s, full] { close_filled(s, full, 0); };
    add({.name = name_of("walk", s, state),
         .library = {"library",
                     [=, &s] {
                         prepare();
                         return [&s, full] { library_walk(s, full); };
                     }},
         .peers = {{"each record once, bare", [=, &s] {
                        prepare();
                        return [&s, full] { bare_walk(s, full); };
                    }}}});
}

void library_read(const storage &s, int expected)
{
    int position = podlog_open_log(s.card, 0);
    int entries = 0;
    for (; position > 0; ++entries) {
        time_t ts;
        char message[message_size];
        position = podlog_read_log(position, &ts, message, sizeof message);
    }
    podlog_close_log(s.card, 0);
    require(entries == expected && position == -2, "reading");
}

void bare_read(const storage &s, int entries)
{
    const bare_reader reader(s);
    reader.read_header(0);
    for (int entry = 0; entry < entries; ++entry) {
        reader.read_head(0, entry);
        reader.read_message(0, entry);
    }
    reader.read_head(0, entries);
}

void add_row_of_read(const storage &s, int entries)
{
    const auto prepare = [&s, entries] {
        close_filled(s, entries == entries_of_full, entries % entries_of_full);
    };
    add({.name =
             name_of("read", s, std::to_string(entries) + (entries > 1 ? " entries" : " entry")),
         .library = {"library",
                     [=, &s] {
                         prepare();
                         return [&s, entries] { library_read(s, entries); };
                     }},
         .peers = {{"each record once, bare", [=, &s] {
                        prepare();
                        return [&s, entries] { bare_read(s, entries); };
                    }}}});
}

} // namespace

void add_pod_log_rows()
{
    configure();
    for (const storage &s : storages) {
        add_row_of_empty(s);
        add_row_of_full(s);
        add_row_of_walk(s, 0, "empty ring");
        add_row_of_walk(s, histories / 2, "half full ring");
        add_row_of_walk(s, histories, "full ring");
        add_row_of_read(s, 1);
        add_row_of_read(s, entries_of_full);
    }
}

} // namespace bench

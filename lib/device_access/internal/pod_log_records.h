// The records of the POD log, as they lie on every kind of storage.
#pragma once

#include <device_access/pod_log_nvram.h>

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <ctime>

namespace device_access
{

// History header and entry header are the same on every storage.
using pod_header = podlog::nvram_log_header_t;
using pod_entry = podlog::nvram_log_t;

static_assert(sizeof(podlog::nvram_log_index_t) == 16);
static_assert(offsetof(podlog::nvram_log_index_t, checksum) == 12);

// The index of a file or an EEPROM.
struct pod_bare_index {
    uint32_t magic;
    uint32_t header_index; // number of the current history
    uint32_t log_size;     // history size in bytes
};
static_assert(sizeof(pod_bare_index) == 12);
static_assert(offsetof(pod_bare_index, log_size) == 8);

static_assert(sizeof(pod_header) == 20);
static_assert(offsetof(pod_header, log_size) == 4);
static_assert(offsetof(pod_header, index) == 8);
static_assert(offsetof(pod_header, version) == 12);
static_assert(offsetof(pod_header, start) == 16);

static_assert(sizeof(pod_entry) == 16);
static_assert(offsetof(pod_entry, log_checksum) == 8);
static_assert(offsetof(pod_entry, entry_size) == 12);

uint32_t checksum_of(const podlog::nvram_log_index_t &index);

// A record is valid when its checksum is right; nothing else is looked at.
bool is_valid(const pod_header &header);
bool is_valid(const pod_entry &entry);

pod_header fresh_header(int64_t position, uint32_t log_size);
void seal(pod_header &header);

// The header of an entry that is added now.
pod_entry entry_of_now(uint32_t entry_size);
time_t time_of(const pod_entry &entry);

// The message of an entry, composed from its four parts.
class pod_message
{
public:
    pod_message(const char *event_level, const char *diag_string, const char *ret_string,
                const char *fmt, va_list args);
    const char *text() const { return text_; }
    uint32_t size() const { return size_; } // bytes to store, the NUL included

private:
    uint32_t append(const char *part, uint32_t room);
    void append_spaced(const char *part);

    char text_[64] = {};
    uint32_t size_ = 0;
};

// A device's path out of the name field of its table row, which may lack a NUL.
struct pod_device_path {
    explicit pod_device_path(const char (&name)[40]);
    char str[41];
};

// Copies at most size bytes of name, and NULs up to size behind a shorter one.
void copy_pod_name(char *field, const char *name, size_t size);

} // namespace device_access

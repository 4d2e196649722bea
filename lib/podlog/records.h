// The records of the POD log, as they lie on every kind of storage.
#pragma once

#include <device_access/pod_log_eeprom.h>
#include <device_access/pod_log_file.h>
#include <device_access/pod_log_nvram.h>

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <ctime>

namespace device_access
{

// Files and EEPROMs store the same index without its checksum; the rest is the same everywhere.
using pod_index = podlog::nvram_log_index_t;
using pod_header = file_log_header_t;
using pod_entry = file_log_t;

template <typename Index>
constexpr bool is_laid_out_as_index = offsetof(Index, header_index) == 4 &&
                                      offsetof(Index, log_size) == 8;
static_assert(is_laid_out_as_index<pod_index> && sizeof(pod_index) == 16);
static_assert(is_laid_out_as_index<file_log_index_t> && sizeof(file_log_index_t) == 12);
static_assert(offsetof(pod_index, checksum) == sizeof(file_log_index_t));

template <typename Header>
constexpr bool is_laid_out_as_header = sizeof(Header) == 20 && offsetof(Header, log_size) == 4 &&
                                       offsetof(Header, index) == 8 &&
                                       offsetof(Header, version) == 12 &&
                                       offsetof(Header, start) == 16;
static_assert(is_laid_out_as_header<pod_header>);
static_assert(is_laid_out_as_header<podlog::nvram_log_header_t>);

template <typename Entry>
constexpr bool is_laid_out_as_entry = sizeof(Entry) == 16 && offsetof(Entry, log_checksum) == 8 &&
                                      offsetof(Entry, entry_size) == 12;
static_assert(is_laid_out_as_entry<pod_entry>);
static_assert(is_laid_out_as_entry<podlog::nvram_log_t>);

uint32_t checksum_of(const pod_index &index);

// A record is valid when its checksum is right; nothing else is looked at.
bool validate_hdr(const pod_header &header);
bool validate_log_entry(const pod_entry &entry);

pod_header fresh_header(int64_t position, uint32_t log_size);
void seal(pod_header &header);
void seal(pod_index &index);

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

    char text_[64];
    uint32_t size_ = 0;
};

// A device's path out of the name field of its table row, which may lack a NUL.
struct pod_device_path {
    explicit pod_device_path(const char (&name)[40]);
    char str[41];
};

// Copies at most size bytes of name, and NULs up to size after a shorter one.
void copy_pod_name(char *field, const char *name, size_t size);

} // namespace device_access

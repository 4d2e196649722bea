// The records of the POD log: sealed, validated and composed.
#include "lib/podlog/records.h"

#include <device_access/pod_log_crc_tmp.h>

#include "lib/base/clock.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace device_access
{
namespace
{

constexpr uint32_t header_version = 0x1122;

uint32_t checksum_of(const pod_header &header)
{
    return crc32_cksum(&header.log_size, sizeof header - offsetof(pod_header, log_size));
}

uint32_t checksum_of(pod_entry entry)
{
    entry.log_checksum = 0;
    return crc32_cksum(&entry, sizeof entry);
}

} // namespace

uint32_t checksum_of(const pod_index &index)
{
    return crc32_cksum(&index, offsetof(pod_index, checksum));
}

bool validate_hdr(const pod_header &header)
{
    return header.header_checksum == checksum_of(header);
}

bool validate_log_entry(const pod_entry &entry)
{
    return entry.log_checksum == checksum_of(entry);
}

pod_header fresh_header(int64_t position, uint32_t log_size)
{
    pod_header header = {};
    header.log_size = log_size;
    header.version = header_version;
    header.start = static_cast<uint32_t>(position) + uint32_t{sizeof header};
    seal(header);
    return header;
}

void seal(pod_header &header)
{
    header.header_checksum = checksum_of(header);
}

void seal(pod_index &index)
{
    index.checksum = checksum_of(index);
}

pod_entry entry_of_now(uint32_t entry_size)
{
    pod_entry entry = {};
    entry.epoch_time = static_cast<uint64_t>(int64_t{static_cast<int32_t>(seconds_since_epoch())});
    entry.entry_size = entry_size;
    entry.log_checksum = checksum_of(entry);
    return entry;
}

time_t time_of(const pod_entry &entry)
{
    return static_cast<time_t>(static_cast<uint32_t>(entry.epoch_time));
}

pod_message::pod_message(const char *event_level, const char *diag_string, const char *ret_string,
                         const char *fmt, va_list args)
{
    char formatted[sizeof text_];
    formatted[0] = '\0';
    std::vsnprintf(formatted, sizeof formatted, fmt, args);
    if (event_level)
        append(event_level, sizeof text_);
    append_spaced(diag_string);
    append_spaced(ret_string);
    append(formatted, uint32_t{sizeof text_} - size_);
    size_ = std::min(size_ + 1, uint32_t{sizeof text_});
    text_[size_ - 1] = '\0';
}

uint32_t pod_message::append(const char *part, uint32_t room)
{
    uint32_t length = 0;
    for (; length < room && part[length] != '\0'; ++length)
        text_[size_++] = part[length];
    return length;
}

void pod_message::append_spaced(const char *part)
{
    constexpr char separator[] = "  ";
    constexpr uint32_t limit = sizeof text_ - 2;
    if (part && size_ < limit && append(part, limit - size_) > 0)
        append(separator, 2);
}

pod_device_path::pod_device_path(const char (&name)[40])
{
    std::memcpy(str, name, sizeof name);
    str[sizeof name] = '\0';
}

void copy_pod_name(char *field, const char *name, size_t size)
{
    const size_t length = strnlen(name, size);
    std::memcpy(field, name, length);
    std::memset(field + length, 0, size - length);
}

} // namespace device_access

#include "fuzz/pod_storage.h"

#include <device_access/pod_log_crc_tmp.h>

#include <algorithm>
#include <cstdarg>
#include <memory>

namespace fuzz
{
namespace
{

constexpr uint32_t index_position = 32;
constexpr uint32_t header_size = 20;
constexpr uint32_t entry_size = 16;
constexpr int message_size = 64;
constexpr int id = pod_device;

struct geometry {
    int size;
    int histories;
    uint32_t history_size;
};

bool is_whole(uint8_t options)
{
    return (options & 2) == 0;
}

geometry geometry_of(const pod_storage &storage, uint8_t options)
{
    const bool usual = (options & 4) != 0;
    const int size = usual ? storage.usual_size : storage.small_size;
    const int histories = usual ? storage.usual_histories : 3;
    const int overhead = storage.index_has_checksum ? 100 : 32;
    return {size, histories, static_cast<uint32_t>((size - overhead) / histories) & ~3u};
}

uint32_t checksum(const std::string &image, uint64_t position, size_t size)
{
    return crc32_cksum(image.data() + position, size);
}

void seal_entry(std::string &image, uint64_t position)
{
    if (position + entry_size > image.size())
        return;
    store32(image, position + 8, 0);
    store32(image, position + 8, checksum(image, position, entry_size));
}

// Entries are found in a chain, and at a fixed distance.
void seal_entries(std::string &image, uint64_t first)
{
    for (uint64_t position = first; !is_blank(image, position, entry_size);
         position += entry_size + uint64_t{load32(image, position + 12)})
        seal_entry(image, position);
    for (uint64_t position = first; !is_blank(image, position, entry_size); position += 80)
        seal_entry(image, position);
}

void seal(std::string &image, const pod_storage &storage, const geometry &shape)
{
    store32(image, index_position, storage.magic);
    if (storage.index_has_checksum && image.size() >= index_position + 16)
        store32(image, index_position + 12, checksum(image, index_position, 12));
    const uint32_t stated = load32(image, index_position + 8);
    const uint32_t distance = storage.index_has_checksum ? shape.history_size : stated;
    for (uint64_t history = 0; history < static_cast<uint64_t>(shape.histories); ++history) {
        const uint64_t position = storage.first_header + history * distance;
        if (position + header_size > image.size())
            return;
        seal_entries(image, load32(image, position + 16));
        store32(image, position, checksum(image, position + 4, header_size - 4));
    }
}

int add(const pod_storage &storage, const char *fmt, ...)
{
    char level[] = "INFO ";
    char name[] = "memtest";
    va_list args;
    va_start(args, fmt);
    const int result = storage.add(id, level, name, "ok", fmt, args);
    va_end(args);
    return result;
}

// A storage that is left open cannot be opened by the next call: every opening call closes on
// failure, and every walk is closed.
void walk(const pod_storage &storage, int histories)
{
    int history = storage.open_dir(id);
    if (history < 0)
        return;
    for (int visited = 0; history >= 0; ++visited) {
        require(history < histories && visited < histories);
        time_t ts;
        history = storage.read_dir(id, history, &ts);
    }
    require(storage.close_dir(id) == 1);
}

void read_history(const pod_storage &storage, int history, uint32_t room, size_t size)
{
    int position = storage.open_log(id, history);
    if (position == -1)
        return;
    require(position > 0);
    const auto message = std::make_unique<char[]>(room);
    const auto raw = std::make_unique<uint8_t[]>(entry_size + message_size);
    for (size_t seen = 0; position > 0; ++seen) {
        require(seen <= size / entry_size);
        if (storage.read_raw_log)
            storage.read_raw_log(id, position, raw.get());
        time_t ts;
        const int next = storage.read_log(id, position, &ts, message.get(), room);
        require(next < 0 || next >= position + static_cast<int>(entry_size));
        position = next;
    }
    storage.close(id);
}

// A whole storage can be formatted, whatever it held, and then keeps a log.
void write_log(const pod_storage &storage, int histories, bool whole)
{
    if (storage.init(id, 0) != 1)
        return;
    storage.dump_curr_log_msgs(id);
    for (int history = -1; history <= histories; ++history)
        storage.dump_log_msgs(id, history);
    for (int i = 0; i < 4; ++i)
        add(storage, "%d", i);
    storage.set_curr_log_status(id, 0);
    storage.use_nxt_log(id);
    add(storage, "%s", "a message that is longer than what an entry has room for, and is cut");
    const int formatted = storage.reset(id);
    const int added = add(storage, "first");
    storage.close(id);
    const int newest = storage.open_dir(id);
    if (newest >= 0)
        storage.close_dir(id);
    require(!whole || (formatted == 1 && added == 1 && newest == 0));
}

} // namespace

std::string prepare_pod_storage(const pod_storage &storage, std::string_view input)
{
    const uint8_t options = take_options(input);
    const geometry shape = geometry_of(storage, options);
    std::string image(input.substr(0, static_cast<size_t>(shape.size)));
    if (is_whole(options))
        image.resize(static_cast<size_t>(shape.size));
    if (options & 1)
        seal(image, storage, shape);
    storage.set_pod_info(id, storage.path, shape.size, shape.histories, message_size, ~3u);
    return image;
}

void use_pod_storage(const pod_storage &storage, std::string_view input)
{
    const std::string image = prepare_pod_storage(storage, input);
    const uint8_t options = take_options(input);
    const int histories = geometry_of(storage, options).histories;
    const descriptor_check descriptors;
    storage.fill(image);
    const uint32_t rooms[] = {1, 5, 64, 300};
    walk(storage, histories);
    for (int history = -1; history <= histories; ++history)
        read_history(storage, history, rooms[options >> 3 & 3], image.size());
    storage.dump_all_log_msgs(id);
    write_log(storage, histories, is_whole(options));
}

} // namespace fuzz

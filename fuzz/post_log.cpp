#include "fuzz/post_log.h"

#include <device_access/pod_log_crc_tmp.h>

#include <algorithm>
#include <cstring>
#include <memory>

namespace fuzz
{
namespace
{

constexpr uint32_t index_magic = 0x106F11E5;
constexpr uint32_t index_size = 12;
constexpr uint32_t header_size = 24;
constexpr uint32_t entry_size = 40;
constexpr uint64_t checksum_in_entry = 32;

nvram_dev_info_t table[3];

// The words of a record in the order of the block.
class image_words
{
public:
    image_words(std::string &image, bool big_endian) : image_(image), big_endian_(big_endian) {}

    uint32_t load(uint64_t position) const { return ordered(load32(image_, position)); }
    void store(uint64_t position, uint32_t value) { store32(image_, position, ordered(value)); }
    bool is_blank(uint64_t position) const { return fuzz::is_blank(image_, position, entry_size); }
    bool has(uint64_t position, uint32_t size) const { return position + size <= image_.size(); }
    uint32_t checksum(uint64_t position, uint32_t size) const
    {
        return crc32_cksum(image_.data() + position, size);
    }

private:
    uint32_t ordered(uint32_t value) const
    {
        return big_endian_ ? __builtin_bswap32(value) : value;
    }
    std::string &image_;
    bool big_endian_;
};

void seal_entry(image_words &words, uint64_t position)
{
    if (!words.has(position, entry_size))
        return;
    words.store(position + checksum_in_entry, 0);
    words.store(position + checksum_in_entry, words.checksum(position, entry_size));
}

void seal_history(image_words &words, uint64_t header, int message_size)
{
    if (!words.has(header, header_size))
        return;
    const uint64_t first = header + header_size;
    for (uint64_t position = first; !words.is_blank(position);
         position += entry_size + uint64_t{words.load(position + checksum_in_entry + 4)})
        seal_entry(words, position);
    for (uint64_t position = first; !words.is_blank(position);
         position += entry_size + static_cast<uint64_t>(message_size))
        seal_entry(words, position);
    words.store(header, words.checksum(header + 4, header_size - 4));
}

void seal(std::string &image, bool big_endian, const nvram_dev_info_t &row)
{
    image_words words(image, big_endian);
    if (row.num_subblock < 2)
        return seal_history(words, 0, row.msg_size);
    words.store(0, index_magic);
    const uint32_t distance = words.load(8);
    for (uint64_t history = 0; history < static_cast<uint64_t>(row.num_subblock); ++history)
        seal_history(words, index_size + history * distance, row.msg_size);
}

void walk(log_type_t blk, int histories)
{
    int history = postlog_nvram_open_dir(blk);
    for (int visited = 0; history >= 0; ++visited) {
        require(history < std::max(histories, 1) && visited < std::max(histories, 1));
        time_t ts;
        history = postlog_nvram_read_dir(blk, history, &ts);
    }
    postlog_nvram_close_dir(blk);
}

void read_history(log_type_t blk, int history, uint32_t room)
{
    int position = postlog_nvram_open_log(blk, history);
    const auto message = std::make_unique<char[]>(room);
    for (size_t seen = 0; position > 0; ++seen) {
        require(seen <= post_block_size / entry_size);
        time_t ts;
        const int next = postlog_nvram_read_log(blk, position, &ts, message.get(), room);
        require(next < 0 || next >= position + static_cast<int>(entry_size));
        position = next;
    }
    postlog_nvram_close_log(blk, history);
}

void use_open_block(log_type_t blk, int histories)
{
    if (postlog_nvram_init(blk) != 1)
        return;
    postlog_nvram_dump_curr_log_msgs(blk);
    for (int history = -1; history <= histories; ++history)
        postlog_nvram_dump_log_msgs(blk, history);
    post_get_curr_log_hdr_pos(blk);
    post_get_nxt_log_pos(blk);
    nvram_log_header_t header = {};
    if (postlog_rd_log_header(blk, 0, &header) == 1)
        post_dump_log_block_header(&header);
    postlog_nvram_close(blk);
}

} // namespace

nvram_dev_info_t *fresh_post_table()
{
    static const nvram_dev_info_t rows[] = {
        {"/dev/nvlog-ofw-event", "nvlog-ofw-event", 0, post_block_size, 1, 128, ~31u, 0, -1, 1},
        {"/dev/nvlog-diag-test", "nvlog-diag-test", 0, post_block_size, 3, 32, ~31u, 0, -1, 1},
        {"/dev/nvlog-diag-error", "nvlog-diag-error", 0, post_block_size, 3, 128, ~31u, 0, -1, 1},
    };
    std::memcpy(table, rows, sizeof table);
    return table;
}

void use_post_log(const post_method &method, std::string_view input)
{
    const uint8_t options = take_options(input);
    const auto blk = static_cast<log_type_t>(options >> 2 & 3);
    const nvram_dev_info_t &row = fresh_post_table()[blk % 3];
    const int histories = row.num_subblock;
    std::string image(input.substr(0, post_block_size));
    if ((options & 2) == 0)
        image.resize(post_block_size);
    if (options & 1)
        seal(image, method.big_endian, row);

    const descriptor_check descriptors;
    method.fill(blk, image);
    const uint32_t rooms[] = {1, 5, 128, 300};
    walk(blk, histories);
    for (int history = -1; history <= histories; ++history)
        read_history(blk, history, rooms[options >> 4 & 3]);
    postlog_nvram_dump_all_log_msgs(blk);
    use_open_block(blk, histories);
}

} // namespace fuzz

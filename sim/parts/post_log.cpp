// Puts POST logs together.
#include "sim/parts/post_log.h"

#include "sim/parts/nvram.h"

namespace chassis_sim
{
namespace
{

constexpr size_t index_size = 12;
constexpr size_t post_header_size = 24;
constexpr size_t entry_head_size = 40;

} // namespace

std::string post_index(byte_order order, uint32_t header_index, uint32_t log_size, uint32_t magic)
{
    return number(order, magic, 4) + number(order, header_index, 4) + number(order, log_size, 4);
}

std::string post_header(byte_order order, uint32_t log_size, uint32_t index, uint64_t start,
                        uint32_t version)
{
    const std::string fields = number(order, log_size, 4) + number(order, index, 4) +
                               number(order, version, 4) + number(order, start, 8);
    return number(order, cksum(fields), 4) + fields;
}

std::string post_entry_head(byte_order order, uint64_t seconds, uint64_t seconds_since_boot,
                            uint32_t entry_size)
{
    const std::string times = number(order, seconds, 8) + number(order, 0, 8) +
                              number(order, seconds_since_boot, 8) + number(order, 0, 8);
    const std::string size = number(order, entry_size, 4);
    return times + number(order, cksum(times + number(order, 0, 4) + size), 4) + size;
}

uint32_t post_block::log_size() const
{
    return static_cast<uint32_t>(size / histories.size() & ~size_t{31});
}

size_t post_block::header_position(size_t history) const
{
    return histories.size() < 2 ? 0 : index_size + history * log_size();
}

size_t post_block::entry_position(size_t history, size_t entry) const
{
    return header_position(history) + post_header_size + entry * (entry_head_size + message_size);
}

std::string post_block::image(byte_order order) const
{
    std::string bytes(size, '\0');
    if (histories.size() > 1)
        put(bytes, 0, post_index(order, current, log_size()));
    for (size_t h = 0; h < histories.size(); ++h) {
        const auto &entries = histories[h];
        const size_t used = entries.size() * (entry_head_size + message_size);
        put(bytes, header_position(h),
            post_header(order, log_size(), static_cast<uint32_t>(used), entry_position(h, 0)));
        for (size_t k = 0; k < entries.size(); ++k) {
            const post_entry &entry = entries[k];
            put(bytes, entry_position(h, k),
                post_entry_head(order, entry.seconds, entry.seconds_since_boot,
                                static_cast<uint32_t>(message_size)));
            put(bytes, entry_position(h, k) + entry_head_size,
                entry.message.substr(0, message_size));
        }
    }
    return bytes;
}

std::vector<post_block> sample_post_logs()
{
    const uint64_t boot = 1700000000;
    post_block event = {"nvlog-ofw-event", 8192, 128, 0, {{}}};
    event.histories[0] = {{boot, 3, "power-on reset"},
                          {boot + 4, 7, "memory sized: 2048 MB"},
                          {boot + 9, 12, "handing over to the kernel"}};

    post_block test = {"nvlog-diag-test", 16384, 32, 2, {}};
    test.histories.resize(10);
    for (size_t run = 0; run < 3; ++run) {
        const uint64_t start = boot + uint64_t{run} * 86400;
        test.histories[run] = {{start + 5, 8, "DRAM march: pass"},
                               {start + 6, 9, run == 1 ? "PCIe link: FAIL" : "PCIe link: pass"}};
    }

    post_block error = {"nvlog-diag-error", 32768, 128, 2, {}};
    error.histories.resize(10);
    error.histories[1] = {{boot + 86406, 9, "PCIe link: slot SW2 trained to x1, expected x4"}};
    return {event, test, error};
}

std::vector<nvram_image> images(const std::vector<post_block> &blocks)
{
    std::vector<nvram_image> made;
    for (const post_block &block : blocks)
        made.push_back({block.name, block.image(byte_order::little)});
    return made;
}

void add_post_logs(chassis_nodes &nodes, const std::vector<nvram_image> &blocks,
                   unsigned int first_number)
{
    uint32_t base_address = 0xF0004000;
    for (const nvram_image &block : blocks) {
        nvram_description nvram;
        nvram.number = first_number++;
        nvram.name = block.name;
        nvram.contents = block.contents;
        nvram.base_address = base_address;
        add_nvram(nodes, nvram);
        base_address += static_cast<uint32_t>(block.contents.size());
    }
}

void add_post_logs(chassis_nodes &nodes, const std::vector<post_block> &blocks,
                   unsigned int first_number)
{
    add_post_logs(nodes, images(blocks), first_number);
}

} // namespace chassis_sim

#include "sim/pod_log.h"

#include <array>

namespace chassis_sim
{
namespace
{

constexpr size_t storage_size = 16384;
constexpr uint32_t history_count = 10;
constexpr uint32_t message_size = 64;
constexpr size_t index_position = 32;
constexpr size_t header_size = 20;
constexpr size_t status_position = storage_size - 72;
constexpr size_t status_words = 8;

// Where a storage keeps its histories.
struct ring {
    size_t first_header;
    uint32_t history_size;
};
constexpr ring nvram_ring = {48, 1600};
constexpr ring file_ring = {44, 1635};

struct run_entry {
    uint64_t seconds;
    std::string message;
};
using run = std::vector<run_entry>;

std::string word(uint32_t value)
{
    return number(byte_order::little, value, 4);
}

void put(std::string &image, size_t position, const std::string &bytes)
{
    image.replace(position, bytes.size(), bytes);
}

std::string history(const run &entries, const ring &where, size_t header_position)
{
    const auto start = static_cast<uint32_t>(header_position + header_size);
    std::string bytes;
    for (const run_entry &entry : entries) {
        std::string message = entry.message;
        message.resize(message_size);
        bytes += pod_entry(entry.seconds, message_size) + message;
    }
    return pod_header(where.history_size, static_cast<uint32_t>(bytes.size()), start) + bytes;
}

// The runs are the histories from 0 on; the next one, empty, is the current one.
std::string log_image(const std::string &index, const ring &where, const std::vector<run> &runs)
{
    std::string image(storage_size, '\0');
    put(image, index_position, index);
    for (size_t i = 0; i < history_count; ++i) {
        const size_t position = where.first_header + i * where.history_size;
        put(image, position, history(i < runs.size() ? runs[i] : run(), where, position));
    }
    return image;
}

std::vector<run> sample_runs(const std::string &card, bool passes)
{
    const uint64_t first = 1700000020;
    const uint64_t second = first + 86400;
    return {{{first, "INFO: memory test  PASS  512 MiB"}, {first + 2, "INFO: " + card + " passed"}},
            {{second, "INFO: memory test  PASS  512 MiB"},
             {second + 1, passes ? "INFO: fabric link  PASS  4 lanes"
                                 : "ERROR: fabric link  FAIL  lane 2: no lock"},
             {second + 2, "INFO: " + card + (passes ? " passed" : " failed")}}};
}

std::string nvram_image(size_t cards)
{
    constexpr uint32_t passed = 0;
    constexpr uint32_t failed = 0x0FFFFFFF;
    constexpr uint32_t unknown = 0x80000000;
    constexpr size_t alsw2 = 3;
    const auto current = static_cast<uint32_t>(sample_runs("", true).size());
    std::string image = log_image(checked_pod_index(0x1FE2C365, current, nvram_ring.history_size),
                                  nvram_ring, sample_runs("RPSW1", true));
    for (size_t i = 0; i < status_words; ++i)
        put(image, status_position + 4 * i,
            word(i == alsw2  ? failed
                 : i < cards ? passed
                             : unknown));
    return image;
}

file_image card_file(const std::string &file, const std::string &card)
{
    const std::vector<run> runs = sample_runs(card, card != "ALSW2");
    const std::string index =
        word(0x1FE2C363) + word(static_cast<uint32_t>(runs.size())) + word(file_ring.history_size);
    return {"/var/pod/pod_" + file + ".hex", log_image(index, file_ring, runs)};
}

void add_cards(std::vector<file_image> &files, const std::string &file, const std::string &card,
               int count, int first_file = 1, int first_card = 1)
{
    for (int i = 0; i < count; ++i)
        files.push_back(card_file(file + std::to_string(first_file + i),
                                  card + std::to_string(first_card + i)));
}

} // namespace

std::string checked_pod_index(uint32_t magic, uint32_t current, uint32_t history_size)
{
    const std::string fields = word(magic) + word(current) + word(history_size);
    return fields + word(cksum(fields));
}

std::string pod_header(uint32_t history_size, uint32_t used, uint32_t start)
{
    const std::string fields = word(history_size) + word(used) + word(0x1122) + word(start);
    return word(cksum(fields)) + fields;
}

std::string pod_entry(uint64_t seconds, uint32_t entry_size)
{
    const std::string time = number(byte_order::little, seconds, 8);
    return time + word(cksum(time + word(0) + word(entry_size))) + word(entry_size);
}

pod_logs sample_pod_logs(chassis_model model)
{
    const bool n20 = model == chassis_model::n20;
    pod_logs logs;
    logs.nvram = nvram_image(n20 ? 8 : 4);
    logs.files.push_back(card_file("rpsw_mate", "RPSW2"));
    add_cards(logs.files, "alsw", "ALSW", 2);
    add_cards(logs.files, "sw", "SW", n20 ? 4 : 0);
    add_cards(logs.files, "ft", "FT", 2);
    add_cards(logs.files, "pem", "PM", n20 ? 8 : model == chassis_model::n10 ? 6 : 3);
    if (model == chassis_model::n4)
        add_cards(logs.files, "pem", "FT", 4, 4, 3); // in the files of power modules it lacks
    return logs;
}

} // namespace chassis_sim

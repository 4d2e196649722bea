// Puts POD logs together.
#include "sim/parts/pod_log.h"

#include "sim/base/files.h"

namespace chassis_sim
{
namespace
{

constexpr uint32_t message_size = 64;
constexpr uint32_t pod_header_size = 20;
constexpr size_t status_words = 8;
constexpr uint32_t status_unknown = 0x80000000;

constexpr pod_layout nvram_layout = {0x1FE2C365, 48, 1600, 10, 16384, 16384 - 72};
constexpr pod_layout file_layout = {0x1FE2C363, 44, 1635, 10, 16384, 0};

std::string word(uint32_t value)
{
    return number(byte_order::little, value, 4);
}

std::string history(const pod_run &entries, const pod_layout &layout, uint32_t header_position)
{
    std::string bytes;
    for (const pod_message &entry : entries) {
        std::string message = entry.text;
        message.resize(message_size);
        bytes += pod_entry(entry.seconds, message_size) + message;
    }
    return pod_header(layout.history_size, static_cast<uint32_t>(bytes.size()),
                      header_position + pod_header_size) +
           bytes;
}

std::vector<pod_run> sample_runs(const std::string &card, bool passes)
{
    const uint64_t first = 1700000020;
    const uint64_t second = first + 86400;
    return {{{first, "INFO: memory test  PASS  512 MiB"}, {first + 2, "INFO: " + card + " passed"}},
            {{second, "INFO: memory test  PASS  512 MiB"},
             {second + 1, passes ? "INFO: fabric link  PASS  4 lanes"
                                 : "ERROR: fabric link  FAIL  lane 2: no lock"},
             {second + 2, "INFO: " + card + (passes ? " passed" : " failed")}}};
}

std::string sample_nvram(size_t cards)
{
    constexpr uint32_t passed = 0;
    constexpr uint32_t failed = 0x0FFFFFFF;
    constexpr size_t alsw2 = 3;
    const std::vector<pod_run> runs = sample_runs("RPSW1", true);
    std::string image = log_image(nvram_layout, static_cast<uint32_t>(runs.size()), runs);
    for (size_t i = 0; i < cards; ++i)
        put(image, nvram_layout.status_position + 4 * i, word(i == alsw2 ? failed : passed));
    return image;
}

file_image card_file(const std::string &file, const std::string &card)
{
    const std::vector<pod_run> runs = sample_runs(card, card != "ALSW2");
    return {"/var/pod/pod_" + file + ".hex",
            log_image(file_layout, static_cast<uint32_t>(runs.size()), runs), card};
}

void add_cards(std::vector<file_image> &files, const std::string &file, const std::string &card,
               int count, int first_file = 1, int first_card = 1)
{
    for (int i = 0; i < count; ++i)
        files.push_back(card_file(file + std::to_string(first_file + i),
                                  card + std::to_string(first_card + i)));
}

} // namespace

std::string pod_index(const pod_layout &layout, uint32_t current)
{
    const std::string fields = word(layout.magic) + word(current) + word(layout.history_size);
    return layout.is_nvram() ? fields + word(cksum(fields)) : fields;
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

std::string log_image(const pod_layout &layout, uint32_t current, const std::vector<pod_run> &runs)
{
    std::string image(layout.size, '\0');
    put(image, pod_index_position, pod_index(layout, current));
    for (size_t i = 0; layout.is_nvram() && i < status_words; ++i)
        put(image, layout.status_position + 4 * i, word(status_unknown));
    for (uint32_t i = 0; i < layout.histories; ++i)
        put(image, layout.header_at(i),
            history(i < runs.size() ? runs[i] : pod_run(), layout, layout.header_at(i)));
    return image;
}

pod_logs sample_pod_logs(chassis_model model)
{
    const bool n20 = model == chassis_model::n20;
    pod_logs logs;
    logs.nvram = sample_nvram(n20 ? 8 : 4);
    logs.files.push_back(card_file("rpsw_mate", "RPSW2"));
    add_cards(logs.files, "alsw", "ALSW", 2);
    add_cards(logs.files, "sw", "SW", n20 ? 4 : 0);
    add_cards(logs.files, "ft", "FT", 2);
    add_cards(logs.files, "pem", "PM", n20 ? 8 : model == chassis_model::n10 ? 6 : 3);
    if (model == chassis_model::n4)
        add_cards(logs.files, "pem", "FT", 4, 4, 3); // in the files of power modules it lacks
    return logs;
}

void bring_into_state(std::string &image, const std::string &card, const std::string &state)
{
    constexpr uint32_t last_run = 1;
    constexpr const char *bad_entry = "bad-entry-";
    const pod_layout &layout = card == "RPSW1" ? nvram_layout : file_layout;
    const size_t header = layout.header_at(last_run);
    if (state == "sample") {
        return;
    } else if (state == "blank") {
        image.assign(image.size(), '\0');
    } else if (state == "full") {
        // The library leaves the room of one entry free.
        const size_t room = (layout.history_size - pod_header_size) / (16 + message_size) - 1;
        const pod_run run(room, {1700000020, "INFO: " + card + " passed"});
        const std::string full =
            log_image(layout, last_run, std::vector<pod_run>(layout.histories, run));
        put(image, 0, full.substr(0, layout.is_nvram() ? layout.status_position : full.size()));
    } else if (state == "torn") {
        put(image, header + pod_header_size / 2, std::string(pod_header_size / 2, '\0'));
    } else if (state.starts_with(bad_entry) && state.size() == 11 && state.back() < '3') {
        const auto number = static_cast<size_t>(state.back() - '0');
        image[header + pod_header_size + number * (16 + message_size) + 8] ^= 1;
    } else {
        throw failure("a log has no state '" + state + "'");
    }
}

} // namespace chassis_sim

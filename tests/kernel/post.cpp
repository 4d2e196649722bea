// The firmware's POST logs in real NVRAM devices.
#include "nvram.h"

#include "sim/post_log.h"

#include <device_access/post_log_nvram.h>

#include <cstring>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace guest
{
namespace
{

constexpr log_type_t blocks[] = {OFWEVENT_LOG, OFWDIAG_TEST_LOG, OFWDIAG_ERROR_LOG};

// One line of text for a whole log: "[HISTORY] TIME MESSAGE|TIME MESSAGE|".
std::string history_text(long long number)
{
    return std::string("[").append(std::to_string(number)).append("] ");
}

std::string entry_text(long long time, const std::string &message)
{
    return std::to_string(time) + " " + message + "|";
}

// What the firmware wrote: the histories that have entries, the newest first.
std::string expected_text(const chassis_sim::post_block &log)
{
    std::string text;
    const size_t count = log.histories.size();
    for (size_t age = 0; age < count; ++age) {
        const size_t number = (log.current + count - age) % count;
        if (log.histories[number].empty())
            continue;
        text += history_text(static_cast<long long>(number));
        for (const chassis_sim::post_entry &entry : log.histories[number])
            text += entry_text(static_cast<long long>(entry.seconds), entry.message);
    }
    return text;
}

std::string entries(log_type_t block, int history)
{
    std::string text;
    int position = postlog_nvram_open_log(block, history);
    while (position >= 0) {
        char message[128];
        time_t time;
        position = postlog_nvram_read_log(block, position, &time, message, sizeof message);
        text += entry_text(time, std::string(message, ::strnlen(message, sizeof message)));
    }
    postlog_nvram_close_log(block, history);
    return text;
}

std::string library_text(log_type_t block)
{
    std::vector<int> histories;
    time_t time;
    for (int number = postlog_nvram_open_dir(block); number >= 0;
         number = postlog_nvram_read_dir(block, number, &time))
        histories.push_back(number);
    postlog_nvram_close_dir(block);
    std::string text;
    for (const int number : histories)
        text += history_text(number) + entries(block, number);
    return text;
}

void check_exclusion()
{
    {
        const other_process holder([] { postlog_nvram_init(OFWDIAG_TEST_LOG); });
        check_equal("post: another process has the block open",
                    postlog_nvram_init(OFWDIAG_TEST_LOG), -1);
        check_equal("post: another block is free", postlog_nvram_init(OFWDIAG_ERROR_LOG), 1);
        postlog_nvram_close(OFWDIAG_ERROR_LOG);
    }
    check_equal("post: free again", postlog_nvram_init(OFWDIAG_TEST_LOG), 1);
    postlog_nvram_close(OFWDIAG_TEST_LOG);
}

} // namespace

void check_post_logs()
{
    const std::vector<chassis_sim::post_block> logs = chassis_sim::sample_post_logs();
    for (size_t i = 0; i < logs.size(); ++i)
        write_text(raw_nvram(static_cast<int>(i)), logs[i].image(chassis_sim::byte_order::little));
    postlog_map_def_nvram_access();
    for (size_t i = 0; i < logs.size(); ++i) {
        const std::string node = "/dev/" + logs[i].name;
        check("post: no node " + node, ::access(node.c_str(), F_OK) != 0, "");
        check_equal("post: " + logs[i].name, library_text(blocks[i]), expected_text(logs[i]));
        check_nvram_node(node, static_cast<int>(i));
    }
    check_exclusion();
}

} // namespace guest

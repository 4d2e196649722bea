// A log reader: prints a card's POD log, or one of the firmware's POST logs, newest history first.
//
// log_reader_cxx CARD | event | test | error     CARD: of the slot table, such as SW1
#include <device_access/pod_log.h>
#include <device_access/post_log_nvram.h>

#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace
{

// What the two kinds of log have in common.
struct log_calls {
    std::function<int()> open_dir;
    std::function<int(int history, time_t *)> read_dir;
    std::function<void()> close_dir;
    std::function<int(int history)> open_log;
    std::function<int(int position, time_t *, char *, uint32_t)> read_log;
    std::function<void(int history)> close_log;
};

log_calls pod_log(const std::string &card)
{
    podlog_config_pod_storage_n20_n10(ChassisType_N20, 0);
    return {[=] { return podlog_open_dir(card.c_str()); },
            podlog_read_dir,
            [=] { podlog_close_dir(card.c_str()); },
            [=](int history) { return podlog_open_log(card.c_str(), history); },
            podlog_read_log,
            [=](int history) { podlog_close_log(card.c_str(), history); }};
}

log_calls post_log(log_type_t log)
{
    using namespace std::placeholders;
    postlog_map_def_nvram_access();
    return {std::bind(postlog_nvram_open_dir, log),
            std::bind(postlog_nvram_read_dir, log, _1, _2),
            std::bind(postlog_nvram_close_dir, log),
            std::bind(postlog_nvram_open_log, log, _1),
            std::bind(postlog_nvram_read_log, log, _1, _2, _3, _4),
            std::bind(postlog_nvram_close_log, log, _1)};
}

// Walks the log first and reads its histories afterwards: it is opened once at a time.
int print(const log_calls &log)
{
    std::vector<int> histories;
    time_t time;
    int history = log.open_dir();
    for (; history >= 0; history = log.read_dir(history, &time))
        histories.push_back(history);
    log.close_dir();
    for (const int number : histories) {
        char message[256] = "";
        for (int at = log.open_log(number); at >= 0; message[0] = '\0') {
            at = log.read_log(at, &time, message, sizeof message - 1);
            if (at != -1)
                std::printf("%d  %lld  %s\n", number, static_cast<long long>(time), message);
        }
        log.close_log(number);
    }
    return history == -1 ? 1 : 0;
}

} // namespace

int main(int argc, char **argv)
{
    static const std::map<std::string, log_type_t> post_logs = {
        {"event", OFWEVENT_LOG}, {"test", OFWDIAG_TEST_LOG}, {"error", OFWDIAG_ERROR_LOG}};
    const std::string name = argc > 1 ? argv[1] : "SW1";
    const auto post = post_logs.find(name);
    return print(post == post_logs.end() ? pod_log(name) : post_log(post->second));
}

// A log reader: prints a card's POD log, or one of the firmware's POST logs, newest history first.
//
// log_reader_cxx CARD | event | test | error     CARD: of the slot table, such as SW1
#include <device_access/device_access.hpp>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace
{

// Walks the log first and reads its histories afterwards: it is opened for one purpose at a time.
template <typename Log>
int print(Log log)
{
    std::vector<int> numbers;
    {
        device_access::histories walk(log);
        for (const int number : walk)
            numbers.push_back(number);
        if (walk.failed())
            return 1;
    }
    int status = 0;
    for (const int number : numbers) {
        device_access::entries history(log, number);
        for (const auto &[time, text] : history)
            std::printf("%d  %lld  %s\n", number, static_cast<long long>(time), text.data());
        if (history.failed())
            status = 1;
    }
    return status;
}

} // namespace

int main(int argc, char **argv)
{
    static const std::map<std::string, log_type_t> post_logs = {
        {"event", OFWEVENT_LOG}, {"test", OFWDIAG_TEST_LOG}, {"error", OFWDIAG_ERROR_LOG}};
    const char *name = argc > 1 ? argv[1] : "SW1";
    podlog_config_pod_storage_n20_n10(ChassisType_N20, 0);
    postlog_map_def_nvram_access();
    const auto post = post_logs.find(name);
    return post == post_logs.end() ? print(device_access::pod_log{name})
                                   : print(device_access::post_log{post->second});
}

// A log reader: prints a card's POD log, or one of the firmware's POST logs, newest history first.
//
// log_reader_cxx CARD | event | test | error     CARD: of the registry, such as SW3
#include <device_access/pod_log.hpp>
#include <device_access/post_log.hpp>

#include <cstdio>
#include <map>
#include <string>

namespace
{

using namespace device_access;

int fail(const failure &failed)
{
    std::fprintf(stderr, "%s: %s\n", failed.call, failed.reason());
    return 1;
}

template <log_source Log>
int print(const Log &log)
{
    const auto histories = log.histories();
    if (!histories)
        return fail(histories.error());
    int status = histories->failed();
    for (const auto &[number, begun] : *histories) {
        auto entries = log.entries(number);
        if (!entries)
            return fail(entries.error());
        for (const auto &[time, text] : *entries)
            std::printf("%d  %lld  %.*s\n", number,
                        static_cast<long long>(time.time_since_epoch().count()),
                        static_cast<int>(text.size()), text.data());
        status |= entries->failed();
    }
    return status;
}

} // namespace

int main(int argc, char **argv)
{
    static const std::map<std::string, post_block> post_logs = {
        {"event", post_block::event}, {"test", post_block::test}, {"error", post_block::error}};
    const char *name = argc > 1 ? argv[1] : "SW1";
    if (const auto post = post_logs.find(name); post != post_logs.end()) {
        reach_post_logs_by_device_files();
        return print(post_log(post->second));
    }
    configure_pod_logs(pod_chassis::n20);
    const auto log = pod_log::of(name);
    return log ? print(*log) : fail(log.error());
}

// A POD runner: logs one run of a card's power-on diagnostics, and sets the card's status.
// pod_runner_cxx CARD STEP=RESULT...     CARD: such as SW3; RESULT: PASS, else it is a failure
#include <device_access/pod_log.hpp>

#include <cstdio>

namespace
{

using namespace device_access;

int fail(const char *what, const char *card, const failure &failed)
{
    std::fprintf(stderr, "cannot %s of %s: %s\n", what, card, failed.reason());
    return 1;
}

// Returns whether the step has passed.
result<bool> log(pod_run &run, std::string_view step)
{
    const size_t equals = step.find('=');
    const std::string_view outcome = equals == step.npos ? "" : step.substr(equals + 1);
    const bool passed = outcome == "PASS";
    return run
        .add(passed ? "INFO: " : "ERROR: ", step.substr(0, equals), outcome, "by the C++ runner")
        .transform([passed](log_room) { return passed; });
}

// The status words are in the route processor's NVRAM, which no run may have open.
result<pod_status> set_status(const char *card, pod_status status)
{
    return pod_status_words::open().and_then([&](pod_status_words words) {
        return words.set_status(card, status).and_then([&] { return words.status(card); });
    });
}

} // namespace

int main(int argc, char **argv)
{
    const char *card = argc > 1 ? argv[1] : "SW1";
    configure_pod_logs(pod_chassis::n20);
    auto run = pod_run::begin(card);
    if (!run)
        return fail("run the diagnostics", card, run.error());
    pod_status status = pod_status::passed;
    for (int i = 2; i < argc; ++i) {
        const auto passed = log(*run, argv[i]);
        if (!passed)
            return fail("log a step", card, passed.error());
        if (!*passed)
            status = pod_status::failed;
    }
    if (const auto ended = run->end(status); !ended)
        return fail("end the run", card, ended.error());
    const auto stored = set_status(card, status);
    if (!stored)
        return fail("set the status", card, stored.error());
    std::printf("status: %s\n", text_of(*stored));
    return *stored == pod_status::passed ? 0 : 1;
}

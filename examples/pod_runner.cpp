// A POD runner: logs one run of a card's power-on diagnostics, and sets the card's status.
// pod_runner_cxx CARD STEP=RESULT...     CARD: such as SW1; RESULT: PASS, else it is a failure
#include <device_access/device_access.hpp>
#include <device_access/pod_log_nvram.h>

#include <cstdio>
#include <string>

namespace
{

int fail(const char *what, const char *card)
{
    std::fprintf(stderr, "cannot %s of %s\n", what, card);
    return 1;
}

// Returns whether the step has passed; false, too, when it cannot be logged.
bool log(device_access::pod_run &run, const std::string &step)
{
    const size_t equals = step.find('=');
    const std::string outcome = equals == step.npos ? "" : step.substr(equals + 1);
    const bool passed = outcome == "PASS";
    return run.add(passed ? "INFO: " : "ERROR: ", step.substr(0, equals).c_str(), outcome.c_str(),
                   "by the C++ runner") &&
           passed;
}

// The status words are in the route processor's NVRAM, which no run may have open.
bool set_status(int instance, bool passed)
{
    constexpr int nvram = 0;
    if (podlog_nvram_init(nvram, 0) != 1)
        return false;
    podlog_set_pod_status(instance,
                          static_cast<int>(passed ? POD_STATUS_PASSED : POD_STATUS_FAILED));
    std::printf("status: %s\n",
                podlog_nvram_convert_pod_status_str(podlog_get_pod_status(instance)));
    podlog_nvram_close(nvram);
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    const char *card = argc > 1 ? argv[1] : "SW1";
    int instance;
    bool passed = true;
    podlog_config_pod_storage_n20_n10(ChassisType_N20, 0);
    {
        auto run = device_access::pod_run::begin(card);
        if (!run)
            return fail("run the diagnostics", card);
        instance = run->instance();
        for (int i = 2; i < argc; ++i)
            passed &= log(*run, argv[i]);
    }
    if (!set_status(instance, passed))
        return fail("set the status", card);
    return passed ? 0 : 1;
}

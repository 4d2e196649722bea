// A POD runner: logs one run of a card's power-on diagnostics, and sets the card's status.
// pod_runner_cxx CARD STEP=RESULT...     CARD: such as SW1; RESULT: PASS, else it is a failure
#include <device_access/pod_log.h>
#include <device_access/pod_log_nvram.h>

#include <cstdio>
#include <stdexcept>
#include <string>

namespace
{

// The run of one card: claimed, with its storage open.
class pod_run
{
public:
    explicit pod_run(std::string name)
    {
        if (podlog_find_pod_instance(name.data(), &card_) != 1 ||
            podlog_set_curr_active_inst(card_, 0) != 0 || podlog_init(card_, 0) != 1)
            throw std::runtime_error("cannot run the diagnostics of " + name);
    }
    ~pod_run()
    {
        podlog_use_nxt_log(card_);
        podlog_close(card_);
        podlog_clr_curr_active_inst(card_, !passed_);
    }
    pod_run(const pod_run &) = delete;
    pod_run &operator=(const pod_run &) = delete;

    // Returns whether all steps so far have passed.
    bool log(const std::string &step)
    {
        const size_t equals = step.find('=');
        std::string name = step.substr(0, equals);
        const std::string result = equals == step.npos ? "" : step.substr(equals + 1);
        std::string level = result == "PASS" ? "INFO: " : "ERROR: ";
        passed_ &= result == "PASS";
        if (podlog_add(card_, level.data(), name.data(), result.c_str(), "step of %zu letters",
                       name.size()) != 1)
            throw std::runtime_error("cannot log step " + name);
        return passed_;
    }

private:
    int card_ = -1;
    bool passed_ = true;
};

// The status words are in the route processor's NVRAM.
void set_status(std::string name, bool passed)
{
    int card = -1, nvram = 0;
    if (podlog_find_pod_instance(name.data(), &card) != 1 || podlog_nvram_init(nvram, 0) != 1)
        throw std::runtime_error("cannot set the status of " + name);
    podlog_set_pod_status(card, static_cast<int>(passed ? POD_STATUS_PASSED : POD_STATUS_FAILED));
    std::printf("status: %s\n", podlog_nvram_convert_pod_status_str(podlog_get_pod_status(card)));
    podlog_nvram_close(nvram);
}

} // namespace

int main(int argc, char **argv)
try {
    const std::string card = argc > 1 ? argv[1] : "SW1";
    podlog_config_pod_storage_n20_n10(ChassisType_N20, 0);
    bool passed = true;
    {
        pod_run run(card);
        for (int i = 2; i < argc; ++i)
            passed = run.log(argv[i]);
    }
    set_status(card, passed);
    return passed ? 0 : 1;
} catch (const std::exception &failure) {
    std::fprintf(stderr, "%s\n", failure.what());
    return 1;
}

// chassis-sim [OPTIONS] -- COMMAND: runs a command in a simulated chassis.

#include "sim/chassis.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

namespace
{

namespace fs = std::filesystem;
using chassis_sim::chassis_model;

const std::map<std::string, chassis_model> models = {
    {"n20", chassis_model::n20}, {"n10", chassis_model::n10}, {"n4", chassis_model::n4}};

struct settings {
    chassis_sim::chassis_description chassis;
    std::string model = "n20";
    std::string pod_log = "sample";  // or "empty", or a file
    std::string post_log = "sample"; // or "empty", or a directory
    std::vector<std::string> faults;
    std::vector<std::string> command;
};

[[noreturn]] void refuse(const std::string &what)
{
    std::fprintf(stderr, "chassis-sim: %s\n", what.c_str());
    std::exit(125);
}

std::string read_image(const fs::path &path)
{
    std::ifstream file(path, std::ios::binary);
    std::string bytes{std::istreambuf_iterator<char>(file), {}};
    if (!file || bytes.empty())
        refuse("cannot read a log image from " + path.string());
    return bytes;
}

chassis_sim::pod_logs chosen_pod_logs(const settings &chosen)
{
    if (chosen.pod_log == "empty")
        return {};
    chassis_sim::pod_logs logs = chassis_sim::sample_pod_logs(models.at(chosen.model));
    if (chosen.pod_log != "sample")
        logs.nvram = read_image(chosen.pod_log);
    return logs;
}

std::vector<chassis_sim::nvram_image> chosen_post_logs(const settings &chosen)
{
    auto logs = chassis_sim::images(chassis_sim::sample_post_logs());
    for (chassis_sim::nvram_image &log : logs) {
        if (chosen.post_log == "empty")
            log.contents.assign(log.contents.size(), '\0');
        else if (chosen.post_log != "sample")
            log.contents = read_image(fs::path(chosen.post_log) / log.name);
    }
    return logs;
}

chassis_sim::chassis_description describe(const settings &chosen)
{
    chassis_sim::chassis_description chassis = chosen.chassis;
    chassis.pod = chosen_pod_logs(chosen);
    chassis.post = chosen_post_logs(chosen);
    for (const std::string &fault : chosen.faults) {
        if (fault == "nvram-truncated")
            chassis.nvram_truncated = true;
        else if (fault == "link-stuck")
            chassis.link_trains_ms = -1;
        else
            chassis.behind_bridge_ms = -1;
    }
    return chassis;
}

[[noreturn]] void execute(const std::vector<std::string> &command)
{
    std::vector<char *> arguments;
    for (const std::string &word : command)
        arguments.push_back(const_cast<char *>(word.c_str()));
    arguments.push_back(nullptr);
    ::execvp(arguments[0], arguments.data());
    const int status = errno == ENOENT ? 127 : 126;
    std::perror(("chassis-sim: " + command[0]).c_str());
    ::_exit(status);
}

int run(const std::vector<std::string> &command)
{
    const pid_t pid = chassis_sim::must(::fork(), "fork");
    if (pid == 0)
        execute(command);
    ::signal(SIGINT, SIG_IGN); // the command decides what an interrupt from the terminal does
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void add_device_options(CLI::App &app, chassis_sim::chassis_description &chassis)
{
    app.add_option("--uio-appears", chassis.uio_appears_ms,
                   "Let /dev/uio0 appear after MS milliseconds")
        ->option_text("MS")
        ->check(CLI::NonNegativeNumber);
    app.add_option("--uio-irq-delay", chassis.uio_irq_delay_ms,
                   "Answer each enabling of its interrupt with one after MS\n"
                   "milliseconds; -1: never. Default: 100")
        ->option_text("MS")
        ->capture_default_str();
    app.add_option("--uio-removed", chassis.uio_removed_ms, "Remove it after MS milliseconds")
        ->option_text("MS");
    app.add_option("--link-trains", chassis.link_trains_ms,
                   "The link of the PCI port 0000:00:1c.0 comes up after MS\n"
                   "milliseconds")
        ->option_text("MS")
        ->check(CLI::NonNegativeNumber);
    app.add_option("--pci-devices", chassis.pci_devices,
                   "Add COUNT PCI devices, at most 7168, from 0000:20:00.0 on,\n"
                   "32 on a bus")
        ->option_text("COUNT")
        ->check(CLI::Range(0u, chassis_sim::most_pci_devices));
}

void add_log_options(CLI::App &app, settings &chosen)
{
    app.add_option("--chassis", chosen.model,
                   "Which cards have POD logs in /var/pod, of n20, n10 and n4:\n"
                   "RPSW2, ALSW1-2 and FT1-2 on all, also SW1-4 and PM1-8\n"
                   "on n20, PM1-6 on n10, PM1-3 and FT3-6 on n4. Default: n20")
        ->option_text("TYPE")
        ->check(CLI::IsMember(models));
    app.add_option("--pod-log", chosen.pod_log,
                   "empty: no card has logged yet, the NVRAM is blank.\n"
                   "sample: two runs of each card's diagnostics, and status\n"
                   "words in the NVRAM; ALSW2 failed. This is the default.\n"
                   "Else a file: the bytes of the NVRAM nvlog-pod; the other\n"
                   "cards as in sample")
        ->option_text("WHICH");
    app.add_option("--post-log", chosen.post_log,
                   "empty: the firmware has never logged.\n"
                   "sample: a few starts. This is the default.\n"
                   "Else a directory with the bytes of the blocks, in files\n"
                   "nvlog-ofw-event, nvlog-diag-test and nvlog-diag-error")
        ->option_text("WHICH");
}

void add_fault_option(CLI::App &app, settings &chosen)
{
    app.add_option("--fault", chosen.faults,
                   "Break something; may be given several times.\n"
                   "nvram-truncated: the second half of nvlog-pod cannot be\n"
                   "reached.\n"
                   "link-stuck: the link of the PCI port 0000:00:1c.0 never\n"
                   "comes up.\n"
                   "bridge-empty: nothing appears behind the hot-swap bridge\n"
                   "0000:00:1e.0 when it is enabled")
        ->option_text("NAME")
        ->allow_extra_args(false)
        ->check(CLI::IsMember({"nvram-truncated", "link-stuck", "bridge-empty"}));
}

} // namespace

int main(int argc, char **argv)
{
    settings chosen;
    CLI::App app(
        "Run a command in a simulated chassis: its own /sys, /dev, /var and /flash, with\n"
        "the device /dev/uio0, PCI devices (a root port with a slot, the hot-swap bridge\n"
        "0000:00:1e.0 and the FPGA of slot alsw1 among them), NVRAM blocks with POD and\n"
        "POST logs, and the control pipe /dev/chassis in them. Lines written to the pipe:\n"
        "interrupt uio0, remove uio0, plug uio0. Calls of /sbin/modprobe are only\n"
        "recorded, in /var/log/modprobe.",
        "chassis-sim");
    app.get_formatter()->column_width(22);
    app.set_version_flag("-V,--version", "chassis-sim " DEVICE_ACCESS_VERSION, "Print the version");
    add_log_options(app, chosen);
    add_device_options(app, chosen.chassis);
    add_fault_option(app, chosen);
    app.add_option("command", chosen.command, "The command and its arguments, behind --")
        ->option_text("COMMAND")
        ->required();
    app.footer("Examples: chassis-sim -- ls -l /dev /sys/class/uio/uio0/maps\n"
               "          chassis-sim --chassis n4 --fault link-stuck -- sh\n"
               "Exit status: that of the command; 125 when the chassis cannot be built.");
    CLI11_PARSE(app, argc, argv);

    chassis_sim::build_chassis(describe(chosen));
    return run(chosen.command);
}

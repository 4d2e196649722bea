// chassis-sim [OPTIONS] -- COMMAND: runs a command in a simulated chassis.

#include "sim/chassis.h"
#include "sim/command.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <exception>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <vector>

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

constexpr int cannot_build = 125; // the exit status
constexpr int longest_time = 24 * 60 * 60 * 1000;

std::string read_image(const fs::path &path)
{
    constexpr uintmax_t largest = 16 << 20;
    std::error_code error;
    // Of what is no file, the size may be endless.
    const bool is_image = fs::is_regular_file(path, error) && fs::file_size(path, error) <= largest;
    std::string bytes = is_image ? chassis_sim::file_text(path.string()) : "";
    if (bytes.empty())
        throw chassis_sim::failure("cannot read a log image from " + path.string());
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

void add_device_options(CLI::App &app, chassis_sim::chassis_description &chassis)
{
    app.add_option("--uio-appears", chassis.uio_appears_ms,
                   "Let /dev/uio0 appear after MS milliseconds")
        ->option_text("MS")
        ->check(CLI::Range(0, longest_time));
    app.add_option("--uio-irq-delay", chassis.uio_irq_delay_ms,
                   "Answer each enabling of its interrupt with one after MS\n"
                   "milliseconds; -1: never. Default: 100")
        ->option_text("MS")
        ->check(CLI::Range(-1, longest_time));
    app.add_option("--uio-removed", chassis.uio_removed_ms,
                   "Remove it after MS milliseconds; -1: never")
        ->option_text("MS")
        ->check(CLI::Range(-1, longest_time));
    app.add_option("--link-trains", chassis.link_trains_ms,
                   "The link of the PCI port 0000:00:1c.0 comes up after MS\n"
                   "milliseconds")
        ->option_text("MS")
        ->check(CLI::Range(0, longest_time));
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

// chassis-sim ctl WORD...
int control(int count, char **words)
{
    std::string line;
    for (int i = 0; i < count; ++i)
        line += (i == 0 ? "" : " ") + std::string(words[i]);
    if (!fs::exists(chassis_sim::control_path)) {
        chassis_sim::complain("'ctl' works in a chassis only");
        return cannot_build;
    }
    try {
        chassis_sim::control(line);
    } catch (const chassis_sim::failure &error) {
        chassis_sim::complain(error.what());
        return 1;
    }
    return 0;
}

int run(int argc, char **argv)
{
    settings chosen;
    CLI::App app("Run a command in a simulated chassis: its own /sys, /dev, /var and /flash, with\n"
                 "the device /dev/uio0, PCI devices (a root port with a slot, the hot-swap bridge\n"
                 "0000:00:1e.0 and the FPGA of slot alsw1 among them), and NVRAM blocks with POD\n"
                 "and POST logs. Calls of /sbin/modprobe are only recorded, in /var/log/modprobe.\n"
                 "Inside, 'chassis-sim ctl LINE' controls a device and tells whether that was\n"
                 "done; LINE is 'interrupt uio0', 'remove uio0' or 'plug uio0'.",
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
               "Exit status: that of the command; 125 when an option is wrong or the chassis\n"
               "cannot be built.");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ExtrasError &) {
        const std::vector<std::string> words = app.remaining();
        const auto word = std::find_if(words.begin(), words.end(),
                                       [](const std::string &w) { return w != "--"; });
        throw chassis_sim::failure("there is no option " + *word);
    } catch (const CLI::ParseError &error) {
        if (error.get_exit_code() == 0)
            return app.exit(error);
        throw;
    }
    if (fs::exists(chassis_sim::control_path))
        throw chassis_sim::failure("this is a simulated chassis already; there is none in it");
    build_chassis(describe(chosen));
    return chassis_sim::run_command(chosen.command);
}

} // namespace

int main(int argc, char **argv)
{
    if (argc > 1 && std::string_view(argv[1]) == "ctl")
        return control(argc - 2, argv + 2);
    try {
        return run(argc, argv);
    } catch (const std::exception &error) {
        std::string line = error.what();
        std::replace(line.begin(), line.end(), '\n', ' ');
        chassis_sim::complain(line);
        return cannot_build;
    }
}

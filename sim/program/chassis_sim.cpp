// chassis-sim [OPTIONS] -- COMMAND: runs a command in a simulated chassis.

#include "sim/program/chassis.h"
#include "sim/program/command.h"
#include "sim/program/ctl.h"
#include "sim/program/description.h"
#include "sim/program/recorded_chassis.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <unistd.h>

namespace
{

namespace fs = std::filesystem;
using chassis_sim::chassis_description;
using chassis_sim::failure;

constexpr int cannot_build = 125; // the exit status
constexpr int has_differed = 123; // from the trace
constexpr int longest_time = 24 * 60 * 60 * 1000;

// What the command line says; what it does not say is as the description has it.
struct settings {
    bool describes = false;
    std::optional<std::string> description, recording, trace; // files
    std::optional<std::string> model, pod_log, post_log;
    std::optional<int> uio_appears, uio_irq_delay, uio_removed, link_trains;
    unsigned int pci_devices = 0;
    std::vector<std::string> faults;
    std::vector<std::string> command;
};

chassis_sim::pci_function &port_of(chassis_description &chassis)
{
    for (chassis_sim::pci_function &function : chassis.functions)
        if (function.id == chassis_sim::pci_root_port)
            return function;
    throw failure(std::string("there is no port ") + chassis_sim::pci_root_port);
}

void apply_uio(chassis_description &chassis, const settings &chosen)
{
    const bool wanted = chosen.uio_appears || chosen.uio_irq_delay || chosen.uio_removed;
    if (wanted && chassis.uio.empty())
        throw failure("there is no UIO device");
    if (chosen.uio_appears.value_or(0) > 0) {
        chassis.uio[0].plugged = false;
        chassis.timeline.push_back({*chosen.uio_appears, 0, "plug uio0"});
    }
    if (chosen.uio_irq_delay)
        chassis.uio[0].irq_delay_ms = *chosen.uio_irq_delay;
    if (chosen.uio_removed.value_or(-1) >= 0)
        chassis.timeline.push_back({*chosen.uio_removed, 0, "remove uio0"});
}

void apply_fault(chassis_description &chassis, const std::string &fault)
{
    if (fault == "nvram-truncated")
        chassis.logs.unreachable = 16384 / 2;
    else if (fault == "link-stuck")
        port_of(chassis).pcie.link_status = chassis_sim::pcie_capability::link_training;
    else
        for (auto &bridge : chassis.hotswap_bridges)
            bridge.appears_ms = -1;
}

chassis_description described_by(const settings &chosen)
{
    chassis_description chassis;
    if (chosen.description)
        chassis = chassis_sim::read_description(*chosen.description);
    auto &logs = chassis.logs;
    logs.chassis = chosen.model.value_or(logs.chassis);
    logs.pod = chosen.pod_log.value_or(logs.pod);
    logs.post = chosen.post_log.value_or(logs.post);
    chassis.pci_devices += chosen.pci_devices;
    if (chassis.pci_devices > chassis_sim::most_pci_devices)
        throw failure("these are too many PCI devices");
    apply_uio(chassis, chosen);
    if (chosen.link_trains.value_or(0) > 0) {
        apply_fault(chassis, "link-stuck");
        chassis.timeline.push_back(
            {*chosen.link_trains, 0, std::string("link ") + chassis_sim::pci_root_port + " up"});
    }
    for (const std::string &fault : chosen.faults)
        apply_fault(chassis, fault);
    return chassis;
}

void add_device_options(CLI::App &app, settings &chosen)
{
    app.add_option("--uio-appears", chosen.uio_appears,
                   "Let /dev/uio0 appear after MS milliseconds")
        ->option_text("MS")
        ->check(CLI::Range(0, longest_time));
    app.add_option("--uio-irq-delay", chosen.uio_irq_delay,
                   "Answer each enabling of its interrupt with one after MS\n"
                   "milliseconds; -1: never. Default: 100")
        ->option_text("MS")
        ->check(CLI::Range(-1, longest_time));
    app.add_option("--uio-removed", chosen.uio_removed,
                   "Remove it after MS milliseconds; -1: never")
        ->option_text("MS")
        ->check(CLI::Range(-1, longest_time));
    app.add_option("--link-trains", chosen.link_trains,
                   "The link of the PCI port 0000:00:1c.0 comes up after MS\n"
                   "milliseconds")
        ->option_text("MS")
        ->check(CLI::Range(0, longest_time));
    app.add_option("--pci-devices", chosen.pci_devices,
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
        ->check(CLI::IsMember({"n20", "n10", "n4"}));
    app.add_option("--pod-log", chosen.pod_log,
                   "empty: no card has logged yet, the NVRAM is blank.\n"
                   "sample: two runs of each card's diagnostics, and status\n"
                   "words in the NVRAM; ALSW2 failed. This is the default.\n"
                   "Otherwise a file: the bytes of the NVRAM nvlog-pod; the other\n"
                   "cards as in sample")
        ->option_text("WHICH");
    app.add_option("--post-log", chosen.post_log,
                   "empty: the firmware has never logged.\n"
                   "sample: a few starts. This is the default.\n"
                   "Otherwise a directory with the bytes of the blocks, in files\n"
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
                   "bridge-empty: nothing appears below the hot-swap bridge\n"
                   "0000:00:1e.0 when it is enabled")
        ->option_text("NAME")
        ->allow_extra_args(false)
        ->check(CLI::IsMember({"nvram-truncated", "link-stuck", "bridge-empty"}));
}

void add_all_options(CLI::App &app, settings &chosen)
{
    app.set_version_flag("-V,--version", "chassis-sim " DEVICE_ACCESS_VERSION, "Print the version");
    add_log_options(app, chosen);
    add_device_options(app, chosen);
    add_fault_option(app, chosen);
    app.add_option("--description", chosen.description,
                   "Build the chassis that this JSON file describes instead of\n"
                   "the built-in one; the other options change it")
        ->option_text("FILE");
    app.add_option("--from", chosen.recording,
                   "Build the machine that 'devaccess collect FILE' has\n"
                   "recorded; of the other options only --trace goes with it")
        ->option_text("FILE");
    app.add_option("--trace", chosen.trace,
                   "Answer reads of registers as they were answered when\n"
                   "'devaccess trace --format jsonl' wrote FILE, and report\n"
                   "the first access that differs")
        ->option_text("FILE");
    app.add_flag("--describe", chosen.describes,
                 "Print the description of the chassis and run nothing");
    app.add_option("command", chosen.command, "The command and its arguments, after --")
        ->option_text("COMMAND");
    app.footer("Examples: chassis-sim -- ls -l /dev /sys/class/uio/uio0/maps\n"
               "          chassis-sim --chassis n4 --fault link-stuck -- sh\n"
               "Exit status: that of the command; 123 when an access differs from the trace; 125\n"
               "when an option is wrong or the chassis cannot be built.");
}

// False: what was asked for is printed.
bool parse(CLI::App &app, int argc, char **argv)
{
    try {
        app.parse(argc, argv);
    } catch (const CLI::ExtrasError &) {
        const std::vector<std::string> words = app.remaining();
        const auto word = std::find_if(words.begin(), words.end(),
                                       [](const std::string &w) { return w != "--"; });
        throw failure("unknown option " + *word);
    } catch (const CLI::ParseError &error) {
        if (error.get_exit_code() != 0)
            throw;
        app.exit(error);
        return false;
    }
    return true;
}

void print(const chassis_description &chassis)
{
    if (std::puts(chassis_sim::description_text(chassis).c_str()) < 0 || std::fflush(stdout) != 0)
        throw failure("cannot write standard output");
}

// At the end: whether the command has done what it did in the trace.
bool differs_from(const chassis_sim::recorded_trace &trace)
{
    const std::string left = trace.left();
    if (!left.empty())
        chassis_sim::complain(left);
    return !left.empty() || trace.has_differed();
}

int run(int argc, char **argv)
{
    settings chosen;
    CLI::App app("Run a command in a simulated chassis: its own /sys, /dev, /var and /flash, with\n"
                 "the device /dev/uio0, PCI devices (a root port with a slot, the hot-swap bridge\n"
                 "0000:00:1e.0 and the FPGA of slot alsw1 among them), and NVRAM blocks with POD\n"
                 "and POST logs. Calls of /sbin/modprobe are only recorded, in /var/log/modprobe.\n"
                 "Inside, 'chassis-sim ctl LINE' controls a device and tells whether that was\n"
                 "done; LINE is 'interrupt uio0', 'remove uio0', 'plug uio0', or 'get', 'set' or\n"
                 "'wait' with a register.",
                 "chassis-sim");
    app.get_formatter()->column_width(22);
    add_all_options(app, chosen);
    if (!parse(app, argc, argv))
        return 0;
    const bool recorded = chosen.recording.has_value();
    for (const CLI::Option *option : app.get_options())
        if (recorded && option->count() > 0 && option->get_name() != "--from" &&
            option->get_name() != "--trace" && option->get_name() != "command")
            throw failure(option->get_name() + " does not go with --from");
    const chassis_description chassis = described_by(chosen);
    if (chosen.describes) {
        print(chassis);
        return 0;
    }
    if (chosen.command.empty())
        throw failure("command is required");
    if (fs::exists(chassis_sim::control_path))
        throw failure("this is a simulated chassis already; another cannot run inside it");
    std::optional<chassis_sim::recorded_trace> trace;
    if (chosen.trace)
        trace.emplace(*chosen.trace);
    chassis_sim::recorded_trace *const played = trace ? &*trace : nullptr;
    const std::vector<pid_t> helpers =
        recorded ? chassis_sim::build_recorded_chassis(*chosen.recording, played)
                 : build_chassis(chassis, played);
    if (!recorded) // whose type its manifest may not tell
        ::setenv("DEVACCESS_CHASSIS", chassis.logs.chassis.c_str(), 1);
    const int status = chassis_sim::run_command(chosen.command, helpers);
    const bool differs = trace && differs_from(*trace);
    ::_exit(differs ? has_differed : status); // nobody answers this process's calls any more
}

} // namespace

int main(int argc, char **argv)
{
    if (argc > 1 && std::string_view(argv[1]) == "ctl")
        return chassis_sim::control_chassis({argv + 2, argv + argc});
    try {
        return run(argc, argv);
    } catch (const std::exception &error) {
        std::string line = error.what();
        std::replace(line.begin(), line.end(), '\n', ' ');
        chassis_sim::complain(line);
        return cannot_build;
    }
}

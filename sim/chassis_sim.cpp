// chassis-sim [OPTIONS] -- COMMAND: runs a command in a simulated chassis.

#include "sim/chassis.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <csignal>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

namespace
{

struct settings {
    int uio_appears_ms = 0;
    int uio_irq_delay_ms = 100;
    int uio_removed_ms = -1;
    int link_trains_ms = 0;
    std::vector<std::string> command;
};

// A register block with three windows: two pages, and, behind the number that the longer one takes,
// a third.
chassis_sim::uio_description register_block(const settings &chosen)
{
    chassis_sim::uio_description block;
    block.maps = {{"map0", "0x0000000000001000\n"},
                  {"map1", "0x0000000000002000\n"},
                  {"map3", "0x0000000000001000\n"}};
    block.plugged = chosen.uio_appears_ms == 0;
    block.irq_delay_ms = chosen.uio_irq_delay_ms;
    return block;
}

// The NVRAM blocks. They are searched from nvram0 on until a number is missing, so their numbers
// leave no gap.
void add_nvram_blocks(chassis_sim::device_server &devices)
{
    chassis_sim::add_nvram(devices, {}); // "nvlog-pod", which no run has formatted yet
    chassis_sim::add_post_logs(devices, chassis_sim::sample_post_logs(), 1);
}

void schedule(int after_ms, const std::function<void()> &work)
{
    chassis_sim::background([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(after_ms));
        work();
    });
}

void build_pci(const settings &chosen)
{
    using chassis_sim::pcie_capability;
    if (chosen.link_trains_ms == 0) {
        chassis_sim::add_chassis_pci();
        return;
    }
    chassis_sim::add_chassis_pci(pcie_capability::link_training);
    schedule(chosen.link_trains_ms,
             [] { chassis_sim::set_root_port_link(pcie_capability::link_up); });
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

} // namespace

int main(int argc, char **argv)
{
    settings chosen;
    CLI::App app("Run a command in a simulated chassis: its own /sys, /dev, /var and /flash, with\n"
                 "the device /dev/uio0, PCI devices (a root port with a slot, the hot-swap bridge\n"
                 "0000:00:1e.0 and the FPGA of slot alsw1 among them), NVRAM blocks with the\n"
                 "firmware's POST logs, and the control pipe /dev/chassis in them. Lines written\n"
                 "to the pipe: interrupt uio0, remove uio0, plug uio0. Calls of /sbin/modprobe\n"
                 "are only recorded, in /var/log/modprobe.",
                 "chassis-sim");
    app.add_option("--uio-appears", chosen.uio_appears_ms,
                   "let /dev/uio0 appear after MS milliseconds")
        ->option_text("MS")
        ->check(CLI::NonNegativeNumber);
    app.add_option(
           "--uio-irq-delay", chosen.uio_irq_delay_ms,
           "answer each enabling of its interrupt with one after MS milliseconds; -1: never")
        ->option_text("MS")
        ->capture_default_str();
    app.add_option("--uio-removed", chosen.uio_removed_ms, "remove it after MS milliseconds")
        ->option_text("MS");
    app.add_option("--link-trains", chosen.link_trains_ms,
                   "the link of the PCI port 0000:00:1c.0 comes up after MS milliseconds")
        ->option_text("MS")
        ->check(CLI::NonNegativeNumber);
    app.add_option("command", chosen.command, "the command and its arguments, behind --")
        ->option_text("COMMAND")
        ->required();
    app.footer("Example: chassis-sim -- ls -l /dev /sys/class/uio/uio0/maps\n"
               "Exit status: that of the command; 125 when the chassis cannot be built.");
    CLI11_PARSE(app, argc, argv);

    chassis_sim::enter_private_root();
    chassis_sim::make_directory("/var/log");
    chassis_sim::device_server devices;
    chassis_sim::add_uio(devices, register_block(chosen));
    add_nvram_blocks(devices);
    devices.start();
    build_pci(chosen);
    chassis_sim::add_chassis_hotswap();
    if (chosen.uio_appears_ms > 0)
        schedule(chosen.uio_appears_ms, [] { chassis_sim::control("plug uio0"); });
    if (chosen.uio_removed_ms >= 0)
        schedule(chosen.uio_removed_ms, [] { chassis_sim::control("remove uio0"); });
    return run(chosen.command);
}

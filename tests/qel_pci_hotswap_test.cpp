#include "sim/chassis.h"
#include "support/descriptors.h"
#include "support/syslog_socket.h"
#include "support/system_calls.h"

#include <device_access/qel_pci_hotswap.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

#include <sys/mount.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace
{

namespace fs = std::filesystem;
using test_support::open_descriptors;

const std::string command = "/sbin/modprobe -s qel_pci_hotswap";
const std::string recorded = "[/sbin/modprobe][-s][qel_pci_hotswap]";

constexpr sysfs_pci_identity_t bridge = {"0000:00:02.0", {}};
const std::string attribute = chassis_sim::pci_link(bridge.str) + "/bridge_enable";

std::string program()
{
    return fs::read_symlink("/proc/self/exe");
}

std::string take_file(const char *path)
{
    std::ifstream file(path);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    fs::remove(path);
    return text;
}

// The identities of a list, which is released; "NULL" for none.
std::string take_list(sysfs_pci_identity_t *list)
{
    const std::unique_ptr<sysfs_pci_identity_t, decltype(&std::free)> owner(list, &std::free);
    if (!list)
        return "NULL";
    std::string text;
    for (; list->str[0]; ++list)
        text += std::string(list->str) += " ";
    return text;
}

TEST(qel_pci_hotswap_install, runs_modprobe_with_the_option_and_logs_its_failure)
{
    chassis_sim::enter_private_root();
    test_support::syslog_socket log;
    // A shell that still waits for the loader reports a killed one as an exit: kill it too.
    const char *const killed = "[ $(cat /proc/$PPID/comm) = sh ] && kill -9 $PPID; kill -9 $$";
    struct {
        int opts;
        const char *ending;
        const char *option;
        int result;
        std::string failure;
    } cases[] = {
        {QEL_PCI_HOTSWAP_ALL_PCI_BRIDGES, "exit 0", "", 0, ""},
        {QEL_PCI_HOTSWAP_ALL_PCIE_BRIDGES, "exit 0", "pcie_only", 0, ""},
        {QEL_PCI_HOTSWAP_ALL_PCIEHP_BRIDGES, "exit 0", "pciehp_only", 0, ""},
        {3, "exit 0", "", 0, ""},
        {-1, "exit 0", "", 0, ""},
        {2, "exit 1", "pciehp_only", -1, "exited with status 1\n"},
        {0, "exit 255", "", -1, "exited with status 255\n"},
        {1, killed, "pcie_only", 0, ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.ending);
        chassis_sim::replace_modprobe(c.ending);
        const std::string option = c.option;
        EXPECT_EQ(qel_pci_hotswap_install(static_cast<qel_pci_hotswap_options_t>(c.opts)),
                  c.result);
        EXPECT_EQ(take_file(chassis_sim::modprobe_log),
                  recorded + (option.empty() ? "" : "[" + option + "]") + "\n");
        const std::string line =
            "<29>" + program() + ": " + command + (option.empty() ? "" : " " + option);
        EXPECT_EQ(log.take(), line + "\n" + (c.failure.empty() ? "" : line + " " + c.failure));
    }
    fs::remove("/sbin/modprobe");
    EXPECT_EQ(qel_pci_hotswap_install(QEL_PCI_HOTSWAP_ALL_PCI_BRIDGES), -1);
    const std::string line = "<29>" + program() + ": " + command;
    EXPECT_EQ(log.take(), line + "\n" + line + " exited with status 127\n");
}

TEST(qel_pci_hotswap_install, logs_a_command_that_cannot_be_run_or_waited_for)
{
    chassis_sim::enter_private_root();
    test_support::syslog_socket log;
    chassis_sim::replace_modprobe();
    const std::string line = "<29>" + program() + ": " + command;
    const std::string failure = "<29>" + program() + ": /sbin/modprobe -s failed to spawn: ";
    signal(SIGCHLD, SIG_IGN); // the kernel then keeps no exit status
    EXPECT_EQ(qel_pci_hotswap_install(QEL_PCI_HOTSWAP_ALL_PCI_BRIDGES), -1);
    EXPECT_EQ(log.take(), line + "\n" + failure + strerror(ECHILD) + "\n");
    signal(SIGCHLD, SIG_DFL);

    ASSERT_EQ(mount("none", "/proc", "tmpfs", 0, nullptr), 0);
    EXPECT_EQ(qel_pci_hotswap_install(QEL_PCI_HOTSWAP_ALL_PCI_BRIDGES), 0);
    EXPECT_EQ(log.take(), "<29><unknown>: " + command + "\n");
    EXPECT_EQ(umount("/proc"), 0);
}

TEST(qel_pci_hotswap_install, cuts_a_long_program_name)
{
    const std::string here = program();
    if (here.size() <= 300) {
        chassis_sim::enter_private_root();
        chassis_sim::replace_modprobe();
        const std::string copy = "/var/tmp/" + std::string(200, 'd') + "/" + std::string(150, 'p');
        fs::create_directory(fs::path(copy).parent_path());
        fs::copy_file("/proc/self/exe", copy);
        execl(copy.c_str(), copy.c_str(), "--gtest_filter=*cuts_a_long_program_name", nullptr);
        FAIL() << strerror(errno);
    }
    test_support::syslog_socket log;
    EXPECT_EQ(qel_pci_hotswap_install(QEL_PCI_HOTSWAP_ALL_PCI_BRIDGES), 0);
    EXPECT_EQ(log.take(), "<29>" + here.substr(0, 255) + ": " + command + "\n");
}

chassis_sim::pci_function card()
{
    chassis_sim::pci_function function;
    function.id = "0000:04:00.0";
    return function;
}

TEST(qel_pci_hotswap_bridge, enables_waits_for_the_device_and_disables)
{
    chassis_sim::enter_private_root();
    chassis_sim::add_hotswap_bridge(bridge.str, card(), 60);
    const auto before = open_descriptors();
    EXPECT_EQ(qel_pci_hotswap_bridge_usable(&bridge), 0);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(take_list(qel_pci_hotswap_bridge_enable(&bridge)), "0000:04:00.0 ");
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(60));
    EXPECT_EQ(take_list(qel_pci_hotswap_bridge_enable(&bridge)), "0000:04:00.0 ");

    EXPECT_EQ(qel_pci_hotswap_bridge_disable(&bridge), 0);
    EXPECT_EQ(take_file(attribute.c_str()), "0\n");
    for (int i = 0; i < 1000 && fs::exists(chassis_sim::pci_link("0000:04:00.0")); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(take_list(sysfs_pci_children_list(&bridge)), "");
    EXPECT_EQ(open_descriptors(), before);
}

TEST(qel_pci_hotswap_bridge, looks_101_times_and_leaves_the_bridge_on)
{
    chassis_sim::enter_private_root();
    chassis_sim::write_file(attribute, "0\n");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(qel_pci_hotswap_bridge_enable(&bridge), nullptr);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
    auto calls = test_support::count_system_calls([] { qel_pci_hotswap_bridge_enable(&bridge); });
    EXPECT_EQ(calls["open"], 1 + 101) << test_support::text(calls);
    EXPECT_EQ(calls["#" + std::to_string(SYS_clock_nanosleep)], 100) << test_support::text(calls);
    EXPECT_EQ(take_file(attribute.c_str()), "1\n");
}

TEST(qel_pci_hotswap_bridge, passes_on_what_fails_without_looking_for_devices)
{
    chassis_sim::enter_private_root();
    chassis_sim::add_hotswap_bridge("0000:00:03.0", card(), 0);
    const auto errors = [](const sysfs_pci_identity_t *ident) {
        std::string text;
        EXPECT_EQ(qel_pci_hotswap_bridge_usable(ident), -1);
        text += std::to_string(errno) += " ";
        EXPECT_EQ(qel_pci_hotswap_bridge_enable(ident), nullptr);
        text += std::to_string(errno) += " ";
        EXPECT_EQ(qel_pci_hotswap_bridge_disable(ident), -1);
        return text += std::to_string(errno);
    };
    EXPECT_EQ(errors(nullptr), "-22 -22 -22");
    EXPECT_EQ(errors(&bridge), "2 2 2");
    fs::create_directory(chassis_sim::pci_link(bridge.str));
    EXPECT_EQ(errors(&bridge), "2 2 2");
    auto calls = test_support::count_system_calls([] { qel_pci_hotswap_bridge_enable(&bridge); });
    EXPECT_EQ(calls["open"], 1) << test_support::text(calls);

    fs::create_symlink("/dev/full", attribute);
    EXPECT_EQ(qel_pci_hotswap_bridge_enable(&bridge), nullptr);
    EXPECT_EQ(errno, ENOSPC);

    // A bridge that cannot be written.
    fs::remove(attribute);
    chassis_sim::write_file(attribute, "0\n");
    chassis_sim::bind_mount(attribute, attribute);
    ASSERT_EQ(mount(nullptr, attribute.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr),
              0);
    EXPECT_EQ(qel_pci_hotswap_bridge_usable(&bridge), -1);
    EXPECT_EQ(errno, EROFS);
    ASSERT_EQ(umount(attribute.c_str()), 0);

    // A bridge that leaves while it is watched ends the wait with that.
    chassis_sim::background([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(40));
        fs::rename(chassis_sim::pci_link(bridge.str), "/sys/gone");
    });
    EXPECT_EQ(qel_pci_hotswap_bridge_enable(&bridge), nullptr);
    EXPECT_EQ(errno, ENOENT);
}

} // namespace

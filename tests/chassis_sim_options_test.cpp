// The program chassis-sim: what its options make a command see.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include <sys/wait.h>
#include <unistd.h>

namespace
{

namespace fs = std::filesystem;

struct outcome {
    int status;
    std::string output; // both streams
};

outcome run(const std::string &options, const std::string &script)
{
    std::string command = CHASSIS_SIM;
    command += " " + options + " -- sh -c '" + script + "' 2>&1";
    FILE *pipe = ::popen(command.c_str(), "r");
    outcome result = {-1, ""};
    std::array<char, 4096> buffer;
    while (const size_t size = std::fread(buffer.data(), 1, buffer.size(), pipe))
        result.output.append(buffer.data(), size);
    result.status = WEXITSTATUS(::pclose(pipe));
    return result;
}

// Makes the node of the NVRAM numbered n, as the library does.
std::string make_node(int n, const std::string &name)
{
    const std::string number = "/sys/class/zmt_nvram/nvram" + std::to_string(n) + "/dev";
    return "mknod /dev/" + name + " c $(tr : \" \" <" + number + "); ";
}

const std::string link_status = "od -An -tx2 -j 90 -N 2 /sys/bus/pci/devices/0000:00:1c.0/config";
const std::string card = "/sys/bus/pci/devices/0000:06:00.0";
const std::string enable_bridge = "echo 1 >/sys/bus/pci/devices/0000:00:1e.0/bridge_enable; ";

// Waits as long as it takes.
std::string until(const std::string &condition)
{
    return "until " + condition + "; do sleep 0.05; done";
}

TEST(chassis_sim_options, show_in_what_the_command_sees)
{
    const struct {
        std::string options;
        std::string script;
        int status;
        std::string output;
    } cases[] = {
        {"", "ls /var/pod | wc -l", 0, "17\n"},
        {"--chassis n20", "ls /var/pod | wc -l", 0, "17\n"},
        {"--chassis n10", "ls /var/pod | wc -l", 0, "11\n"},
        {"--chassis n10", "ls /var/pod/pod_sw1.hex /var/pod/pod_pem7.hex", 2, ""},
        {"--chassis n4", "ls /var/pod | wc -l", 0, "12\n"},
        {"--chassis n4", "grep -q \"FT3 passed\" /var/pod/pod_pem4.hex", 0, ""},
        {"--pod-log empty", "ls /var/pod", 2, ""},
        {"--pod-log empty", make_node(0, "nvlog-pod") + "tr -d \"\\000\" </dev/nvlog-pod | wc -c",
         0, "0\n"},
        {"--pod-log sample", make_node(0, "nvlog-pod") + "grep -q \"RPSW1 passed\" /dev/nvlog-pod",
         0, ""},
        {"--post-log empty",
         make_node(1, "nvlog-ofw-event") + "tr -d \"\\000\" </dev/nvlog-ofw-event | wc -c", 0,
         "0\n"},
        {"--post-log sample",
         make_node(1, "nvlog-ofw-event") + "grep -q power-on /dev/nvlog-ofw-event", 0, ""},
        {"", "ls /sys/bus/pci/devices | wc -l", 0, "9\n"},
        {"--pci-devices 100", "ls /sys/bus/pci/devices | wc -l", 0, "109\n"},
        {"--pci-devices 33", "cat /sys/bus/pci/devices/0000:21:00.0/device", 0, "0x0040\n"},
        {"--uio-appears 1000", "test -e /dev/uio0; echo $?; " + until("test -e /dev/uio0"), 0,
         "1\n"},
        {"", link_status, 0, " 2041\n"},
        {"--link-trains 1000", link_status + "; " + until(link_status + " | grep -q 2041"), 0,
         " 0841\n"},
        {"--fault link-stuck", link_status, 0, " 0841\n"},
        {"", enable_bridge + until("test -e " + card), 0, ""},
        {"--fault bridge-empty", enable_bridge + "sleep 0.3; test -e " + card, 1, ""},
        {"--fault link-stuck --fault nvram-truncated",
         make_node(0, "nvlog-pod") +
             "cat /sys/class/zmt_nvram/nvram0/size; wc -c </dev/nvlog-pod; "
             "dd if=/dev/zero of=/dev/nvlog-pod bs=1 count=1 seek=9000 conv=notrunc 2>/dev/null",
         1, "0x4000\n8192\n"},
        {"", "exit 7", 7, ""},
        {"--fault nothing", "", 105, ""},
        {"--pci-devices 7169", "", 105, ""},
        {"--pod-log /nowhere", "", 125, "chassis-sim: cannot read a log image from /nowhere\n"},
        {"--post-log /nowhere", "", 125,
         "chassis-sim: cannot read a log image from /nowhere/nvlog-ofw-event\n"},
    };
    for (const auto &c : cases) {
        const outcome result = run(c.options, c.script);
        EXPECT_EQ(result.status, c.status) << c.options << ": " << result.output;
        if (!c.output.empty()) {
            EXPECT_EQ(result.output, c.output) << c.options << ": " << c.script;
        }
    }
}

TEST(chassis_sim_options, take_log_images_from_files)
{
    const fs::path dir = fs::temp_directory_path() / ("images." + std::to_string(::getpid()));
    fs::create_directory(dir);
    for (const char *name : {"pod", "nvlog-ofw-event", "nvlog-diag-test", "nvlog-diag-error"})
        std::ofstream(dir / name) << "contents of " << name;
    const outcome result =
        run("--pod-log " + (dir / "pod").string() + " --post-log " + dir.string(),
            make_node(0, "nvlog-pod") + make_node(3, "nvlog-diag-error") +
                "cat /dev/nvlog-pod /dev/nvlog-diag-error; cat /sys/class/zmt_nvram/nvram0/size");
    EXPECT_EQ(result.output, "contents of podcontents of nvlog-diag-error0xf\n");
    fs::remove_all(dir);
}

} // namespace

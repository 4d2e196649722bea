#include "sim/chassis.h"
#include "support/captured_output.h"
#include "support/descriptors.h"

#include <device_access/pod_log_file.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <string>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

namespace fs = std::filesystem;
using test_support::captured_output;

mode_t mode_of(const char *path)
{
    struct stat status = {};
    ::stat(path, &status);
    return status.st_mode & 0777;
}

TEST(pod_log_file, makes_directory_and_file_only_for_writing)
{
    chassis_sim::enter_private_root();
    ::umask(027);
    captured_output output;
    EXPECT_EQ(podlog_file_init(16, 1), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(output.take_stderr(), "ERROR: file /var/pod/pod_rpsw_mate.hex does not exist!\n");
    EXPECT_EQ(mode_of("/var/pod"), 0777u);
    EXPECT_TRUE(fs::is_empty("/var/pod"));
    char small[] = "/var/pod/small.hex";
    podlog_file_set_pod_info(3, small, 1000, 2, 64, 0xFFFFFFFF);
    const char *const paths[] = {"/var/pod/pod_alsw1.hex", "/var/pod/pod_pem8.hex",
                                 "/var/pod/pod_rpsw_mate.hex", small};
    const int ids[] = {0, 15, 16, 3};
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(podlog_file_init(ids[i], 0), 1);
        EXPECT_EQ(mode_of(paths[i]), 0750u);
        EXPECT_EQ(fs::file_size(paths[i]), 16384u) << "whatever the log's size";
    }
    EXPECT_EQ(output.take_stderr(), "");

    // Open is open, for reading too; the report goes to both streams.
    EXPECT_EQ(podlog_file_init(16, 1), -1);
    const std::string twice =
        "ERROR: podlog_file_init: file 16 current device is currently  opened already!\n";
    EXPECT_EQ(output.take_stderr(), twice);
    EXPECT_EQ(output.take_stdout(), twice);
    podlog_file_close(16);
    EXPECT_EQ(podlog_file_init(16, 1), 1);
    EXPECT_EQ(podlog_file_reset(16), -1);
    EXPECT_EQ(output.take_stderr(), "ERROR: pod_file_mem_wr: cannot write!!\n");
    podlog_file_close(16);
    podlog_file_close(16);
    EXPECT_EQ(podlog_file_reset(16), -1);
    EXPECT_EQ(podlog_file_use_nxt_log(16), -1);
    EXPECT_EQ(output.take_stderr(),
              "ERROR: pod_file_mem_wr: cannot access device for file instance 16 !\n"
              "ERROR: pod_file_mem_rd: cannot access device!\n");
}

TEST(pod_log_file, opens_a_file_for_its_caller)
{
    chassis_sim::enter_private_root();
    captured_output output;
    int fd = 5;
    EXPECT_EQ(podlog_file_open_dev_file(0, &fd, 1), 0);
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(podlog_file_open_dev_file(17, &fd, 0), 0);
    EXPECT_EQ(output.take_stderr(), "ERROR: file /var/pod/pod_alsw1.hex does not exist!\n");
    EXPECT_EQ(podlog_file_open_dev_file(0, &fd, 0), 1);
    EXPECT_EQ(::close(fd), 0);
    EXPECT_EQ(fs::file_size("/var/pod/pod_alsw1.hex"), 16384u);
    EXPECT_EQ(podlog_file_init(0, 1), -1) << "it is not formatted";
}

TEST(pod_log_file, refuses_to_read_what_is_no_log)
{
    chassis_sim::enter_private_root();
    const std::string other(100, 'x');
    chassis_sim::write_file("/var/pod/pod_ft1.hex", other);
    chassis_sim::write_file("/var/pod/pod_ft2.hex", "");
    captured_output output;
    const auto descriptors = test_support::open_descriptors();
    EXPECT_EQ(podlog_file_init(6, 1), -1);
    EXPECT_EQ(output.take_stderr(),
              "ERROR: podlog_file_init: magic number not initialized! cannot open for reading!!\n"
              "magic number: read = 0x78787878 expect = 0x1fe2c363\n");
    EXPECT_EQ(fs::file_size("/var/pod/pod_ft1.hex"), 100u);
    EXPECT_EQ(podlog_file_init(7, 0), -1);
    EXPECT_EQ(output.take_stderr(),
              "ERROR: pod_file_mem_rd: cannot read or reach eof!! range=0x20-0x2b\n");
    // An index and nothing else: its histories cannot be read.
    chassis_sim::write_file("/var/pod/pod_ft2.hex",
                            std::string(32, '\0') + "\x63\xC3\xE2\x1F" + std::string(8, '\0'));
    EXPECT_EQ(podlog_file_open_dir(7), -1);
    EXPECT_EQ(test_support::open_descriptors(), descriptors);
}

TEST(pod_log_file, says_why_there_is_no_file)
{
    chassis_sim::enter_private_root();
    char nowhere[] = "/var/missing/pod.hex";
    podlog_file_set_pod_info(1, nowhere, 16384, 10, 64, 0xFFFFFFFF);
    captured_output output;
    EXPECT_EQ(podlog_file_init(1, 0), -1);
    EXPECT_EQ(output.take_stderr(), "ERROR: pod_file_mem_rd: cannot access device!\n");

    ::signal(SIGXFSZ, SIG_IGN);
    rlimit limit;
    ::getrlimit(RLIMIT_FSIZE, &limit);
    // The captured output is a file too.
    const rlimit small = {8192, limit.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &small);
    EXPECT_EQ(podlog_file_init(0, 0), -1);
    ::setrlimit(RLIMIT_FSIZE, &limit);
    EXPECT_EQ(output.take_stderr(), "ERROR: cannot write to file /var/pod/pod_alsw1.hex!\n");

    ::umask(022);
    chassis_sim::bind_mount("/proc", "/var"); // where no directory can be made
    EXPECT_EQ(podlog_file_init(0, 0), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(output.take_stderr(), "Unable to create POD directory: No such file or directory\n");
    EXPECT_EQ(::umask(022), 0u) << "left so";
}

} // namespace

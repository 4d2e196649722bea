// The limits of a chassis: nothing gets out of it, what is wrong is told, and where a kernel says
// no it does too.
#include "support/test.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

namespace fs = std::filesystem;
using namespace chassis_sim;
using std::string;

// What a line of the shell prints on both streams, followed by its status.
string shell(const string &line)
{
    const string whole = "PATH=" PROGRAMS ":$PATH; { " + line + "\n} 2>&1";
    FILE *const pipe = ::popen(whole.c_str(), "r");
    string text;
    for (int byte; (byte = std::fgetc(pipe)) != EOF;)
        text += static_cast<char>(byte);
    return text + std::to_string(WEXITSTATUS(::pclose(pipe)));
}

//--- processes ------------------------------------------------------------------------------------

TEST(chassis_processes, are_all_waited_for_by_the_chassis)
{
    ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    EXPECT_EQ(shell("chassis-sim -- sh -c 'sleep .1 & exit 3'"), "3");
    EXPECT_TRUE(::waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD);
}

//--- as a kernel ----------------------------------------------------------------------------------

void start_chassis()
{
    enter_private_root();
    device_server server;
    add_uio(server, {});
    server.add(storage_node{"/dev/nvlog-test", "stored"});
    server.add(memory_range{0x10000, 4096, "bytes", {}, {}});
    server.start();
    add_chassis_pci();
}

TEST(chassis_files, are_written_while_others_are_renamed)
{
    enter_private_root();
    stay_in_root_file_system();
    write_file("/any/text", "");
    const pid_t renaming = background([] {
        for (;;) {
            ::rename("/any/text", "/any/other");
            ::rename("/any/other", "/any/text");
        }
    });
    for (int i = 0; i < 20000; ++i)
        write_file("/any/../any/../text", "1");
    ::kill(renaming, SIGKILL);
}

TEST(chassis_as_a_kernel, gives_descriptors_up_to_the_limit_and_each_number_once)
{
    for (const rlim_t most : {64, 256, 1500}) {
        const rlimit limit = {most, most};
        const pid_t child = ::fork();
        if (child == 0) {
            ::setrlimit(RLIMIT_NOFILE, &limit);
            start_chassis();
            std::vector<int> opened;
            for (int fd; (fd = ::open("/dev/uio0", O_RDWR)) >= 0;)
                opened.push_back(fd);
            const bool at_limit = errno == EMFILE;
            std::sort(opened.begin(), opened.end());
            const bool each_once = std::adjacent_find(opened.begin(), opened.end()) == opened.end();
            // Some numbers may have been inherited.
            ::_exit(at_limit && each_once && opened.size() + 4 >= most / 4 ? 0 : 1);
        }
        int status = 0;
        ::waitpid(child, &status, 0);
        EXPECT_EQ(status, 0) << most;
    }
}

TEST(chassis_as_a_kernel, maps_only_windows_that_exist_and_not_past_their_end)
{
    start_chassis();
    const int fd = ::open("/dev/uio0", O_RDWR);
    EXPECT_EQ(::mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 4096), MAP_FAILED);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(::mmap(nullptr, 8192, PROT_READ, MAP_SHARED, fd, 0), MAP_FAILED);
    EXPECT_EQ(errno, EINVAL);
    const int bar = ::open((pci_link(pci_slot_device) + "/resource0").c_str(), O_RDWR);
    EXPECT_EQ(::mmap(nullptr, 0x11000, PROT_READ, MAP_SHARED, bar, 0), MAP_FAILED);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_NE(::mmap(nullptr, 0x10000, PROT_READ, MAP_SHARED, bar, 0), MAP_FAILED);
}

TEST(chassis_as_a_kernel, configuration_space_ends_at_its_end_and_goes_with_its_function)
{
    start_chassis();
    const string path = pci_link("0000:00:19.0") + "/config";
    const int fd = ::open(path.c_str(), O_RDWR);
    EXPECT_EQ(::pwrite(fd, "x", 1, 256), -1);
    EXPECT_EQ(errno, EFBIG);
    EXPECT_EQ(::pwrite(fd, "abcd", 4, 254), 2);
    EXPECT_EQ(fs::file_size(path), 256u);
    control("remove 0000:00:19.0");
    char byte;
    EXPECT_EQ(::pread(fd, &byte, 1, 0), -1);
    EXPECT_EQ(errno, ENODEV);
    control("plug 0000:00:19.0");
    EXPECT_EQ(::pwrite(fd, &byte, 1, 0), -1);
    EXPECT_EQ(errno, ENODEV) << "it is another function now";
    EXPECT_EQ(::pread(::open(path.c_str(), O_RDONLY), &byte, 1, 0), 1);
}

TEST(chassis_as_a_kernel, device_is_a_character_device_by_whatever_name)
{
    start_chassis();
    const auto is_device = [](int fd) {
        struct stat status = {};
        return ::fstat(fd, &status) == 0 && S_ISCHR(status.st_mode);
    };
    const int fd = ::open("/dev/uio0", O_RDWR);
    EXPECT_TRUE(is_device(fd));
    EXPECT_TRUE(is_device(::open(test::printed("/proc/self/fd/%d", fd).c_str(), O_RDWR)));
    EXPECT_TRUE(is_device(::open("/dev/mem", O_RDWR)));
    if (test::read_file("/proc/self/uid_map").find("4294967295") == string::npos)
        return; // only the machine's root makes nodes
    struct stat status = {};
    ASSERT_EQ(::stat("/dev/uio0", &status), 0);
    ASSERT_EQ(::mknod("/var/tmp/own", S_IFCHR | 0600, status.st_rdev), 0);
    ASSERT_EQ(::link("/dev/uio0", "/dev/hard"), 0);
    for (const char *path : {"/var/tmp/own", "/dev/hard"})
        EXPECT_TRUE(is_device(::open(path, O_RDWR))) << path;
    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(::chroot("/dev") == 0 && is_device(::open("/uio0", O_RDWR)) ? 7 : 1);
    int ended = 0;
    ::waitpid(child, &ended, 0);
    EXPECT_EQ(WEXITSTATUS(ended), 7) << "in a changed root";
}

TEST(chassis_as_a_kernel, physical_memory_is_what_is_described)
{
    start_chassis();
    const int fd = ::open("/dev/mem", O_RDWR);
    char text[6] = {};
    EXPECT_EQ(::pread(fd, text, 5, 0x10000), 5);
    EXPECT_STREQ(text, "bytes");
    EXPECT_EQ(::pread(fd, text, 5, 0x20000), -1);
    EXPECT_EQ(errno, EFAULT);
    EXPECT_EQ(::mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0x20000), MAP_FAILED);
    EXPECT_EQ(errno, EPERM);
    const void *const at = ::mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0x10000);
    ASSERT_NE(at, MAP_FAILED);
    EXPECT_STREQ(static_cast<const char *>(at), "bytes");
}

TEST(chassis_as_a_kernel, only_a_port_has_a_link)
{
    start_chassis();
    EXPECT_THROW(control(string("link ") + pci_slot_device + " down"), failure);
    control(string("link ") + pci_root_port + " down");
}

} // namespace

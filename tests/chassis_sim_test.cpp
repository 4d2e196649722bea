#include "sim/chassis.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace
{

namespace fs = std::filesystem;

TEST(chassis_sim, shows_a_fresh_tree_beside_the_machines_own_files)
{
    const std::string here = fs::current_path();
    chassis_sim::enter_private_root();
    EXPECT_TRUE(fs::is_empty("/sys"));
    EXPECT_TRUE(fs::is_empty("/flash"));
    EXPECT_FALSE(fs::exists("/dev/mem"));
    EXPECT_TRUE(fs::exists("/usr/bin"));
    EXPECT_TRUE(fs::is_character_file("/dev/null"));
    EXPECT_EQ(fs::current_path(), here);
    EXPECT_TRUE(std::ofstream("/dev/null") << "writable");

    chassis_sim::write_file("/sys/bus/pci/devices/0000:00:00.0/vendor", "0x8086\n");
    std::string text;
    std::ifstream("/sys/bus/pci/devices/0000:00:00.0/vendor") >> text;
    EXPECT_EQ(text, "0x8086");
}

void become_ordinary_user()
{
    if (::getuid() != 0)
        return;
    ASSERT_EQ(::setresgid(65534, 65534, 65534), 0);
    ASSERT_EQ(::setresuid(65534, 65534, 65534), 0);
    // A process that was root may not write to its own /proc entry until it says so.
    ASSERT_EQ(::prctl(PR_SET_DUMPABLE, 1), 0);
}

TEST(chassis_sim, works_for_an_ordinary_user_devices_included)
{
    become_ordinary_user();
    chassis_sim::enter_private_root();
    chassis_sim::device_server devices;
    chassis_sim::uio_description late;
    late.plugged = false;
    chassis_sim::add_uio(devices, late);
    devices.add(chassis_sim::storage_node{"/dev/nvlog-test", "stored"});
    devices.start();

    struct stat status;
    EXPECT_NE(::stat("/dev/uio0", &status), 0);
    chassis_sim::control("plug uio0");
    const int node = ::open("/dev/uio0", O_RDWR); // asks the server, behind the control line
    EXPECT_GE(node, 0);
    EXPECT_EQ(::stat("/dev/uio0", &status), 0);
    EXPECT_TRUE(S_ISCHR(status.st_mode));

    EXPECT_EQ(::mknod("/dev/nvlog-test", S_IFCHR | 0600, ::makedev(240, 0)), 0);
    const int storage = ::open("/dev/nvlog-test", O_RDWR | O_EXCL);
    char text[7] = "";
    EXPECT_EQ(::pread(storage, text, 6, 0), 6);
    EXPECT_STREQ(text, "stored");
    EXPECT_EQ(::open("/dev/nvlog-test", O_RDONLY), -1);
    EXPECT_EQ(errno, EBUSY);
    ::close(storage);
    EXPECT_GE(::open("/dev/nvlog-test", O_RDONLY), 0);
}

// As tests/kernel finds it on a real kernel.
TEST(chassis_sim, fails_what_is_open_on_a_removed_device)
{
    chassis_sim::enter_private_root();
    chassis_sim::device_server devices;
    chassis_sim::add_uio(devices, {});
    devices.start();
    const int node = ::open("/dev/uio0", O_RDWR);
    ASSERT_GE(node, 0);

    chassis_sim::control("remove uio0");
    pollfd ready = {node, POLLIN, 0};
    EXPECT_EQ(::poll(&ready, 1, -1), 1);
    EXPECT_EQ(ready.revents, POLLIN | POLLERR | POLLHUP);
    int32_t word = 1;
    EXPECT_EQ(::pread(node, &word, sizeof word, 0), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(::pwrite(node, &word, sizeof word, 0), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_FALSE(fs::exists("/dev/uio0"));
    EXPECT_FALSE(fs::exists(chassis_sim::uio_class_dir(0)));
    ::close(node);
}

TEST(chassis_sim, says_in_one_line_that_it_cannot_be_built)
{
    if (::getuid() != 0)
        GTEST_SKIP() << "only root can put itself where no namespaces are allowed";
    const auto build_without_namespaces = [] {
        // The kernel makes no user namespaces for who lives in a changed root.
        if (::chroot("/usr") == 0)
            become_ordinary_user();
        chassis_sim::enter_private_root();
    };
    EXPECT_EXIT(build_without_namespaces(), testing::ExitedWithCode(125),
                "^chassis-sim: needs a private mount namespace: run it as root, or where user "
                "namespaces are allowed: Operation not permitted\n$");
}

} // namespace

#include "sim/chassis.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include <sys/prctl.h>
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

TEST(chassis_sim, works_for_an_ordinary_user)
{
    if (::getuid() == 0) {
        ASSERT_EQ(::setresgid(65534, 65534, 65534), 0);
        ASSERT_EQ(::setresuid(65534, 65534, 65534), 0);
        // A process that was root may not write to its own /proc entry until it says so.
        ASSERT_EQ(::prctl(PR_SET_DUMPABLE, 1), 0);
    }
    chassis_sim::enter_private_root();
    chassis_sim::write_file("/var/pod/pod_sw1.hex", "log");
    EXPECT_EQ(fs::file_size("/var/pod/pod_sw1.hex"), 3u);
}

} // namespace

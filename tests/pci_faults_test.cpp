#include "sim/chassis.h"
#include "support/captured_output.h"
#include "support/descriptors.h"
#include "support/diagnostics.h"
#include "support/failing_call.h"

#include <device_access/pci_config.h>
#include <device_access/pci_sysfs.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <string>

#include <fcntl.h>
#include <unistd.h>

namespace
{

using test_support::failing;
using test_support::fails;
using test_support::next;

off_t unreadable = -1; // position in a file

} // namespace

extern "C" {

int openat(int dir, const char *name, int flags, ...)
{
    return fails("openat") ? -1
                           : next<int(int, const char *, int, ...)>("openat64")(dir, name, flags);
}

int open(const char *path, int flags, ...)
{
    va_list args;
    va_start(args, flags);
    const int mode = va_arg(args, int);
    va_end(args);
    return fails("open") ? -1 : next<int(const char *, int, ...)>("open64")(path, flags, mode);
}

ssize_t pread(int fd, void *buffer, size_t size, off_t offset)
{
    if (offset == unreadable && fails("pread"))
        return -1;
    return next<ssize_t(int, void *, size_t, off_t)>("pread64")(fd, buffer, size, offset);
}

} // extern "C"

namespace
{

const sysfs_pci_identity_t root_port = {"0000:00:1c.0", {}};
const std::string root_port_dir = chassis_sim::pci_link(root_port.str);

class pci_faults : public testing::Test
{
protected:
    pci_faults()
    {
        chassis_sim::enter_private_root();
        chassis_sim::pci_function function;
        function.id = root_port.str;
        chassis_sim::config_builder config(1);
        capability = config.pcie({.slot = true, .hotplug = true});
        function.config = config.bytes();
        function.windows = {{0xf0000000, 0x1000}};
        chassis_sim::add_pci(function);
    }

    // Scans, with this result, and returns the log.
    static std::string scan(int result)
    {
        test_support::captured_output output;
        EXPECT_EQ(sysfs_pci_info_init(), result);
        return test_support::diagnostics(output.take_stdout(), "[",
                                         "], lib/device_access/pci_sysfs:");
    }

    uint8_t capability;
};

TEST_F(pci_faults, a_scan_without_memory_has_no_result_not_even_the_last_one)
{
    if (test_support::heap_is_replaced)
        GTEST_SKIP();
    scan(0);
    const auto descriptors = test_support::open_descriptors();
    failing = {"calloc", EAGAIN};
    EXPECT_EQ(scan(1), "7 sysfs_pci_arraylist_create: # of elements is 3\n\n"
                       "3 sysfs_pci_arraylist_create: Unable to allocate memory \n\n");
    EXPECT_EQ(test_support::open_descriptors(), descriptors);
    sysfs_pci_get_next_element_t handle;
    test_support::captured_output output;
    sysfs_pci_info_fetch_init(&handle);
    EXPECT_EQ(handle.seed, nullptr);
    EXPECT_EQ(sysfs_pci_info_fetch_next(&handle), nullptr);

    failing = {"calloc", EAGAIN};
    EXPECT_EQ(sysfs_pci_list(), nullptr);
    EXPECT_EQ(errno, ENOMEM);
}

TEST_F(pci_faults, a_resource_table_that_leaves_between_its_two_openings_is_skipped)
{
    failing = {"openat", ENOENT, 5};
    EXPECT_EQ(scan(0), "7 sysfs_pci_arraylist_create: # of elements is 3\n\n"
                       "3 sysfs_fetch_resource_attr: Failed to open " +
                           root_port_dir +
                           "/resource\n\n"
                           "7 sysfs_pci_info_init: info_set has 3 entries\n\n");
}

TEST_F(pci_faults, a_function_that_no_descriptor_is_left_for_is_listed_without_its_attributes)
{
    failing = {"open", EMFILE};
    std::string log = "7 sysfs_pci_arraylist_create: # of elements is 3\n\n";
    for (const char *name :
         {"device", "vendor", "subsystem_device", "subsystem_vendor", "resource"})
        log += "3 sysfs_fill_attribute: Error opening the file_entry, " + root_port_dir + "/" +
               name + "\n\n";
    EXPECT_EQ(scan(0), log + "7 sysfs_pci_info_init: info_set has 3 entries\n\n");
}

TEST_F(pci_faults, a_window_that_may_not_be_opened_fails_the_mapping)
{
    void *bars[6];
    failing = {"open", EACCES};
    EXPECT_EQ(sysfs_pci_mmap(bars, 0, &root_port), -1);
    EXPECT_EQ(errno, EACCES);
    failing = {"open", ENOENT};
    EXPECT_EQ(sysfs_pci_mmap(bars, 0, &root_port), 0);
    EXPECT_EQ(bars[0], nullptr);
}

TEST_F(pci_faults, a_hot_plug_port_whose_registers_cannot_be_read_is_none)
{
    void *handle = pci_config_open(&root_port);
    EXPECT_EQ(pcie_config_is_hotplug(handle), 1);
    for (const uint32_t position : {capability + 0x02u, capability + 0x14u}) {
        unreadable = static_cast<off_t>(position);
        failing = {"pread", EIO};
        EXPECT_EQ(pcie_config_is_hotplug(handle), 0);
        EXPECT_EQ(errno, EIO);
        EXPECT_STREQ(failing.name, "");
    }
    pci_config_close(handle);
}

} // namespace

#include "sim/chassis.h"
#include "support/captured_output.h"
#include "support/descriptors.h"
#include "support/diagnostics.h"
#include "support/syslog_socket.h"
#include "support/system_calls.h"

#include <device_access/pci_sysfs.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include <sys/resource.h>

namespace
{

namespace fs = std::filesystem;
using chassis_sim::pci_function;
using chassis_sim::write_file;
using test_support::captured_output;

const std::string bus = "/sys/bus/pci/devices";

sysfs_pci_identity_t identity(const std::string &id)
{
    sysfs_pci_identity_t ident = {};
    std::memcpy(ident.str, id.c_str(), id.size());
    return ident;
}

void add(const std::string &id, const std::string &parent = "")
{
    pci_function function;
    function.id = id;
    function.parent = parent;
    chassis_sim::add_pci(function);
}

// The n-th of the functions that a full bus 0, bus 1, ... have.
std::string function_id(int n)
{
    char id[16];
    std::snprintf(id, sizeof id, "0000:%02x:%02x.%d", n >> 8 & 0xff, n >> 3 & 0x1f, n & 7);
    return id;
}

// The lines that a call prints, each "LEVEL FUNCTION: MESSAGE".
template <typename F>
std::string log_of(F call)
{
    std::string lines, errors;
    {
        captured_output output;
        call();
        lines = output.take_stdout();
        errors = output.take_stderr();
    }
    EXPECT_EQ(errors, "");
    return test_support::diagnostics(lines, "[", "], lib/device_access/pci_sysfs:");
}

// Scans, with this result, and returns the log.
std::string scan(int result = 0)
{
    int is = -1;
    const std::string log = log_of([&] { is = sysfs_pci_info_init(); });
    EXPECT_EQ(is, result);
    return log;
}

const sysfs_pci_info_set_t *last_scan()
{
    sysfs_pci_get_next_element_t handle;
    sysfs_pci_info_fetch_init(&handle);
    return static_cast<const sysfs_pci_info_set_t *>(handle.seed);
}

//--- identities -----------------------------------------------------------------------------------

TEST(pci_identity, is_read_by_the_letter_rule)
{
    struct {
        const char *id;
        int domain, bus, slot, function, devfn;
    } cases[] = {
        {"0000:00:03.1", 0, 0, 3, 1, 25},
        {"0000:1f:1f.3", 0, 11, 11, 3, 91},
        {"0001:0a:0A.7", 1, -10, -10, 7, 0xb7},
        {"ffff:ff:ff.0", -5 * 0x1111, -85, -85, 0, 0x58},
        {"1234:99:19.5", 0x1234, 0x99, 0x19, 5, 0xcd},
    };
    for (const auto &c : cases) {
        const sysfs_pci_identity_t ident = identity(c.id);
        EXPECT_EQ(sysfs_pci_identity_domain(&ident), c.domain) << c.id;
        EXPECT_EQ(sysfs_pci_identity_bus(&ident), c.bus) << c.id;
        EXPECT_EQ(sysfs_pci_identity_slot(&ident), c.slot) << c.id;
        EXPECT_EQ(sysfs_pci_identity_function(&ident), c.function) << c.id;
        EXPECT_EQ(sysfs_pci_identity_devfn(&ident), c.devfn) << c.id;
    }
}

TEST(pci_identity, copes_with_any_range_and_any_characters)
{
    const sysfs_pci_identity_t ident = identity("0000:00:00.1");
    EXPECT_EQ(sysfs_pci_identity_atox(11, 12, &ident), 1);
    EXPECT_EQ(sysfs_pci_identity_atox(5, 5, &ident), 0);
    EXPECT_EQ(sysfs_pci_identity_atox(7, 5, &ident), 0);
    EXPECT_EQ(sysfs_pci_identity_atox(INT_MIN, 1, &ident), 0);
    EXPECT_EQ(sysfs_pci_identity_atox(12, INT_MAX, &ident), -107) << "the terminator";
    EXPECT_EQ(sysfs_pci_identity_atox(4, 5, &ident), ':' - 107);
    EXPECT_EQ(sysfs_pci_identity_atox(0, 12, nullptr), 0);
    sysfs_pci_identity_t hostile;
    std::memset(hostile.str, 0xff, sizeof hostile.str);
    EXPECT_NE(sysfs_pci_identity_atox(INT_MIN, INT_MAX, &hostile), 0) << "wraps around";
}

//--- scan -----------------------------------------------------------------------------------------

TEST(pci_scan, finds_devices_between_holes_in_sorted_order)
{
    chassis_sim::enter_private_root();
    add("0000:00:1c.0");
    pci_function device;
    device.id = "0000:03:00.0";
    device.parent = "0000:00:1c.0";
    device.device = 0xabcd;
    device.subsystem_vendor = 0x1234;
    device.windows = {{0x1000, 0x100, 0x40101},
                      {0x70000000, 0x10000000},
                      {0xf0000000, 0x01000000, 0x42208},
                      {0x4'0000'0000, 0x200000, 0x14220c}};
    chassis_sim::add_pci(device);
    write_file(bus + "/0000:01:00.0", "a file");
    chassis_sim::make_symlink(bus + "/0000:02:00.0", "gone");
    EXPECT_EQ(scan(), "7 sysfs_pci_arraylist_create: # of elements is 6\n\n"
                      "7 sysfs_pci_info_init: info_set has 6 entries\n\n");

    const sysfs_pci_info_set_t *set = last_scan();
    ASSERT_EQ(set->count, 6u);
    for (size_t hole : {0, 1, 3, 4})
        EXPECT_STREQ(set->element[hole].id.sys_fs, "");
    sysfs_pci_get_next_element_t handle;
    sysfs_pci_info_fetch_init(&handle);
    EXPECT_EQ(sysfs_pci_info_fetch_next(&handle), &set->element[2]);
    EXPECT_EQ(handle.key, 3u);
    const sysfs_pci_info_t *found = sysfs_pci_info_fetch_next(&handle);
    ASSERT_EQ(found, &set->element[5]);
    EXPECT_EQ(found->id.vendor, 0x1d0f);
    EXPECT_EQ(found->id.device, 0xabcd);
    EXPECT_EQ(found->id.subsystem_vendor, 0x1234);
    EXPECT_EQ(found->id.subsystem_device, 0x0001);
    EXPECT_EQ(found->id.devfn, 0);
    EXPECT_EQ(found->id.sys_fs, bus + "/0000:03:00.0");
    const sysfs_pci_bar_t bars[] = {
        {0x1000, 0x100, 0x40101},
        {0x70000000, 0xffffffff'10000000, 0x40200}, // ends at 2 GiB: a negative end
        {0xf0000000, 0xffffffff'01000000, 0x42208},
        {0x4'0000'0000, 0xfffffffc'00200000, 0x14220c},
        {0, 1, 0},
        {0, 1, 0},
    };
    EXPECT_EQ(std::memcmp(found->resource_bar, bars, sizeof bars), 0);
}

TEST(pci_scan, iterates_and_reports_unusable_iterators_to_syslog)
{
    chassis_sim::enter_private_root();
    test_support::syslog_socket syslog;
    sysfs_pci_get_next_element_t handle;
    handle.key = 7;
    EXPECT_EQ(log_of([&] { sysfs_pci_info_fetch_init(&handle); }),
              "7 sysfs_pci_info_fetch_init: Empty info set\n\n");
    EXPECT_EQ(handle.key, 0u);
    errno = EXDEV;
    EXPECT_EQ(sysfs_pci_info_fetch_next(&handle), nullptr);
    EXPECT_EQ(errno, EXDEV);
    EXPECT_EQ(syslog.take(), "<11>The Received handle is corrupted \n");
    sysfs_pci_info_fetch_init(nullptr);
    EXPECT_EQ(syslog.take(), "<11>Pci Info Init failed \n");
    EXPECT_EQ(sysfs_pci_info_fetch_next(nullptr), nullptr);
    EXPECT_EQ(syslog.take(), "<11>Received Null Handle for next element fetch \n");

    add("0000:00:01.0");
    write_file(bus + "/zz", "a hole behind the last device");
    scan();
    sysfs_pci_info_fetch_init(&handle);
    EXPECT_NE(sysfs_pci_info_fetch_next(&handle), nullptr);
    EXPECT_EQ(log_of([&] { sysfs_pci_info_fetch_next(&handle); }), "");
    EXPECT_EQ(sysfs_pci_info_fetch_next(&handle), nullptr);
    EXPECT_EQ(handle.key, 4u);
    EXPECT_EQ(syslog.take(), "");
    handle.key = 5;
    EXPECT_EQ(sysfs_pci_info_fetch_next(&handle), nullptr);
    EXPECT_EQ(syslog.take(), "<11>The Received handle key count is invalid\n");
}

TEST(pci_scan, says_why_there_is_no_result)
{
    chassis_sim::enter_private_root();
    EXPECT_EQ(scan(1), "3 is_sysfs_path_dir: Stats failed for path " + bus +
                           "\n\n3 sysfs_pci_scan_dir_path: PATH invalidi\n\n");
    chassis_sim::make_directory("/sys/elsewhere");
    chassis_sim::make_symlink(bus, "/sys/elsewhere"); // a link is no directory here
    EXPECT_EQ(scan(1), "3 sysfs_pci_scan_dir_path: PATH invalidi\n\n");

    fs::remove(bus);
    chassis_sim::make_directory(bus);
    rlimit descriptors;
    getrlimit(RLIMIT_NOFILE, &descriptors);
    const std::string log = log_of([&] {
        const rlimit none = {0, descriptors.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
        EXPECT_EQ(sysfs_pci_info_init(), 1);
        setrlimit(RLIMIT_NOFILE, &descriptors);
    });
    EXPECT_EQ(log, "3 sysfs_pci_scan_dir_path: scandir failed\n");
    EXPECT_EQ(last_scan(), nullptr);
}

// The ids, and the first two base address registers as BASE+SIZE:FLAGS.
std::string text(const sysfs_pci_info_t &info)
{
    const com_pci_dev_t &id = info.id;
    std::ostringstream out;
    out << std::hex << id.vendor << " " << id.device << " " << id.subsystem_vendor << " "
        << id.subsystem_device;
    for (int i : {0, 1}) {
        const sysfs_pci_bar_t &bar = info.resource_bar[i];
        out << " " << bar.base << "+" << bar.size << ":" << bar.flags;
    }
    return out.str();
}

TEST(pci_scan, goes_on_behind_bad_attributes)
{
    const std::string zeros(126, '0');
    const std::string long_number = zeros + "12";
    const std::string long_line = zeros + "12 0x1f 0x2\n";
    const std::string invalid = "3 sysfs_fill_attribute: Read returned invalid value ";
    const std::string unreadable = "3 sysfs_fill_attribute: Read failed on the attribute %\n\n";
    const std::string absent = "3 sysfs_fill_attribute: Error opening the file_entry, %\n\n";
    const std::string end = "3 sysfs_fetch_resource_attr: Unexpected EOF at line ";
    const std::string no_bars = "1d0f 1 1d0f 1 0+0:0 0+0:0";
    struct {
        const char *attribute;
        const char *contents; // NULL: absent; "/": a directory
        std::string log;      // %: the attribute
        std::string expected;
    } cases[] = {
        {"vendor", "ffff\n", invalid + "ffff\n\n\n", "0 1 1d0f 1 0+1:0 0+1:0"},
        {"device", "", unreadable, "1d0f 0 1d0f 1 0+1:0 0+1:0"},
        {"vendor", "0x12345678\n", "", "5678 1 1d0f 1 0+1:0 0+1:0"},
        {"vendor", long_number.c_str(), "", "1 1 1d0f 1 0+1:0 0+1:0"}, // of 127 characters
        {"subsystem_device", nullptr, absent, "1d0f 1 1d0f 0 0+1:0 0+1:0"},
        {"subsystem_vendor", "/", unreadable, "1d0f 1 0 1 0+1:0 0+1:0"},
        {"resource", "/", unreadable, no_bars},
        {"resource", " 0x1000 0x1fff 0x200\n", invalid + " 0x1000 0x1fff 0x200\n\n\n", no_bars},
        {"resource", "0x1000 0x1fff 0x200\n0x2000 0x20ff 0x101", end + "2 of %\n\n",
         "1d0f 1 1d0f 1 1000+1000:200 2000+100:101"},
        {"resource", "0x1000 0x1fff 0x200\n5", end + "2 of %\n\n",
         "1d0f 1 1d0f 1 1000+1000:200 5+fffffffffffffffc:0"},
        {"resource", "0x1000\n1 0x1fff\n\n\n0\n2", "",
         "1d0f 1 1d0f 1 1000+fffffffffffff001:0 1+1fff:0"},
        {"resource", "0xfffffffffffffffff 0xffffffffffffffff 0x123456789abcdef01\n",
         end + "1 of %\n\n", "1d0f 1 1d0f 1 ffffffffffffffff+1:ffffffff 0+0:0"},
        // The rest of a line that is too long is the next one.
        {"resource", long_line.c_str(), end + "2 of %\n\n", "1d0f 1 1d0f 1 1+0:0 2+1e:2"},
    };
    chassis_sim::enter_private_root();
    const auto descriptors = test_support::open_descriptors();
    static auto &earlier = *new std::vector<const void *>; // no result is ever freed
    for (const auto &c : cases) {
        add("0000:00:01.0");
        const std::string file = bus + "/0000:00:01.0/" + c.attribute;
        fs::remove(file);
        if (c.contents && std::strcmp(c.contents, "/") == 0)
            fs::create_directory(file);
        else if (c.contents)
            write_file(file, c.contents);
        std::string log = c.log;
        if (const size_t mark = log.find('%'); mark != std::string::npos)
            log.replace(mark, 1, file);
        EXPECT_EQ(scan(), "7 sysfs_pci_arraylist_create: # of elements is 3\n\n" + log +
                              "7 sysfs_pci_info_init: info_set has 3 entries\n\n");
        EXPECT_EQ(text(last_scan()->element[2]), c.expected) << log;
        earlier.push_back(last_scan());
        chassis_sim::remove_pci("0000:00:01.0");
    }
    EXPECT_EQ(test_support::open_descriptors(), descriptors);
}

TEST(pci_scan, cuts_names_that_no_kernel_gives)
{
    chassis_sim::enter_private_root();
    const std::string longer(90, 'a');
    const std::string longest(250, 'b'); // with the directory more than 255 characters
    for (const std::string &name : {longer, longest})
        write_file(bus + "/" + name + "/vendor", "0x1234");
    // What was listed, but has no files any more, is a device all the same.
    EXPECT_NE(scan().find("Error opening the file_entry, " + bus), std::string::npos);
    const sysfs_pci_info_set_t *set = last_scan();
    EXPECT_EQ(set->element[2].id.sys_fs, (bus + "/" + longer).substr(0, 99));
    EXPECT_EQ(set->element[2].id.vendor, 0x1234);
    EXPECT_STREQ(set->element[3].id.sys_fs, "");
}

TEST(pci_scan, makes_the_system_calls_of_its_steps)
{
    chassis_sim::enter_private_root();
    const auto count = [] {
        captured_output output;
        return test_support::count_system_calls([] { sysfs_pci_info_init(); });
    };
    add("0000:00:00.0");
    const test_support::system_calls one = count();
    for (int n = 1; n <= 1000; ++n)
        add(function_id(n));
    test_support::system_calls more = count();
    for (const auto &[name, calls] : one)
        more[name] -= calls;
    // The device's directory, and from there five attributes; the resource table is opened twice.
    EXPECT_EQ(more["open"], 1000 * 7);
    EXPECT_EQ(more["read"], 1000 * 6);
    EXPECT_EQ(more["close"], 1000 * 7);
    EXPECT_LE(test_support::total(more), 1000 * 20 + 30) << test_support::text(more);
}

TEST(pci_scan, copes_with_4096_devices)
{
    chassis_sim::enter_private_root();
    for (int n = 0; n < 4096; ++n) {
        chassis_sim::make_directory(bus + "/" + function_id(n));
    }
    const std::string log = scan();
    EXPECT_LT(log.find("0000:0f:1f.7"), log.find("0000:00:00.0")) << "from the last to the first";
    std::string first = "7 sysfs_pci_arraylist_create: # of elements is 4098\n\n";
    for (const char *attribute :
         {"device", "vendor", "subsystem_device", "subsystem_vendor", "resource"})
        first += "3 sysfs_fill_attribute: Error opening the file_entry, " + bus + "/0000:0f:1f.7/" +
                 attribute + "\n\n";
    EXPECT_EQ(log.substr(0, first.size()), first);
    EXPECT_EQ(last_scan()->count, 4098u);
    EXPECT_EQ(last_scan()->element[4097].id.sys_fs, bus + "/0000:0f:1f.7");
    sysfs_pci_identity_t *list = sysfs_pci_list();
    EXPECT_STREQ(list[4095].str, "0000:0f:1f.7");
    EXPECT_STREQ(list[4096].str, "");
    std::free(list);
}

//--- lists and records ----------------------------------------------------------------------------

std::string names(sysfs_pci_identity_t *list)
{
    std::string result;
    for (const sysfs_pci_identity_t *ident = list; list && ident->str[0]; ++ident)
        result += std::string(ident->str) + " ";
    std::free(list);
    return result;
}

TEST(pci_list, holds_what_is_named_like_an_identity_in_sorted_order)
{
    chassis_sim::enter_private_root();
    EXPECT_EQ(sysfs_pci_list(), nullptr);
    EXPECT_EQ(errno, ENOENT);
    for (const char *name :
         {"0000:00:1f.3", "fFfF:aB:Cd.7", "000a:00:00.0", "0000:00:1f.8", "0000:00:1f.a",
          "0000:00:1f", "0000:00:1f.3x", "00000:00:1f.3", "0000-00:1f.3", "0000:00-1f.3",
          "0000:00:1f:3", "000g:00:1f.3", "0000:0g:1f.3", "0000:00:g0.3", "0000:00:1 .3"})
        write_file(bus + "/" + name, "");
    EXPECT_EQ(names(sysfs_pci_list()), "0000:00:1f.3 000a:00:00.0 fFfF:aB:Cd.7 ");
}

TEST(pci_list, holds_a_bridges_children_but_not_theirs)
{
    chassis_sim::enter_private_root();
    chassis_sim::add_chassis_pci();
    add("0000:03:00.1", chassis_sim::pci_root_port);
    add("0000:04:00.0", "0000:03:00.1");
    const auto children = [](const char *id) {
        const sysfs_pci_identity_t ident = identity(id);
        return sysfs_pci_children_list(&ident);
    };
    EXPECT_EQ(names(children(chassis_sim::pci_root_port)), "0000:03:00.0 0000:03:00.1 ");
    sysfs_pci_identity_t *none = children("0000:04:00.0");
    ASSERT_NE(none, nullptr);
    EXPECT_EQ(names(none), "");
    EXPECT_EQ(children("0000:05:00.0"), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(children("0000:04:00.01"), nullptr);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(sysfs_pci_children_list(nullptr), nullptr);
    EXPECT_EQ(errno, -22);
}

TEST(pci_dev_fill, fills_what_it_can)
{
    chassis_sim::enter_private_root();
    pci_function function;
    function.id = "0000:00:1f.3";
    function.vendor = 0x8086;
    function.device = 0xffff;
    chassis_sim::add_pci(function);
    const sysfs_pci_identity_t ident = identity(function.id);
    const std::string dir = bus + "/" + function.id;
    com_pci_dev_t dev;
    std::memset(&dev, 0xee, sizeof dev);
    EXPECT_EQ(sysfs_pci_dev_fill(&dev, &ident), 0);
    EXPECT_EQ(dev.vendor, 0x8086);
    EXPECT_EQ(dev.device, 0xffff);
    EXPECT_EQ(dev.subsystem_device, 0x0001);
    EXPECT_EQ(dev.devfn, 91);
    EXPECT_EQ(dev.sys_fs, dir);

    fs::remove(dir + "/subsystem_vendor");
    write_file(dir + "/vendor", "0x10000\n");
    write_file(dir + "/device", "12abc\n");
    write_file(dir + "/subsystem_device", "-2\n");
    EXPECT_EQ(sysfs_pci_dev_fill(&dev, &ident), 0);
    EXPECT_EQ(dev.subsystem_vendor, 0xffff);
    EXPECT_EQ(dev.vendor, 0xffff);
    EXPECT_EQ(dev.device, 0xffff);
    EXPECT_EQ(dev.subsystem_device, 0xfffe) << "below 0x10000";

    EXPECT_EQ(sysfs_pci_dev_fill(&dev, nullptr), 0);
    EXPECT_EQ(dev.vendor, 0xffff);
    EXPECT_STREQ(dev.sys_fs, "");
}

} // namespace

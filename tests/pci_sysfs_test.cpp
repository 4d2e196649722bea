// PCI functions in sysfs: the scan, lists, attributes and windows; hot-swap bridges, and failing
// calls. What the scan finds and attributes say, the model in tests/models tries, too.
#include "support/pci.h"

#include <device_access/pci_config.h>
#include <device_access/qel_pci_hotswap.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <optional>
#include <thread>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace
{

namespace fs = std::filesystem;
using namespace test;
using chassis_sim::make_directory;
using chassis_sim::make_symlink;
using chassis_sim::write_file;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

using pci_sysfs = in_chassis;
using qel_pci_hotswap = in_chassis;

const std::string bus = "/sys/bus/pci/devices";
const sysfs_pci_identity_t *const nobody = nullptr;

void add(const std::string &id, const std::string &parent = "")
{
    chassis_sim::pci_function function;
    function.id = id;
    function.parent = parent;
    chassis_sim::add_pci(function);
}

// The identities of a list, which is released; "NULL" for none.
std::string taken(sysfs_pci_identity_t *list)
{
    std::string text = list ? "" : "NULL";
    for (const sysfs_pci_identity_t *entry = list; list && entry->str[0]; ++entry)
        text += std::string(entry->str) + " ";
    std::free(list);
    return text;
}

// Receives what the process sends to syslog. The kernel queues few messages (ten by default), then
// syslog blocks.
struct syslog_socket {
    syslog_socket()
    {
        const sockaddr_un address = {AF_UNIX, "/dev/log"};
        unlink(address.sun_path);
        bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    }
    ~syslog_socket() { close(fd); }

    // What came since the last call, "<PRIORITY>TEXT" each; LOG_ERR of an ordinary program is 11.
    std::string take() const
    {
        std::string messages;
        char block[4096];
        for (ssize_t size; (size = recv(fd, block, sizeof block, MSG_DONTWAIT)) >= 0;)
            messages += replaced({block, static_cast<size_t>(size)}, "^([^>]*>).*?: ", "$1");
        return messages;
    }

    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
};

//--- scan -----------------------------------------------------------------------------------------

// What the scan prints, and each device with the lines of its "resource" file.
std::string scan_text()
{
    std::string text = output_of([] { sysfs_pci_info_init(); }).out;
    sysfs_pci_get_next_element_t handle;
    sysfs_pci_info_fetch_init(&handle);
    while (const sysfs_pci_info_t *info = sysfs_pci_info_fetch_next(&handle)) {
        const com_pci_dev_t &dev = info->id;
        text += printed("%zu %s %04x:%04x %04x:%04x\n", handle.key, dev.sys_fs, dev.vendor,
                        dev.device, dev.subsystem_vendor, dev.subsystem_device);
        for (const sysfs_pci_bar_t &bar : info->resource_bar)
            text += printed("    %jx+%jx %jx\n", uintmax_t{bar.base}, uintmax_t{bar.size},
                            uintmax_t{bar.flags});
    }
    return text;
}

TEST_F(pci_sysfs, finds_the_devices_of_a_machine)
{
    add("0000:00:1c.0");
    chassis_sim::pci_function device;
    device.id = ident.str;
    device.device = 0xabcd;
    device.windows = {{0x1000, 0x100, 0x40101},
                      {0x70000000, 0x10000000}, // ends at 2 GiB
                      {0xf0000000, 0x01000000, 0x42208},
                      {0x4'0000'0000, 0x200000, 0x14220c}};
    chassis_sim::add_pci(device);
    write_file(bus + "/0000:01:00.0", "a file");
    write_file(bus + "/0000:00:1c.0/vendor", "ffff\n");
    EXPECT_TEXT("pci/scan.txt", scan_text());
}

// Scans and counts the devices it finds; -1 for no result, which else is released.
int scan_and_count()
{
    const int result = sysfs_pci_info_init();
    sysfs_pci_get_next_element_t handle;
    sysfs_pci_info_fetch_init(&handle);
    int found = handle.seed ? 0 : -1;
    while (handle.seed && sysfs_pci_info_fetch_next(&handle))
        ++found;
    std::free(const_cast<void *>(handle.seed));
    return result == (handle.seed ? 0 : 1) ? found : -2;
}

TEST_F(pci_sysfs, messages_that_reach_nobody_leave_errno_alone)
{
    std::optional<syslog_socket> log(std::in_place);
    sysfs_pci_info_fetch_next(nullptr); // connects with the log,
    log.reset();                        // which is no longer there
    errno = untouched;
    sysfs_pci_info_fetch_next(nullptr);
    EXPECT_EQ(errno, untouched);
    sysfs_pci_get_next_element_t handle;
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    EXPECT_OUTCOME((close(STDOUT_FILENO), sysfs_pci_info_fetch_init(&handle)), {});
}

TEST_F(pci_sysfs, scans_in_part_or_not_at_all_when_a_call_fails)
{
    add(ident.str);
    expect_failures("pci", EXDEV, scan_and_count);
}

// So many descriptors are left for what the code opens.
void leave_descriptors(rlim_t count)
{
    const int next = dup(0);
    close(next);
    const rlimit limit = {static_cast<rlim_t>(next) + count, 4096};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
}

TEST_F(pci_sysfs, reads_each_attribute_by_its_path_with_one_descriptor_left)
{
    add(ident.str);
    com_pci_dev_t dev;
    const streams printed_by_scan = output_of([&dev] {
        leave_descriptors(1);
        sysfs_pci_info_init();
        sysfs_pci_dev_fill(&dev, &ident);
        leave_descriptors(64);
    });
    EXPECT_EQ(printed_by_scan.out.find("Error"), std::string::npos) << printed_by_scan.out;
    sysfs_pci_get_next_element_t handle;
    sysfs_pci_info_fetch_init(&handle);
    com_pci_dev_t scanned = sysfs_pci_info_fetch_next(&handle)->id;
    scanned.devfn = dev.devfn; // the scan does not tell
    EXPECT_EQ(std::memcmp(&scanned, &dev, sizeof dev), 0);
    EXPECT_EQ(dev.vendor, 0xf0ca);
    EXPECT_EQ(dev.subsystem_device, 1);
    EXPECT_EQ(dev.sys_fs, dir);
    sysfs_pci_dev_fill(&dev, nobody);
    EXPECT_STREQ(dev.sys_fs, "");
    EXPECT_EQ(dev.vendor & dev.device & dev.subsystem_vendor & dev.subsystem_device, 0xffff);
}

// The n-th of the functions that a full bus 0, bus 1, ... have.
std::string function_id(int n)
{
    char id[16];
    std::snprintf(id, sizeof id, "0000:%02x:%02x.%d", n >> 8 & 0xff, n >> 3 & 0x1f, n & 7);
    return id;
}

TEST_F(pci_sysfs, scans_a_device_in_20_system_calls)
{
    const auto count = [] {
        int all = 0;
        for (const auto &[name, calls] : system_calls_of([] { sysfs_pci_info_init(); }))
            all += calls;
        return all;
    };
    add(function_id(0));
    const int one = count();
    for (int n = 1; n <= 100; ++n)
        add(function_id(n));
    EXPECT_LE(count() - one, 100 * 20 + 10);
}

TEST_F(pci_sysfs, lists_what_is_named_like_a_function)
{
    transcript seen;
    SHOW(seen, sysfs_pci_list());
    for (const std::string &parent : {bus, dir})
        for (const char *name :
             {"0000:00:1f.3", "fFfF:aB:Cd.7", "0000:03:00.8", "0000:03:00.", "0000-03:00.0",
              "0000:03:00.0x", "000g:03:00.0", "0000:03 00.0", "0000:03:00.-"})
            make_directory(parent + "/" + name);
    write_file(bus + "/0000:00:00.0", "a file");
    seen.note(taken(sysfs_pci_list()));
    seen.note(taken(sysfs_pci_children_list(&ident)));
    for (const std::string name :
         {"0000:00:1f.3", "0000:00:00.0", "0000:00:1f.4", "0000:03:00.0x", ""}) {
        sysfs_pci_identity_t id = {};
        name.copy(id.str, sizeof id.str); // the longest has no NUL
        seen.note(name);
        sysfs_pci_identity_t *children = nullptr;
        SHOW(seen, children = sysfs_pci_children_list(&id));
        std::free(children);
    }
    EXPECT_TEXT("pci/lists.txt", seen.text());
}

TEST_F(pci_sysfs, reads_the_numbers_of_an_identity)
{
    transcript seen;
    for (const char *text : {"0000:00:1f.3", "fFfF:aB:Cd.7", "\x7f~zZ:@[:`{.!", ""}) {
        sysfs_pci_identity_t id = {};
        std::strcpy(id.str, text);
        seen.note(text);
        SHOW(seen, sysfs_pci_identity_domain(&id));
        SHOW(seen, sysfs_pci_identity_bus(&id));
        SHOW(seen, sysfs_pci_identity_slot(&id));
        SHOW(seen, sysfs_pci_identity_function(&id));
        SHOW(seen, sysfs_pci_identity_devfn(&id));
        for (const auto &range : {std::pair{0, 3}, {6, 12}, {3, 3}, {12, 6}, {-5, 20}}) {
            const int first = range.first, last = range.second;
            SHOW(seen, sysfs_pci_identity_atox(first, last, &id));
        }
    }
    SHOW(seen, sysfs_pci_identity_atox(0, 4, nobody));
    EXPECT_TEXT("pci/identities.txt", seen.text());
}

//--- attributes and windows -----------------------------------------------------------------------

TEST_F(pci_sysfs, builds_paths_in_what_room_there_is)
{
    transcript seen;
    for (const char *name : {"config", "", static_cast<const char *>(nullptr)})
        for (const int room : {-1, 0, 1, 500}) {
            char buffer[1000] = {};
            std::memset(buffer, '#', sizeof buffer - 1);
            const size_t size = dir.size() + (name ? 1 + std::strlen(name) : 0);
            seen.note(printed("%s, with %d bytes more", name ? name : "NULL", room));
            SHOW(seen, sysfs_pci_abspath(buffer, size + static_cast<size_t>(room), name, &ident));
            seen.note(printed("  %s and %zu", buffer, std::string(buffer, 999).find("##")));
        }
    char *const own = sysfs_pci_abspath(nullptr, 20, "config", &ident);
    EXPECT_EQ(own, dir + "/config");
    std::memset(own + std::strlen(own), 'x', 20); // there is room
    std::free(own);
    SHOW(seen, sysfs_pci_abspath(nullptr, 20, "config", nobody));
    EXPECT_TEXT("pci/paths.txt", seen.text());
}

TEST_F(pci_sysfs, opens_and_stores_attributes)
{
    make_directory(dir + "/directory");
    transcript seen;
    for (const char *name :
         {static_cast<const char *>(nullptr), "", "absent", "directory", "text"}) {
        seen.note(name ? name : "NULL");
        const auto told = [&] { return "  " + read_file(dir + "/text"); };
        write_file(dir + "/text", "a longer text than most");
        for (const int flags : {O_RDONLY, O_WRONLY, O_RDWR}) {
            const int fd = sysfs_pci_open(name, flags, &ident);
            const int which = O_ACCMODE | O_APPEND | O_NONBLOCK | O_SYNC;
            EXPECT_TRUE(fd < 0 || (::fcntl(fd, F_GETFL) & which) == flags);
            ::close(fd);
            SHOW(seen, sysfs_pci_open(name, flags, &ident) >= 0 ? 1 : 0);
        }
        SHOW(seen, sysfs_pci_access(name, R_OK, &ident));
        SHOW(seen, sysfs_pci_access(name, X_OK, &ident));
        SHOW(seen, sysfs_pci_access(name, R_OK, nobody));
        SHOW(seen, sysfs_pci_store(nullptr, name, &ident));
        SHOW(seen, sysfs_pci_store("", name, &ident));
        SHOW(seen, sysfs_pci_store("shorter", name, &ident));
        seen.note(told());
        for (const int64_t value : {int64_t{-1}, int64_t{0}, int64_t{9}, int64_t{10}, INT64_MAX}) {
            SHOW(seen, sysfs_pci_store_num(value, name, &ident));
            seen.note(told());
        }
    }
    EXPECT_TEXT("pci/attributes.txt", seen.text());
}

TEST_F(pci_sysfs, reads_and_writes_an_opened_attribute_from_its_beginning)
{
    write_file(dir + "/text", "0x10 020 30");
    const int fd = sysfs_pci_open("text", O_RDWR, &ident);
    char text[20];
    int64_t numbers[3] = {};
    transcript seen;
    for (int64_t value : {int64_t{7}, int64_t{0x1'0000'0002}}) {
        SHOW(seen, sysfs_pci_fshow_nums(numbers, 3, fd));
        seen.note(printed("  %jd %jd %jd", intmax_t{numbers[0]}, intmax_t{numbers[1]},
                          intmax_t{numbers[2]}));
        SHOW(seen, sysfs_pci_fstore("12", fd));
        SHOW(seen, sysfs_pci_fstore_num(value, fd));
        SHOW(seen, sysfs_pci_fshow(text, sizeof text, nullptr, fd));
        seen.note(text);
    }
    EXPECT_TEXT("pci/opened_attribute.txt", seen.text());
    close(STDIN_FILENO); // the descriptor that the attribute gets
    EXPECT_EQ(sysfs_pci_store_num(5, "text", &ident), 0);
    EXPECT_EQ(read_file(dir + "/text").substr(0, 2), "5\n");
}

bool is_mapped(const void *address)
{
    return ::msync(const_cast<void *>(address), 1, MS_ASYNC) == 0;
}

TEST_F(pci_sysfs, maps_windows_that_are_memory)
{
    transcript seen;
    make_directory(dir);
    const auto show = [&](const char *what, uint32_t mask) {
        void *bars[6];
        std::fill_n(bars, 6, MAP_FAILED);
        seen.note(what);
        SHOW(seen, sysfs_pci_mmap(bars, mask, &ident) == 0 ? 1 : -1);
        std::string mapped = "  mapped:", left = "  left mapped:";
        void *const before[6] = {bars[0], bars[1], bars[2], bars[3], bars[4], bars[5]};
        for (int bar = 0; bar < 6; ++bar)
            if (before[bar])
                mapped += printed(is_mapped(before[bar]) ? " %d" : " (%d)", bar);
        if (before[5] && is_mapped(before[5]))
            static_cast<char *>(before[5])[4095] = 'w';
        sysfs_pci_munmap(bars, &ident);
        for (int bar = 0; bar < 6; ++bar) {
            left += before[bar] && is_mapped(before[bar]) ? printed(" %d", bar) : "";
            mapped += bars[bar] ? " and not emptied" : "";
        }
        seen.note(mapped + "\n" + left);
    };
    for (const auto &[bar, size] : std::vector<std::pair<int, size_t>>{
             {0, 0}, {1, 127}, {2, 128}, {3, 256}, {4, 257}, {5, 4096}})
        write_file(dir + printed("/resource%d", bar), std::string(size, '\0'));
    show("without a configuration space", 0);
    for (const char kind : {'\0', '\1', '\2', '\xff'}) {
        std::string config(0x40, kind == '\xff' ? kind : static_cast<char>(kind ^ 1));
        for (size_t at = 0; at < config.size(); at += 4)
            config[at] = kind;
        write_file(dir + "/config", config);
        show(printed("registers are 0x%x", static_cast<uint8_t>(kind)).c_str(), 0);
    }
    EXPECT_EQ(read_file(dir + "/resource5")[4095], 'w');
    const auto resize_first_and_last = [](size_t first, size_t last) {
        write_file(dir + "/resource0", std::string(first, '\0'));
        write_file(dir + "/resource5", std::string(last, '\0'));
    };
    resize_first_and_last(256, 256);
    show("0 and 5 are I/O, too", 0);
    resize_first_and_last(0, 4096);
    write_file(dir + "/config", std::string(0x1c, '\0'));
    show("a configuration space that ends before window 3", 0);
    show("but 2 and 4", 0x14);
    fs::remove(dir + "/resource2");
    show("2 is missing", 0);
    make_directory(dir + "/resource2");
    show("2 is a directory", 0);
    EXPECT_TEXT("pci/windows.txt", seen.text());

    void *bars[6];
    EXPECT_EQ(sysfs_pci_mmap(bars, 0x1f, &ident), 0);
    void *const window = bars[5];
    fs::remove_all(dir);
    EXPECT_OUTCOME(sysfs_pci_munmap(bars, &ident), {.error = ENOENT});
    EXPECT_EQ(bars[5], nullptr);
    EXPECT_TRUE(is_mapped(window)) << "whose length nothing tells any more";
}

TEST_F(pci_sysfs, a_file_that_takes_a_part_of_a_text_has_failed)
{
    write_file(dir + "/text", "12345");
    const int fd = sysfs_pci_open("text", O_RDWR, &ident);
    const auto store_a_part = [fd] {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit eight = {8, 8};
        setrlimit(RLIMIT_FSIZE, &eight);
        errno = untouched;
        const int result = sysfs_pci_fstore("1234567890", fd);
        _exit(result == -1 && errno == untouched ? 0 : 1);
    };
    EXPECT_EXIT(store_a_part(), testing::ExitedWithCode(0), "");
}

TEST_F(pci_sysfs, refuses_what_no_memory_or_address_space_has_room_for)
{
    EXPECT_OUTCOME(sysfs_pci_abspath(nullptr, SIZE_MAX - 50, "config", &ident),
                   {.value = nullptr, .error = ENOMEM});
    EXPECT_OUTCOME(sysfs_pci_fshow(nullptr, SIZE_MAX, nullptr, 0),
                   {.value = nullptr, .error = ENOMEM});
    const function_on_bus function(windows{{0, 0x1000}, {0, 0x2000}});
    const off_t size = sizeof(void *) == 8 ? off_t{1} << 48 : off_t{0x1'0000'1000};
    ASSERT_EQ(truncate((dir + "/resource1").c_str(), size), 0);
    void *bars[6];
    EXPECT_OUTCOME(sysfs_pci_mmap(bars, 0, &ident), {.value = -1, .error = ENOMEM});
    EXPECT_EQ(bars[1], MAP_FAILED);
    EXPECT_EQ(msync(bars[0], 1, MS_ASYNC), -1) << "still mapped";
    EXPECT_OUTCOME(sysfs_pci_mmap(bars, 0, nobody), {.value = -1, .error = -22});
}

//--- hot swap -------------------------------------------------------------------------------------

const std::string program = fs::read_symlink("/proc/self/exe");
const std::string command = ": /sbin/modprobe -s qel_pci_hotswap";

int install(int opts = 0)
{
    return qel_pci_hotswap_install(static_cast<qel_pci_hotswap_options_t>(opts));
}

TEST_F(qel_pci_hotswap, runs_the_module_loader_and_logs_what_becomes_of_it)
{
    const syslog_socket log;
    transcript seen;
    // A shell that still waits for the loader reports a killed one as an exit: kill it too.
    for (const std::string ending :
         {"exit 0", "exit 1", "exit 255",
          "[ $(cat /proc/$PPID/comm) = sh ] && kill -9 $PPID; kill -9 $$"})
        for (const int opts : {0, 1, 2, 3, -1}) {
            seen.note(printed("option %d, a loader that ends with ", opts) + ending);
            fs::remove(chassis_sim::modprobe_log);
            chassis_sim::replace_modprobe(ending);
            EXPECT_EQ(install(opts), ending == "exit 1" || ending == "exit 255" ? -1 : 0);
            seen.note(read_file(chassis_sim::modprobe_log) +
                      replaced(log.take(), program.c_str(), "PROGRAM"));
        }
    EXPECT_TEXT("pci/loader.txt", seen.text());
}

TEST_F(qel_pci_hotswap, logs_what_it_cannot_spawn)
{
    const syslog_socket log;
    chassis_sim::replace_modprobe();
    install(); // opens the log
    log.take();
    fail_each_call(
        EXDEV, [] { return install(); },
        [&](const run &run) {
            const std::string told = log.take();
            const bool tells = told.ends_with(command + " exited with status 127\n") ||
                               told.ends_with("-s failed to spawn: Invalid cross-device link\n");
            EXPECT_EQ(tells, run.seen.value == -1) << run << told;
            EXPECT_EQ(run.seen.opens + run.blocks, 0) << run;
        });
}

TEST_F(qel_pci_hotswap, cuts_the_name_of_its_program)
{
    const syslog_socket log;
    chassis_sim::replace_modprobe();
    ASSERT_EQ(mount("none", "/proc", "tmpfs", 0, nullptr), 0);
    for (const size_t length : {0, 254, 255, 300}) {
        const std::string name = length ? std::string(length, 'p') : "<unknown>";
        fs::remove_all("/proc/self");
        if (length > 0)
            make_symlink("/proc/self/exe", name);
        EXPECT_EQ(install(), 0);
        EXPECT_EQ(log.take(), "<29>" + name.substr(0, 255) + command + "\n");
    }
    umount("/proc");
}

TEST_F(qel_pci_hotswap, enables_a_bridge_waits_for_what_is_behind_and_disables)
{
    chassis_sim::pci_function card;
    card.id = "0000:04:00.0";
    chassis_sim::add_hotswap_bridge(ident.str, card, 60);
    EXPECT_OUTCOME(qel_pci_hotswap_bridge_usable(&ident), {});
    const auto wait_until_present = [](bool wanted) {
        while (fs::exists("/sys/bus/pci/devices/0000:04:00.0") != wanted)
            usleep(1000);
    };
    std::string seen = "NULL";
    // The library waits for half a second, in which a busy machine may not get to it.
    for (int tries = 0; seen == "NULL" && tries < 5; ++tries) {
        const auto start = steady_clock::now();
        seen = taken(qel_pci_hotswap_bridge_enable(&ident));
        EXPECT_GE(steady_clock::now() - start, milliseconds(60));
        wait_until_present(true);
        EXPECT_OUTCOME(qel_pci_hotswap_bridge_disable(&ident), {});
        EXPECT_EQ(read_file(dir + "/bridge_enable"), "0\n");
        wait_until_present(false);
    }
    EXPECT_EQ(seen, "0000:04:00.0 ");
}

TEST_F(qel_pci_hotswap, looks_101_times_and_passes_on_what_fails)
{
    const auto all_fail = [](const sysfs_pci_identity_t *id, int error) {
        EXPECT_OUTCOME(qel_pci_hotswap_bridge_usable(id), {.value = -1, .error = error});
        EXPECT_OUTCOME(qel_pci_hotswap_bridge_enable(id), {.value = nullptr, .error = error});
        EXPECT_OUTCOME(qel_pci_hotswap_bridge_disable(id), {.value = -1, .error = error});
    };
    const auto enable = [] { return qel_pci_hotswap_bridge_enable(&ident); };
    all_fail(nobody, -22);
    make_directory(dir);
    all_fail(&ident, ENOENT);
    EXPECT_EQ(system_calls_of(enable)["open"], 1);

    const std::string attribute = dir + "/bridge_enable";
    write_file(attribute, "000");
    const auto start = steady_clock::now();
    EXPECT_OUTCOME(enable(), {.value = nullptr, .error = ENODEV});
    EXPECT_GE(steady_clock::now() - start, milliseconds(500));
    auto calls = system_calls_of(enable);
    EXPECT_EQ(calls["open"], 1 + 101);
    EXPECT_EQ(calls["nanosleep"], 100);
    EXPECT_EQ(read_file(attribute), "100");

    chassis_sim::bind_mount(attribute, attribute);
    ASSERT_EQ(mount("", attribute.c_str(), "", MS_REMOUNT | MS_BIND | MS_RDONLY, ""), 0);
    all_fail(&ident, EROFS);
    umount(attribute.c_str());
    chassis_sim::background([] { // a bridge that leaves while it is watched
        std::this_thread::sleep_for(milliseconds(40));
        fs::rename(dir, "/sys/gone");
    });
    EXPECT_OUTCOME(enable(), {.value = nullptr, .error = ENOENT});
}

//--- failing system calls -------------------------------------------------------------------------

TEST_F(pci_sysfs, passes_on_the_error_of_any_call_that_fails)
{
    const function_on_bus bridge(windows{{0, 0x1000}, {0, 0x2000}, {0, 0x80}});
    add("0000:04:00.0", ident.str);
    write_file(dir + "/bridge_enable", "0\n");
    make_directory(dir + "/directory");
    static int64_t nums[2];
    static char text[8];
    static void *bars[6];
    const std::vector<std::string> of_kind = {"open " + dir + "/config", "pread", "allocation"};
    const auto freed = [](void *block) { return std::free(block), block != nullptr; };
    const promise promises[] = {
        {"path", [=] { return freed(sysfs_pci_abspath(nullptr, 9, "enable", &ident)); }, false},
        {"access", [] { return sysfs_pci_access("enable", W_OK, &ident); }, -1},
        {"open", [] { return sysfs_pci_open("enable", O_RDWR, &ident); }, -1},
        {"text", [] { return sysfs_pci_show(text, 8, nullptr, "enable", &ident); }, nullptr},
        {"none", [] { return sysfs_pci_show(text, 8, nullptr, "directory", &ident); }, nullptr},
        {"block", [=] { return freed(sysfs_pci_show(nullptr, 0, nullptr, "enable", &ident)); }, 0},
        {"number", [] { return sysfs_pci_show_nums(nums, 1, "enable", &ident); }, -1},
        {"numbers", [] { return sysfs_pci_show_nums(nums, 2, "enable", &ident); }, -1},
        {"store", [] { return sysfs_pci_store("1", "enable", &ident); }, -1},
        {"store a number", [] { return sysfs_pci_store_num(1, "enable", &ident); }, -1},
        {"list", [=] { return freed(sysfs_pci_list()); }, false},
        {"children", [=] { return freed(sysfs_pci_children_list(&ident)); }, false},
        {"map", [] { return sysfs_pci_mmap(bars, 0, &ident); }, -1, of_kind},
        {"usable", [] { return qel_pci_hotswap_bridge_usable(&ident); }, -1},
        {"enable", [=] { return freed(qel_pci_hotswap_bridge_enable(&ident)); }, false},
        {"disable", [] { return qel_pci_hotswap_bridge_disable(&ident); }, -1},
    };
    for (const promise &promised : promises)
        hold(promised);
    // The clean-up does not hide the first error.
    const auto is_first = [](const run &run) {
        EXPECT_TRUE(run.failed != "mmap" || run.seen.error == EXDEV) << run;
    };
    fail_each_call(
        EXDEV, [] { return sysfs_pci_mmap(bars, 0, &ident); }, is_first, EIO);

    EXPECT_EQ(opens_of([] {
                  sysfs_pci_show_nums(nums, 1, "enable", &ident);
                  sysfs_pci_store("1", "enable", &ident);
                  sysfs_pci_mmap(bars, ~1u, &ident);
                  pci_config_close(pci_config_open(&ident));
              }),
              printed("O_RDONLY %s/enable\nO_WRONLY %s/enable\nO_RDWR %s/resource0\n"
                      "O_RDWR %s/config\n",
                      dir.c_str(), dir.c_str(), dir.c_str(), dir.c_str()));
}

} // namespace

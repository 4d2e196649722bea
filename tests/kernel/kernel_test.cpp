// What only a kernel can show. Runs in a virtual machine with the devices that scripts/test-kernel
// plugs. Each check prints a line, "ok ..." or "FAILED ...", to descriptor 3; the program goes on.
#include <device_access/libuio.h>
#include <device_access/mmap_device.h>
#include <device_access/pci_config.h>
#include <device_access/pci_sysfs.h>
#include <device_access/pod_log_nvram.h>
#include <device_access/regiomap_x86.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace
{

namespace fs = std::filesystem;

template <typename T>
std::string text(T value)
{
    if constexpr (std::is_integral_v<T>)
        return std::to_string(value);
    else if constexpr (std::is_same_v<T, const char *> || std::is_same_v<T, std::string>)
        return value;
    else
        return value != nullptr ? "a pointer" : "NULL";
}

template <typename Call>
void is(const char *what, Call call, const std::string &expected, int error = -1)
{
    errno = EXDEV;
    const std::string got = text(call());
    const int seen = errno;
    const bool good = got == expected && (error == -1 || error == seen);
    const std::string reason = good ? "" : ", but " + got + ", " + std::strerror(seen);
    ::dprintf(3, "%s %s is %s%s\n", good ? "ok" : "FAILED", what, expected.c_str(), reason.c_str());
}

// States a call: IS(call, result) or IS(call, result, errno), where EXDEV is an untouched one.
#define IS(call, expected, ...)                                                                    \
    is(                                                                                            \
        #call, [&] { return call; }, text(expected) __VA_OPT__(, ) __VA_ARGS__)

//--- the guest ------------------------------------------------------------------------------------

constexpr sysfs_pci_identity_t edu = {"0000:01:00.0", {}};  // BAR 0: registers, no PCI Express
constexpr sysfs_pci_identity_t port = {"0000:00:01.0", {}}; // edu is behind it
constexpr sysfs_pci_identity_t empty_port = {"0000:00:02.0", {}};
constexpr sysfs_pci_identity_t testdev = {"0000:00:04.0", {}}; // BAR 0: memory; 1: I/O; 2: 2 GiB
constexpr sysfs_pci_identity_t ivshmem = {"0000:00:05.0", {}}; // BAR 0: 256 bytes; 2: above 4 GiB
constexpr sysfs_pci_identity_t fpga = {"0000:04:00.0", {}};    // a display; BAR 0 is memory
constexpr char fpga_port[] = "0000:00:06.0";

constexpr uint32_t edu_identity = 0x010000ed; // in the first register; the second inverts
constexpr size_t edu_irq_raise = 0x60;

const std::string bus = "/sys/bus/pci/devices/";
const std::string edu_driver = "/sys/bus/pci/drivers/uio_pci_generic/";

std::string read_file(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void write_file(const std::string &path, const std::string &contents)
{
    const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOCTTY, 0644);
    if (::write(file, contents.data(), contents.size()) != static_cast<ssize_t>(contents.size()))
        ::dprintf(3, "FAILED to write %s: %s\n", path.c_str(), std::strerror(errno));
    ::close(file);
}

bool comes_true(const std::function<bool()> &condition)
{
    for (int i = 0; i < 6000 && !condition(); ++i)
        ::usleep(10000);
    return condition();
}

std::jthread soon(const std::function<void()> &action)
{
    return std::jthread([=] { ::usleep(200000), action(); });
}

// A command to the virtual machine's monitor, which begins afresh after a byte of ones.
void monitor(const std::string &command, const std::string &arguments)
{
    write_file("/dev/ttyS1", "\xff{\"execute\": \"qmp_capabilities\"}\n{\"execute\": \"" + command +
                                 "\", \"arguments\": {" + arguments + "}}\n");
}

std::string names(sysfs_pci_identity_t *list)
{
    std::string all = list ? "" : "NULL";
    for (const sysfs_pci_identity_t *entry = list; list && entry->str[0]; ++entry)
        all.append(entry->str).append(" ");
    std::free(list);
    return all;
}

libuio_dev_t *open_uio(const char *name)
{
    constexpr timespec wait = {60, 0};
    return libuio_open_timed(name, &wait);
}

char *window(const libuio_dev_t *uio, unsigned int map = 0)
{
    return static_cast<char *>(libuio_get_mapinfo(uio, map, nullptr));
}

int wait_s(libuio_dev_t *uio, time_t seconds, uint32_t *count = nullptr)
{
    timespec deadline;
    ::clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += seconds;
    return libuio_irqwait(uio, &deadline, count);
}

//--- PCI ------------------------------------------------------------------------------------------

void check_functions()
{
    const auto count = std::distance(fs::directory_iterator(bus), {});
    IS(names(sysfs_pci_list()).size(), count * 13);
    IS(names(sysfs_pci_children_list(&port)), "0000:01:00.0 "); // and not its "...:pcie001"
    IS(sysfs_pci_info_init(), 0);
    sysfs_pci_get_next_element_t walk;
    sysfs_pci_info_fetch_init(&walk);
    sysfs_pci_info_t memory = {};
    long found = 0;
    for (; const sysfs_pci_info_t *info = sysfs_pci_info_fetch_next(&walk); ++found)
        memory = info->id.sys_fs == bus + ivshmem.str ? *info : memory;
    IS(found, count);
    IS(memory.id.vendor << 16 | memory.id.device, 0x1af41110);
    IS(memory.resource_bar[2].base > 0xffffffff, true);
    IS(static_cast<uint32_t>(memory.resource_bar[2].size), 0x100000);

    void *config = pci_config_open(&edu);
    IS(pci_config_read32(0, config), 0x11e81234, 0);
    IS(pci_config_read32(252, config), 0, 0);
    IS(pci_config_read32(256, config), 0xffffffff, EXDEV);
    IS(pci_config_write8(0, 256, config), -1, EFBIG);
    IS(pci_config_write32(0xffffff5a, 0x3c, config), 0, 0);
    IS(pci_config_read16(0x3c, config), 0x015a, 0); // the interrupt's line, and its read-only pin
    void *long_config = pci_config_open(&port);
    IS(pci_config_read32(4092, long_config), 0, 0);
    IS(pci_config_read32(4096, long_config), 0xffffffff, EXDEV);
    IS(pcie_config_is_hotplug(long_config), 1, 0);
    IS(pcie_config_wait_link_up(&port), 0, 0);
    IS(pcie_config_wait_link_up(&empty_port), ETIMEDOUT, ETIMEDOUT);
}

// Which resources were mapped.
std::string map(void **bars, const sysfs_pci_identity_t &id, uint32_t umask = 0)
{
    std::string all = sysfs_pci_mmap(bars, umask, &id) == 0 ? "" : "-1 ";
    for (int n = 0; n < 6; ++n)
        all += bars[n] ? '1' : '0';
    return all;
}

void check_memory()
{
    void *bars[6];
    IS(map(bars, testdev, 0x04), "100000"); // I/O is skipped, the rest is masked
    sysfs_pci_munmap(bars, &testdev);
    IS(map(bars, ivshmem), "101000");
    sysfs_pci_munmap(bars, &ivshmem);
    IS(map(bars, edu), "100000");
    IS(ioread32(bars[0]), edu_identity);
    int64_t address = 0;
    sysfs_pci_show_nums(&address, 1, "resource", &edu);
    char *physical = static_cast<char *>(mmap_device_open(static_cast<uint64_t>(address), 4096));
    iowrite32(0xa5a5a5a5, physical + 4);
    IS(ioread32(static_cast<char *>(bars[0]) + 4), 0x5a5a5a5a);
    mmap_device_close(physical, 4096);
    sysfs_pci_munmap(bars, &edu);
    IS(read_file("/proc/self/maps").find("/resource"), std::string::npos);
}

//--- UIO on a PCI device --------------------------------------------------------------------------

void check_uio()
{
    std::jthread thread = soon([] { write_file(edu_driver + "new_id", "1234 11e8"); });
    libuio_dev_t *uio;
    IS(uio = open_uio("/dev/uio0"), &errno);
    IS(libuio_get_sys_device_dir(uio), fs::canonical(bus + edu.str).string());
    libuio_close(uio);
    // The kernel makes the node a little before the maps.
    IS(comes_true([] { return ::access("/sys/class/uio/uio0/maps/map0/size", F_OK) == 0; }), true);
    struct stat node;
    ::stat("/dev/uio0", &node);
    ::mknod("/dev/renamed", S_IFCHR | 0600, node.st_rdev);
    IS(uio = open_uio("/dev/renamed"), &errno);
    IS(libuio_get_sys_class_dir(uio), "/sys/class/uio/uio0");

    IS(libuio_mmap(uio, 0), 1);
    IS(ioread32(window(uio)), edu_identity);
    IS(libuio_irqcontrol(uio, 1), -1, ENOSYS);
    uint32_t count = 0;
    thread = soon([=] { iowrite32(1, window(uio) + edu_irq_raise); });
    IS(wait_s(uio, 60), 0);
    IS(wait_s(uio, -1, &count), 0); // not counted, it was still there
    IS(count, 1);
    IS(wait_s(uio, -1, &count), -1, ETIMEDOUT);
    // Without a removal notice, what the node itself says is all there is.
    thread = soon([] { write_file(edu_driver + "unbind", edu.str); });
    IS(wait_s(uio, 60, &count), -1, EIO);
    IS(wait_s(uio, 60), 0);
    IS(libuio_irqcontrol(uio, 1), -1, EINVAL);
    libuio_close(uio);
    IS(comes_true([] { return ::access("/dev/uio0", F_OK) != 0; }), true);
    write_file(edu_driver + "bind", edu.str);
}

//--- emulated UIO ---------------------------------------------------------------------------------

void name_slot(const char *slot, const char *address)
{
    const std::string file = std::string("/dev/dynattr/rpsw/hotswap/byname/") + slot;
    fs::create_directories(fs::path(file).parent_path());
    write_file(file, "");
    IS(::setxattr(file.c_str(), "user.com.velmora.zmt.attr_value", address, 12, 0), 0);
}

void check_emulation()
{
    void *bars[6];
    sysfs_pci_mmap(bars, 0, &fpga);
    for (uint32_t page = 0; page < 64; ++page)
        iowrite32(page, static_cast<char *>(bars[0]) + page * 4096);
    iowrite32(0xab1200cd, static_cast<char *>(bars[0]) + 0x28); // what it says it is
    sysfs_pci_munmap(bars, &fpga);
    name_slot("alsw1", fpga_port);
    name_slot("rpsw", port.str);
    const std::string enable = bus + fpga.str + "/enable";
    libuio_dev_t *first = open_uio("sysfs_pci:uio_cma.alsw1");
    IS(libuio_mmap(first, 0), 4);
    IS(ioread32(window(first, 0)), 4);
    IS(ioread32(window(first, 3) + 4096), 13);
    libuio_dev_t *second = open_uio("sysfs_pci:uio_tcm.alsw1");
    IS(read_file(enable), "2\n"); // the kernel counts
    libuio_close(first);
    IS(read_file(enable), "1\n");
    libuio_close(second);
    IS(read_file(enable), "0\n");

    IS(open_uio("sysfs_pci:uio_glb.rpsw"), nullptr, EBUSY); // a driver has it
    write_file(edu_driver + "unbind", edu.str);
    first = open_uio("sysfs_pci:uio_glb.rpsw");
    IS(libuio_mmap(first, 0), 1);
    IS(ioread32(window(first)), edu_identity);
    libuio_close(first);
    write_file(edu_driver + "bind", edu.str);
}

//--- hot-plug -------------------------------------------------------------------------------------

// Whether the port comes to have this device, and all listings meanwhile make sense.
bool comes_to_have(const std::string &device)
{
    bool sensible = true;
    const bool came = comes_true([&] {
        sensible &= names(sysfs_pci_list()).find(port.str) != std::string::npos;
        return names(sysfs_pci_children_list(&port)) == device;
    });
    return came && sensible;
}

void check_hotplug()
{
    libuio_dev_t *uio = open_uio("/dev/uio0");
    void *config = pci_config_open(&edu);
    uint32_t count;
    monitor("device_del", "\"id\": \"edu1\"");
    IS(comes_to_have(""), true);
    IS(wait_s(uio, 60, &count), -1, EIO);
    IS(pci_config_read32(0, config), 0xffffffff, ENODEV);
    libuio_close(uio);
    pci_config_close(config);
    IS(comes_true([] { return pcie_config_wait_link_up(&port) == ETIMEDOUT; }), true);
    monitor("device_add", "\"driver\": \"edu\", \"id\": \"edu2\", \"bus\": \"rp1\"");
    IS(comes_to_have("0000:01:00.0 "), true);
    IS(pcie_config_wait_link_up(&port), 0);
    IS(uio = open_uio("/dev/uio0"), &errno);
    libuio_close(uio);
}

//--- the chassis's own devices --------------------------------------------------------------------

void regblock(const std::string &command)
{
    write_file("/sys/module/zmt_chassis/parameters/regblock", command);
}

libuio_dev_t *plug_regblock(bool silent)
{
    regblock("plug");
    if (silent) // as the library needs it: nothing is heard of the notice until the removal
        ::mount("/dev/zmt_removal", "/sys/devices/platform/zmt_regblock/uio_maps", "", MS_BIND, "");
    return open_uio("/dev/uio1");
}

int events_on(int fd, short asked)
{
    pollfd one = {fd, asked, 0};
    ::poll(&one, 1, 0);
    return one.revents;
}

void check_removal()
{
    // An attribute that has not changed is readable like any file, which a wait takes for the
    // removal.
    libuio_dev_t *uio = plug_regblock(false);
    IS(events_on(libuio_get_removed_fd(uio), POLLPRI), 0);
    IS(events_on(libuio_get_removed_fd(uio), POLLIN), POLLIN);
    IS(wait_s(uio, 60), -1, ECANCELED);
    libuio_close(uio);
    regblock("unplug");
    uio = plug_regblock(false);
    regblock("notify");
    IS(events_on(libuio_get_removed_fd(uio), POLLPRI), POLLPRI | POLLERR);
    libuio_close(uio);
    regblock("unplug");

    uio = plug_regblock(true);
    uint32_t count = 0;
    IS(libuio_mmap(uio, 0), 1);
    IS(ioread32(window(uio)), 0x5a4d0000);
    IS(libuio_irqcontrol(uio, 1), 0);
    IS(wait_s(uio, 60, &count), 0);
    IS(count, 1);
    IS(libuio_irqcontrol(uio, 1) + libuio_irqcontrol(uio, 0), 0);
    IS(wait_s(uio, 1, &count), -1, ETIMEDOUT);
    std::jthread thread = soon([] { regblock("unplug"); });
    IS(wait_s(uio, 60), -1, ECANCELED);
    thread.join();
    libuio_close(uio);
    uio = plug_regblock(true);
    libuio_irqcontrol(uio, 1);
    IS(wait_s(uio, 60), 0);
    regblock("notify");
    IS(wait_s(uio, -1), -1, ECANCELED); // the removal comes before the interrupt
    libuio_close(uio);
    regblock("unplug");
}

// The node is made with the number in sysfs: here that of a device which reads as zeros.
void check_nvram()
{
    ::mount("none", "/sys/class", "tmpfs", 0, "");
    fs::create_directories("/sys/class/zmt_nvram/nvram0");
    write_file("/sys/class/zmt_nvram/nvram0/name", "nvlog-pod\n");
    write_file("/sys/class/zmt_nvram/nvram0/dev", "1:5\n");
    IS(podlog_nvram_init(0, 0), 1);
    struct stat node = {};
    ::stat("/dev/nvlog-pod", &node);
    IS(node.st_mode, S_IFCHR | 0600);
    IS(node.st_rdev, makedev(1, 5));
}

} // namespace

int main()
{
    check_functions();
    check_memory();
    check_uio();
    check_emulation();
    check_hotplug();
    check_removal();
    check_nvram();
}

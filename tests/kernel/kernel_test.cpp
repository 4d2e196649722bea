// What only a kernel can show. Runs in a virtual machine with the devices that scripts/test-kernel
// plugs. Each check prints a line, "ok ..." or "FAILED ...", to descriptor 3; the program goes on.
#include <device_access/libuio.h>
#include <device_access/mmap_device.h>
#include <device_access/pci_config.h>
#include <device_access/pci_sysfs.h>
#include <device_access/pod_log_nvram.h>
#include <device_access/regiomap_x86.h>

#include <cerrno>
#include <chrono>
#include <concepts>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <set>
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
    if constexpr (std::integral<T>)
        return std::to_string(value);
    else if constexpr (std::same_as<T, const char *>)
        return value ? value : "NULL";
    else if constexpr (std::same_as<T, std::string>)
        return value;
    else
        return value ? "a pointer" : "NULL";
}

const void *const a_pointer = &errno;

template <typename Call>
void is(int line, const char *what, Call call, const std::string &expected, int error = -1)
{
    errno = EXDEV;
    const std::string got = text(call());
    const int seen = errno;
    const bool good = got == expected && (error == -1 || error == seen);
    const std::string reason = good ? "" : ": " + got + ", " + std::strerror(seen);
    ::dprintf(3, "%s %d %s%s\n", good ? "ok" : "FAILED", line, what, reason.c_str());
}

// States a call: IS(call, result) or IS(call, result, errno), where EXDEV is an untouched one.
#define IS(call, expected, ...)                                                                    \
    is(                                                                                            \
        __LINE__, #call " is " #expected " " #__VA_ARGS__, [&] { return call; },                   \
        text(expected) __VA_OPT__(, ) __VA_ARGS__)

//--- the guest ------------------------------------------------------------------------------------

constexpr char edu[] = "0000:01:00.0";  // BAR 0: registers; knows nothing of PCI Express
constexpr char port[] = "0000:00:01.0"; // edu is behind it
constexpr char empty_port[] = "0000:00:02.0";
constexpr char plain_port[] = "0000:00:03.0"; // empty, without hot-plug
constexpr char testdev[] = "0000:00:04.0";    // BAR 0: memory; 1: I/O; 2: 2 GiB
constexpr char ivshmem[] = "0000:00:05.0";    // BAR 0: 256 bytes; 2: 1 MiB above 4 GiB
constexpr char fpga_port[] = "0000:00:06.0";
constexpr char fpga[] = "0000:04:00.0";    // a display: its BAR 0 is memory and can be any FPGA
constexpr char several[] = "0000:00:1f.2"; // one of several functions

constexpr uint32_t edu_identity = 0x010000ed; // in the first register; the second inverts
constexpr size_t edu_irq_raise = 0x60;
constexpr size_t edu_irq_acknowledge = 0x64;

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

std::jthread soon(std::function<void()> action)
{
    return std::jthread([=] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        action();
    });
}

// A command to the virtual machine's monitor, which begins afresh after a byte of ones.
void monitor(const std::string &command, const std::string &arguments)
{
    write_file("/dev/ttyS1", "\xff{\"execute\": \"qmp_capabilities\"}\n{\"execute\": \"" + command +
                                 "\", \"arguments\": {" + arguments + "}}\n");
}

struct identity : sysfs_pci_identity_t {
    identity(const char *id) : sysfs_pci_identity_t{} { std::strcpy(str, id); }
};

std::string names(sysfs_pci_identity_t *list)
{
    std::string all = list ? "" : "NULL";
    for (const sysfs_pci_identity_t *entry = list; list && entry->str[0]; ++entry)
        all.append(entry->str).append(" ");
    std::free(list);
    return all;
}

std::string children(const identity &id)
{
    return names(sysfs_pci_children_list(&id));
}

void *open_config(const identity &id)
{
    return pci_config_open(&id);
}

int wait_link_up(const identity &id)
{
    return pcie_config_wait_link_up(&id);
}

// The memory of a function while this lives.
struct mapped {
    explicit mapped(const char *name, uint32_t umask = 0) : id(name)
    {
        sysfs_pci_mmap(bars, umask, &id);
    }
    ~mapped() { sysfs_pci_munmap(bars, &id); }
    char *at(size_t bar, size_t offset) const { return static_cast<char *>(bars[bar]) + offset; }
    std::string which() const
    {
        std::string all;
        for (const void *bar : bars)
            all += bar ? '1' : '0';
        return all;
    }

    identity id;
    void *bars[6];
};

libuio_dev_t *open_uio(const char *name, long seconds = 0)
{
    const timespec wait = {seconds, 0};
    return libuio_open_timed(name, &wait);
}

char *window(const libuio_dev_t *uio, unsigned int map = 0)
{
    return static_cast<char *>(libuio_get_mapinfo(uio, map, nullptr));
}

int wait_ms(libuio_dev_t *uio, long ms, uint32_t *count = nullptr)
{
    timespec deadline;
    ::clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_nsec += ms % 1000 * 1000000;
    deadline.tv_sec += ms / 1000 + deadline.tv_nsec / 1000000000;
    deadline.tv_nsec %= 1000000000;
    return libuio_irqwait(uio, &deadline, count);
}

//--- PCI ------------------------------------------------------------------------------------------

void check_lists()
{
    std::set<std::string> ids;
    std::string all;
    for (const auto &entry : fs::directory_iterator(bus))
        ids.insert(entry.path().filename());
    for (const std::string &id : ids)
        all += id + " ";
    IS(names(sysfs_pci_list()), all);
    IS(children(port), "0000:01:00.0 "); // and not its services, "0000:00:01.0:pcie001"
    IS(children(empty_port), "");

    IS(sysfs_pci_info_init(), 0);
    sysfs_pci_get_next_element_t walk;
    sysfs_pci_info_fetch_init(&walk);
    std::string found;
    sysfs_pci_info_t memory = {};
    while (const sysfs_pci_info_t *info = sysfs_pci_info_fetch_next(&walk)) {
        const std::string id = fs::path(info->id.sys_fs).filename();
        found += id + " ";
        memory = id == ivshmem ? *info : memory;
    }
    IS(found, all);
    IS(memory.id.vendor, 0x1af4);
    IS(memory.id.device, 0x1110);
    IS(memory.resource_bar[0].size, 0x100);
    IS(memory.resource_bar[2].base > 0xffffffff, true);
    IS(static_cast<uint32_t>(memory.resource_bar[2].size), 0x100000);
}

void check_configuration()
{
    constexpr uint32_t interrupt_line = 0x3c;
    constexpr uint32_t failed = 0xffffffff;
    void *config = open_config(edu);
    const auto line = static_cast<uint8_t>(pci_config_read8(interrupt_line, config));
    IS(pci_config_read32(0, config), 0x11e81234, 0);
    IS(pci_config_read32(252, config), 0, 0);
    IS(pci_config_read32(256, config), failed, EXDEV);
    IS(pci_config_write8(0, 256, config), -1, EFBIG);
    IS(pci_config_write32(0xffffff5a, interrupt_line, config), 0, 0);
    IS(pci_config_read16(interrupt_line, config), 0x015a, 0); // its pin is read-only
    IS(pci_config_write8(line, interrupt_line, config), 0, 0);
    IS(pci_config_find_capability(0x05, config), 0x40, 0);
    IS(pcie_config_is_hotplug(config), 0, 0);
    pci_config_close(config);
    config = open_config(port);
    IS(pci_config_read32(4092, config), 0, 0);
    IS(pci_config_read32(4096, config), failed, EXDEV);
    IS(pci_config_find_capability(0x10, config) > 0, true, 0);
    IS(pcie_config_is_hotplug(config), 1, 0);
    pci_config_close(config);
    IS(pci_config_find_capability(0x12, open_config(several)), -1, ENOENT);
    IS(pcie_config_is_hotplug(open_config(plain_port)), 0, 0);
    IS(wait_link_up(port), 0, 0);
    IS(wait_link_up(empty_port), ETIMEDOUT, ETIMEDOUT);
    IS(wait_link_up(edu), -1, ENOENT);
}

uint64_t start_of_bar(const identity &id, size_t bar)
{
    int64_t numbers[18] = {};
    sysfs_pci_show_nums(numbers, 18, "resource", &id);
    return static_cast<uint64_t>(numbers[3 * bar]);
}

void check_memory()
{
    IS(mapped(edu).which(), "100000");
    IS(mapped(testdev, 0x04).which(), "100000"); // I/O is skipped, the rest is masked
    IS(mapped(ivshmem).which(), "101000");
    IS(mapped(several).which(), "000001"); // a small BAR is of I/O
    IS(read_file("/proc/self/maps").find("/resource"), std::string::npos);

    const mapped registers(edu);
    const mapped memory(ivshmem);
    IS(ioread32(registers.at(0, 0)), edu_identity);
    void *physical = mmap_device_open(start_of_bar(edu, 0), 4096);
    iowrite32(0xa5a5a5a5, static_cast<char *>(physical) + 4);
    IS(ioread32(registers.at(0, 4)), 0x5a5a5a5a);
    mmap_device_close(physical, 4096);
    iowrite32(0xcafef00d, memory.at(2, 4096));
    physical = mmap_device_open(start_of_bar(ivshmem, 2) + 4096, 4096);
    IS(ioread32(physical), 0xcafef00d);
    mmap_device_close(physical, 4096);
    IS(read_file("/proc/self/maps").find("/dev/mem"), std::string::npos);
}

//--- UIO on a PCI device --------------------------------------------------------------------------

// The driver leaves the device's interrupt masked.
void finish_interrupt(const libuio_dev_t *uio)
{
    iowrite32(1, window(uio) + edu_irq_acknowledge);
    void *config = open_config(edu);
    pci_config_bitclr16(0x400, 0x04, config);
    pci_config_close(config);
}

void check_uio()
{
    libuio_dev_t *uio;
    uint32_t count = 0;
    {
        const auto bind = soon([] { write_file(edu_driver + "new_id", "1234 11e8"); });
        IS(uio = open_uio("/dev/uio0", 60), a_pointer);
    }
    IS(libuio_get_sys_device_dir(uio), fs::canonical(bus + edu).string());
    IS(libuio_get_removed_fd(uio), -1);
    struct stat node;
    ::stat("/dev/uio0", &node);
    ::mknod("/dev/renamed", S_IFCHR | 0600, node.st_rdev);
    libuio_dev_t *renamed = open_uio("/dev/renamed");
    IS(libuio_get_sys_class_dir(renamed), "/sys/class/uio/uio0");
    libuio_close(renamed);

    IS(libuio_mmap(uio, 0), 1);
    IS(ioread32(window(uio)), edu_identity);
    IS(libuio_irqcontrol(uio, 1), -1, ENOSYS);
    IS(wait_ms(uio, 100, &count), -1, ETIMEDOUT);
    {
        const auto raise = soon([=] { iowrite32(1, window(uio) + edu_irq_raise); });
        IS(wait_ms(uio, 60000), 0);
    }
    IS(wait_ms(uio, -1000, &count), 0); // not counted, it was still there
    IS(count, 1);
    IS(wait_ms(uio, -1000, &count), -1, ETIMEDOUT);
    finish_interrupt(uio);
    iowrite32(1, window(uio) + edu_irq_raise);
    IS(libuio_irqwait(uio, nullptr, &count), 0);
    IS(count, 2);
    finish_interrupt(uio);

    // Without a removal notice, what the node itself says is all there is.
    {
        const auto unbind = soon([] { write_file(edu_driver + "unbind", edu); });
        IS(wait_ms(uio, 60000, &count), -1, EIO);
    }
    IS(wait_ms(uio, 60000), 0);
    IS(libuio_irqcontrol(uio, 1), -1, EINVAL);
    libuio_close(uio);
    IS(comes_true([] { return ::access("/dev/uio0", F_OK) != 0; }), true);
    write_file(edu_driver + "bind", edu);
    IS(uio = open_uio("/dev/uio0", 60), a_pointer);
    libuio_close(uio);
}

//--- emulated UIO ---------------------------------------------------------------------------------

void name_slot(const char *slot, const char *address)
{
    const std::string file = std::string("/dev/dynattr/rpsw/hotswap/byname/") + slot;
    fs::create_directories(fs::path(file).parent_path());
    write_file(file, "");
    IS(::setxattr(file.c_str(), "user.com.velmora.zmt.attr_value", address, strlen(address), 0), 0);
}

// Which pages of the device each map shows.
std::string pages(const libuio_dev_t *uio)
{
    std::string all;
    for (unsigned int map = 0; map < libuio_get_map_limit(uio); ++map) {
        size_t size = 0;
        const void *const start = libuio_get_mapinfo(uio, map, &size);
        for (size_t offset = 0; start && offset < size; offset += 4096)
            all += std::to_string(ioread32(window(uio, map) + offset)) + " ";
        all += "| ";
    }
    return all;
}

void check_emulation()
{
    const std::string enable = bus + fpga + "/enable";
    name_slot("alsw1", fpga_port);
    name_slot("rpsw", port);
    {
        const mapped memory(fpga);
        for (uint32_t page = 0; page < 64; ++page)
            iowrite32(page, memory.at(0, page * 4096));
        iowrite32(0xab1200cd, memory.at(0, 0x28)); // what it says it is
    }
    libuio_dev_t *first = open_uio("sysfs_pci:uio_cma.alsw1");
    IS(libuio_get_sys_device_dir(first), bus + fpga_port + "/" + fpga);
    IS(libuio_mmap(first, 0), 4);
    IS(pages(first), "4 5 | 2 | 11 | 12 13 | ");
    IS(read_file(enable), "1\n");
    libuio_dev_t *second = open_uio("sysfs_pci:uio_tcm.alsw1");
    IS(read_file(enable), "2\n"); // the kernel counts
    libuio_close(first);
    IS(libuio_mmap(second, 0), 1);
    libuio_close(second);
    IS(read_file(enable), "0\n");

    IS(open_uio("sysfs_pci:uio_glb.rpsw"), nullptr, EBUSY); // a driver has it
    write_file(edu_driver + "unbind", edu);
    first = open_uio("sysfs_pci:uio_glb.rpsw");
    IS(libuio_mmap(first, 0), 1);
    IS(ioread32(window(first)), edu_identity);
    libuio_close(first);
    write_file(edu_driver + "bind", edu);
    first = open_uio("sysfs_pci:uio_config.self.pellum");
    IS(libuio_mmap(first, 0), 1); // of physical memory
    libuio_close(first);
}

//--- hot-plug -------------------------------------------------------------------------------------

// Whether all that is listed meanwhile makes sense, until the port has the device or has it not.
bool comes_and_is_listed(const std::string &device)
{
    bool sensible = true;
    return comes_true([&] {
               sensible &= names(sysfs_pci_list()).find(port) != std::string::npos;
               return children(port) == device;
           }) &&
           sensible;
}

void check_hotplug()
{
    libuio_dev_t *uio = open_uio("/dev/uio0", 60);
    void *config = open_config(edu);
    uint32_t count;
    monitor("device_del", "\"id\": \"edu1\"");
    IS(comes_and_is_listed(""), true);
    IS(wait_ms(uio, 60000, &count), -1, EIO);
    IS(pci_config_read32(0, config), 0xffffffff, ENODEV);
    libuio_close(uio);
    pci_config_close(config);
    IS(comes_true([] { return wait_link_up(port) == ETIMEDOUT; }), true);
    monitor("device_add", "\"driver\": \"edu\", \"id\": \"edu2\", \"bus\": \"rp1\"");
    IS(comes_and_is_listed(std::string(edu) + " "), true);
    IS(wait_link_up(port), 0);
    IS(uio = open_uio("/dev/uio0", 60), a_pointer);
    libuio_close(uio);
}

//--- the chassis's own devices --------------------------------------------------------------------

void regblock(const std::string &command)
{
    write_file("/sys/module/zmt_chassis/parameters/regblock", command);
}

libuio_dev_t *plug(bool silent)
{
    regblock("plug");
    if (silent) // as the library needs it: nothing is heard of the notice until the removal
        ::mount("/dev/zmt_removal", "/sys/devices/platform/zmt_regblock/uio_maps", nullptr, MS_BIND,
                nullptr);
    return open_uio("/dev/uio1", 60);
}

int events_on(int fd, short asked)
{
    pollfd one = {fd, asked, 0};
    ::poll(&one, 1, 0);
    return one.revents;
}

void check_removal()
{
    // An attribute that has not changed is readable like any file, which the wait takes for the
    // removal.
    libuio_dev_t *uio = plug(false);
    const int notice = libuio_get_removed_fd(uio);
    IS(events_on(notice, POLLPRI), 0);
    IS(events_on(notice, POLLIN), POLLIN);
    IS(wait_ms(uio, 60000), -1, ECANCELED);
    libuio_close(uio);
    regblock("unplug");
    uio = plug(false);
    regblock("notify");
    IS(events_on(libuio_get_removed_fd(uio), POLLPRI), POLLPRI | POLLERR);
    libuio_close(uio);
    regblock("unplug");

    uio = plug(true);
    uint32_t count = 0;
    IS(libuio_mmap(uio, 0), 1);
    IS(ioread32(window(uio)), 0x5a4d0000);
    IS(wait_ms(uio, 100, &count), -1, ETIMEDOUT);
    IS(libuio_irqcontrol(uio, 1), 0);
    IS(wait_ms(uio, 60000, &count), 0);
    IS(count, 1);
    IS(libuio_irqcontrol(uio, 1) + libuio_irqcontrol(uio, 0), 0);
    IS(wait_ms(uio, 200, &count), -1, ETIMEDOUT);
    {
        const auto unplug = soon([] { regblock("unplug"); });
        IS(wait_ms(uio, 60000), -1, ECANCELED);
    }
    IS(wait_ms(uio, 60000), -1, EBADF);
    IS(window(uio), nullptr);
    libuio_close(uio);
    uio = plug(true);
    libuio_irqcontrol(uio, 1);
    IS(wait_ms(uio, 60000), 0);
    regblock("notify");
    IS(wait_ms(uio, -1000), -1, ECANCELED); // the removal comes before the interrupt
    libuio_close(uio);
    regblock("unplug");
}

void check_nvram()
{
    IS(podlog_nvram_init(0, 0), 1);
    podlog_nvram_close(0);
    struct stat node = {};
    ::stat("/dev/nvlog-pod", &node);
    IS(node.st_mode, S_IFCHR | 0600);
    IS(text(major(node.st_rdev)) + ":" + text(minor(node.st_rdev)) + "\n",
       read_file("/sys/class/zmt_nvram/nvram0/dev"));
    IS(read_file("/dev/nvram0").substr(32, 4), "\x65\xc3\xe2\x1f");
}

} // namespace

int main()
{
    check_lists();
    check_configuration();
    check_memory();
    check_uio();
    check_emulation();
    check_hotplug();
    check_removal();
    check_nvram();
}

#include "pci.h"

#include <device_access/regiomap_x86.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <sstream>

#include <sys/wait.h>
#include <unistd.h>

namespace guest
{

namespace fs = std::filesystem;

sysfs_pci_identity_t identity(const std::string &id)
{
    sysfs_pci_identity_t ident = {};
    std::snprintf(ident.str, sizeof ident.str, "%s", id.c_str());
    return ident;
}

std::vector<std::string> names_of(sysfs_pci_identity_t *list)
{
    const std::unique_ptr<sysfs_pci_identity_t, freeing> owner(list);
    std::vector<std::string> names;
    for (; list && list->str[0] != '\0'; ++list)
        names.push_back(list->str);
    return names;
}

config_handle open_config(const std::string &id)
{
    const sysfs_pci_identity_t ident = identity(id);
    return config_handle(pci_config_open(&ident));
}

mapped_bars::mapped_bars(const std::string &id, uint32_t umask)
    : id_(identity(id)), bars_{}, result_(sysfs_pci_mmap(bars_, umask, &id_))
{
}

mapped_bars::~mapped_bars()
{
    if (result_ == 0)
        sysfs_pci_munmap(bars_, &id_);
}

int wait_link_up(const char *id)
{
    const sysfs_pci_identity_t ident = identity(id);
    return pcie_config_wait_link_up(&ident);
}

namespace
{

std::string joined(const std::vector<std::string> &names)
{
    std::string text;
    for (const std::string &name : names)
        text += name + " ";
    return text;
}

std::string device_file(const std::string &id, const std::string &attribute)
{
    return "/sys/bus/pci/devices/" + id + "/" + attribute;
}

uint16_t number_in(const std::string &id, const std::string &attribute)
{
    return static_cast<uint16_t>(std::stoul(read_text(device_file(id, attribute)), nullptr, 0));
}

std::vector<std::string> all_functions()
{
    std::vector<std::string> names;
    for (const auto &entry : fs::directory_iterator("/sys/bus/pci/devices"))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

void check_lists()
{
    const auto children = [](const char *id) {
        const sysfs_pci_identity_t ident = identity(id);
        return joined(names_of(sysfs_pci_children_list(&ident)));
    };
    check_equal("pci: all functions", joined(names_of(sysfs_pci_list())), joined(all_functions()));
    // Its directory also holds its services, "0000:00:01.0:pcie001" and the like.
    check_equal("pci: children of a port", children(port_of_device), joined({edu}));
    check_equal("pci: children of an empty port", children(empty_port), "");
    check_equal("pci: children of a device", children(edu), "");
}

std::string description(const com_pci_dev_t &device)
{
    char text[200];
    std::snprintf(text, sizeof text, "%04x:%04x of %04x:%04x in %s", device.vendor, device.device,
                  device.subsystem_vendor, device.subsystem_device, device.sys_fs);
    return text;
}

// The same, from the kernel's files.
std::string description_of(const std::string &id)
{
    com_pci_dev_t device = {};
    device.vendor = number_in(id, "vendor");
    device.device = number_in(id, "device");
    device.subsystem_vendor = number_in(id, "subsystem_vendor");
    device.subsystem_device = number_in(id, "subsystem_device");
    std::snprintf(device.sys_fs, sizeof device.sys_fs, "/sys/bus/pci/devices/%s", id.c_str());
    return description(device);
}

void check_records()
{
    com_pci_dev_t device;
    for (const std::string &id : all_functions()) {
        const sysfs_pci_identity_t ident = identity(id);
        sysfs_pci_dev_fill(&device, &ident);
        check_equal("pci: fill " + id, description(device), description_of(id));
    }
    const sysfs_pci_identity_t ident = identity(shared_memory);
    sysfs_pci_dev_fill(&device, &ident);
    check_equal("pci: device and function in one number", device.devfn, 5 << 3);
}

// Only the low half of a size counts.
std::string window_text(uint64_t base, uint64_t size, uint64_t flags)
{
    char text[80];
    std::snprintf(text, sizeof text, "%llx+%x:%llx ", static_cast<unsigned long long>(base),
                  static_cast<uint32_t>(size), static_cast<unsigned long long>(flags));
    return text;
}

std::string windows(const sysfs_pci_info_t &info)
{
    std::string text;
    for (const sysfs_pci_bar_t &bar : info.resource_bar)
        text += window_text(bar.base, bar.size, bar.flags);
    return text;
}

// The same, from the kernel's file.
std::string windows_of(const std::string &id)
{
    std::istringstream lines(read_text(device_file(id, "resource")));
    const auto next = [&lines] {
        std::string number;
        lines >> number;
        return std::stoull(number, nullptr, 16);
    };
    std::string text;
    for (size_t bar = 0; bar < 6; ++bar) {
        const uint64_t start = next();
        const uint64_t end = next();
        text += window_text(start, end + 1 - start, next());
    }
    return text;
}

void check_scan()
{
    check_equal("pci: scan", sysfs_pci_info_init(), 0);
    sysfs_pci_get_next_element_t walk;
    sysfs_pci_info_fetch_init(&walk);
    std::vector<std::string> found;
    while (const sysfs_pci_info_t *info = sysfs_pci_info_fetch_next(&walk)) {
        const std::string id = fs::path(info->id.sys_fs).filename();
        found.push_back(id);
        check_equal("pci: scan " + id, description(info->id), description_of(id));
        check_equal("pci: scan " + id + ", windows", windows(*info), windows_of(id));
    }
    check_equal("pci: scan finds every function", joined(found), joined(all_functions()));
}

uint32_t read_config(unsigned int width, uint32_t offset, const config_handle &config)
{
    errno = ENOTTY;
    return width == 1   ? pci_config_read8(offset, config.get())
           : width == 2 ? pci_config_read16(offset, config.get())
                        : pci_config_read32(offset, config.get());
}

// Every register of a function, in every width, at every offset of the range.
void check_config_reads(const std::string &id, uint32_t size)
{
    const std::string bytes = read_text(device_file(id, "config"));
    const config_handle config = open_config(id);
    check_equal("pci: size of the configuration space of " + id,
                static_cast<long long>(bytes.size()), size);
    for (const unsigned int width : {1u, 2u, 4u}) {
        std::string wrong;
        for (uint32_t offset = 0; offset + width <= size; ++offset) {
            uint32_t expected = 0xffffffff;
            if (offset % width == 0) {
                expected = 0;
                std::memcpy(&expected, &bytes[offset], width);
            }
            const uint32_t got = read_config(width, offset, config);
            if (got != expected || errno != (offset % width ? EINVAL : 0))
                wrong += text_of(offset) + " ";
        }
        const std::string name = "pci: configuration of " + id + " in reads of ";
        check(name + std::to_string(width) + " bytes", wrong.empty(), "differs at " + wrong);
        check_equal(name + std::to_string(width) + " bytes, at its end",
                    read_config(width, size, config), 0xffffffff);
        check("pci: a read behind the end is told from all ones", errno != 0, "");
    }
}

void check_config_writes()
{
    constexpr uint32_t command = 0x04;
    constexpr uint32_t interrupt_line = 0x3c;
    constexpr uint16_t interrupt_disable = 0x400;
    const config_handle handle = open_config(edu);
    void *config = handle.get();
    const auto line = static_cast<uint8_t>(pci_config_read8(interrupt_line, config));
    const auto before = static_cast<uint16_t>(pci_config_read16(command, config));
    const uint32_t read_only = pci_config_read32(interrupt_line, config) & 0xffffff00;

    check_equal("pci: write 8", pci_config_write8(0x5a, interrupt_line, config), 0);
    check_equal("pci: written 8", pci_config_read8(interrupt_line, config), 0x5a);
    check_equal("pci: set 8", pci_config_bitset8(0x81, interrupt_line, config), 0);
    check_equal("pci: set bits 8", pci_config_read8(interrupt_line, config), 0xdb);
    check_equal("pci: clear 8", pci_config_bitclr8(0x0f, interrupt_line, config), 0);
    check_equal("pci: cleared bits 8", pci_config_read8(interrupt_line, config), 0xd0);

    check_equal("pci: set 16", pci_config_bitset16(interrupt_disable, command, config), 0);
    check_equal("pci: set bits 16", pci_config_read16(command, config), before | interrupt_disable);
    check_equal("pci: clear 16", pci_config_bitclr16(interrupt_disable, command, config), 0);
    check_equal("pci: cleared bits 16", pci_config_read16(command, config),
                before & ~interrupt_disable);
    check_equal("pci: write 16", pci_config_write16(before, command, config), 0);
    check_equal("pci: written 16", pci_config_read16(command, config), before);

    check_equal("pci: write 32", pci_config_write32(0xffffff33, interrupt_line, config), 0);
    check_equal("pci: written 32, but for what is read-only",
                pci_config_read32(interrupt_line, config), read_only | 0x33);
    check_equal("pci: set 32", pci_config_bitset32(0x04, interrupt_line, config), 0);
    check_equal("pci: set bits 32", pci_config_read32(interrupt_line, config), read_only | 0x37);
    check_equal("pci: clear 32", pci_config_bitclr32(0x30, interrupt_line, config), 0);
    check_equal("pci: cleared bits 32", pci_config_read32(interrupt_line, config),
                read_only | 0x07);
    check_equal("pci: misaligned write",
                outcome_of([&] { return pci_config_write16(0, command + 1, config); }),
                {-1, EINVAL});
    pci_config_write8(line, interrupt_line, config);
}

// The capabilities of a function as its own bytes tell them.
int capability_in(const std::string &bytes, uint8_t id)
{
    const auto byte = [&bytes](size_t offset) { return static_cast<uint8_t>(bytes[offset]); };
    for (size_t offset = byte(0x34); offset != 0; offset = byte(offset + 1))
        if (byte(offset) == id)
            return static_cast<int>(offset);
    return -1;
}

void check_capabilities()
{
    for (const char *id : {port_of_device, edu}) {
        const config_handle config = open_config(id);
        const std::string bytes = read_text(device_file(id, "config"));
        int found = 0;
        for (const uint8_t capability :
             std::initializer_list<uint8_t>{0x01, 0x05, 0x0d, 0x10, 0x11}) {
            const int expected = capability_in(bytes, capability);
            found += expected > 0;
            check_equal("pci: capability " + text_of(capability) + " of " + id, outcome_of([&] {
                            return pci_config_find_capability(capability, config.get());
                        }),
                        {expected, expected < 0 ? ENOENT : 0});
        }
        check("pci: capabilities were found on " + std::string(id), found > 0, "");
    }
    const config_handle several = open_config(several_functions);
    check("pci: a function of several has capabilities",
          capability_in(read_text(device_file(several_functions, "config")), 0x12) > 0, "");
    check_equal("pci: but the walk takes its header type for unknown",
                outcome_of([&] { return pci_config_find_capability(0x12, several.get()); }),
                {-1, ENOENT});
}

void check_links()
{
    check_equal("pci: link of a port with a device", wait_link_up(port_of_device), 0);
    const timespec start = in_ms(0);
    check_equal("pci: link of an empty port", wait_link_up(empty_port), ETIMEDOUT);
    check("pci: it was waited for half a second", ms_since(start) >= 500, text_of(ms_since(start)));
    check_equal("pci: link of what is no port", outcome_of([] { return wait_link_up(edu); }),
                {-1, ENOENT});

    const auto is_hotplug = [](const char *id) {
        return pcie_config_is_hotplug(open_config(id).get());
    };
    check_equal("pci: a hot-plug port", is_hotplug(port_of_device), 1);
    check_equal("pci: an empty hot-plug port", is_hotplug(empty_port), 1);
    check_equal("pci: a port without hot-plug", is_hotplug(plain_port), 0);
    check_equal("pci: what is no port has no hot-plug", is_hotplug(edu), 0);
}

void check_bars(const char *id, uint32_t umask, const std::string &expected)
{
    const mapped_bars bars(id, umask);
    std::string mapped;
    for (size_t bar = 0; bar < 6; ++bar)
        mapped += bars.result() == 0 && bars[bar] ? '1' : '0';
    check_equal("pci: BARs mapped of " + std::string(id), mapped, expected);
}

void check_mapping()
{
    check_bars(edu, 0, "100000");
    check_bars(testdev, 0x04, "100000");        // I/O is skipped, the rest is masked
    check_bars(shared_memory, 0, "101000");     // a small BAR, but of memory
    check_bars(several_functions, 0, "000001"); // a small BAR of I/O
    check("pci: nothing stays mapped",
          read_text("/proc/self/maps").find("/resource") == std::string::npos, "");

    const mapped_bars registers(edu);
    check_equal("pci: a register", ioread32(registers[0] + edu_identification), edu_identity);
    iowrite32(0x0f0f1234, registers[0] + edu_inverter);
    check_equal("pci: a register written", ioread32(registers[0] + edu_inverter), 0xf0f0edcb);

    const mapped_bars memory(shared_memory);
    iowrite64(0x1122334455667788, memory[2] + 0xff000);
    check_equal("pci: memory above 4 GiB", ioread32(memory[2] + 0xff004), 0x11223344);
}

void check_absence()
{
    const sysfs_pci_identity_t nowhere = identity("0000:77:00.0");
    void *resource[6];
    check("pci: no such function", !pci_config_open(&nowhere) && errno == ENOENT,
          std::strerror(errno));
    check_equal("pci: its BARs", outcome_of([&] { return sysfs_pci_mmap(resource, 0, &nowhere); }),
                {0, 0});
    check("pci: its children", !sysfs_pci_children_list(&nowhere) && errno == ENOENT,
          std::strerror(errno));
}

} // namespace

void check_pci()
{
    check_lists();
    check_records();
    check_scan();
    check_config_reads(edu, 256);
    check_config_reads(port_of_device, 4096);
    check_config_writes();
    check_capabilities();
    check_links();
    check_mapping();
    check_absence();
}

} // namespace guest

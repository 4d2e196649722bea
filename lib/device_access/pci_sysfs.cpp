#include <device_access/pci_sysfs.h>

#include "internal/diagnostic_line.h"
#include "internal/dir_list.h"
#include "internal/errno_guard.h"
#include "internal/pci_root.h"
#include "internal/print.h"
#include "internal/unique_fd.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

using namespace device_access;

#define SYSFS_ERR(...) sysfs_log_pr(LOG_ERR, __LINE__, __func__, __VA_ARGS__)
#define SYSFS_DEBUG(...) sysfs_log_pr(LOG_DEBUG, __LINE__, __func__, __VA_ARGS__)

namespace
{

constexpr int bar_count = 6;

// The result of the last scan, NULL before it and after one that failed.
const sysfs_pci_info_set_t *sysfs_pci_info_set;

// A path below the PCI directory: of a device, and of an attribute of it.
using device_path = char[256];
using attribute_path = char[sizeof(device_path) + 32];

[[gnu::format(printf, 4, 5)]] void sysfs_log_pr(int level, unsigned int line_num,
                                                const char *func_name, const char *fmt, ...)
{
    diagnostic_line line;
    va_list args;
    va_start(args, fmt);
    format_diagnostic(line, "lib/device_access/pci_sysfs", line_num, func_name, fmt, args);
    va_end(args);
    print_output("[%d], %s", level, line);
}

//--- one attribute --------------------------------------------------------------------------------

// The character behind a number separates it from the next one.
const char *behind_separator(const char *end)
{
    return *end ? end + 1 : end;
}

void sysfs_parse_resource_line(sysfs_pci_bar_t &bar, const char *line)
{
    char *end;
    bar.base = std::strtoull(line, &end, 16);
    const uint64_t last = std::strtoull(behind_separator(end), &end, 16);
    // As wide as an unsigned long of the 32-bit target.
    bar.flags = std::min(std::strtoul(behind_separator(end), nullptr, 16), 0xffffffffUL);
    const auto limit = static_cast<int32_t>(static_cast<uint32_t>(last + 1));
    bar.size = static_cast<uint64_t>(int64_t{limit}) - bar.base;
}

void sysfs_fetch_resource_attr(const char *path, sysfs_pci_bar_t *bars, int count)
{
    struct closer {
        void operator()(std::FILE *file) const { std::fclose(file); }
    };
    char buffer[1024]; // more than the lines; spares the stream a block and a look at the file
    const std::unique_ptr<std::FILE, closer> file(std::fopen(path, "re"));
    if (!file) {
        SYSFS_ERR("Failed to open %s\n", path);
        return;
    }
    std::setvbuf(file.get(), buffer, _IOFBF, sizeof buffer);
    char line[128];
    for (int k = 0; k < count; ++k) {
        if (!std::fgets(line, sizeof line, file.get())) {
            SYSFS_ERR("Unexpected EOF at line %d of %s\n", k, path);
            return;
        }
        sysfs_parse_resource_line(bars[k], line);
    }
}

void sysfs_store_attribute(attr_t attr, const char *path, const char *text, sysfs_pci_info_t &info)
{
    const auto id = static_cast<uint16_t>(std::strtoul(text, nullptr, 16));
    switch (attr) {
    case ATTR_DEVICE:
        info.id.device = id;
        break;
    case ATTR_VENDOR:
        info.id.vendor = id;
        break;
    case ATTR_SUBSYSTEM_DEVICE:
        info.id.subsystem_device = id;
        break;
    case ATTR_SUBSYSTEM_VENDOR:
        info.id.subsystem_vendor = id;
        break;
    case ATTR_RESOURCE:
        sysfs_fetch_resource_attr(path, info.resource_bar, bar_count);
        break;
    default:
        SYSFS_ERR("Invalid value \n");
    }
}

void sysfs_fill_attribute(attr_t attr, const char *path, sysfs_pci_info_t &info)
{
    unique_fd file(::open(path, O_RDONLY | O_CLOEXEC));
    if (!file) {
        SYSFS_ERR("Error opening the file_entry, %s\n", path);
        return;
    }
    char text[128];
    const ssize_t length = ::read(file.get(), text, sizeof text - 1);
    if (length <= 0) {
        SYSFS_ERR("Read failed on the attribute %s\n", path);
        return;
    }
    file.reset();
    text[length] = '\0';
    if (text[0] < '0' || text[0] > '9') {
        SYSFS_ERR("Read returned invalid value %s\n", text);
        return;
    }
    sysfs_store_attribute(attr, path, text, info);
}

//--- one device -----------------------------------------------------------------------------------

const char *sysfs_attribute_name(attr_t attr)
{
    switch (attr) {
    case ATTR_DEVICE:
        return "device";
    case ATTR_VENDOR:
        return "vendor";
    case ATTR_SUBSYSTEM_DEVICE:
        return "subsystem_device";
    case ATTR_SUBSYSTEM_VENDOR:
        return "subsystem_vendor";
    case ATTR_RESOURCE:
        return "resource";
    default:
        SYSFS_DEBUG("Invalid value\n");
        return "";
    }
}

// The device's directory is that of its last attribute. From here on the element is no hole.
void sysfs_pci_info_extract_path(const char *path, com_pci_dev_t &id)
{
    const auto length = static_cast<size_t>(std::strrchr(path, '/') - path);
    std::memcpy(id.sys_fs, path, std::min(length, sizeof id.sys_fs - 1));
}

void sysfs_fill_attributes(const char *dir, sysfs_pci_info_t &info)
{
    attribute_path path = "";
    for (int attr = ATTR_DEVICE; attr < ATTR_MAX; ++attr) {
        std::snprintf(path, sizeof path, "%s/%s", dir,
                      sysfs_attribute_name(static_cast<attr_t>(attr)));
        sysfs_fill_attribute(static_cast<attr_t>(attr), path, info);
    }
    sysfs_pci_info_extract_path(path, info.id);
}

// Fills the element of a directory entry, or leaves it a hole.
void sysfs_scan_entry(const char *name, sysfs_pci_info_t &info)
{
    if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0)
        return;
    device_path dir;
    const int length = std::snprintf(dir, sizeof dir, "%s/%s", pci_root, name);
    if (static_cast<size_t>(length) >= sizeof dir)
        return;
    struct stat status;
    if (::stat(dir, &status) == 0 && S_ISDIR(status.st_mode))
        sysfs_fill_attributes(dir, info);
}

//--- all devices ----------------------------------------------------------------------------------

bool is_sysfs_path_dir(const char *path)
{
    struct stat status;
    if (::lstat(path, &status) != 0) {
        SYSFS_ERR("Stats failed for path %s\n", path);
        return false;
    }
    return S_ISDIR(status.st_mode);
}

sysfs_pci_info_set_t *sysfs_pci_arraylist_create(int count)
{
    // Room for one element more serves as that of the count, and calloc checks the product.
    static_assert(sizeof(sysfs_pci_info_set_t) <= sizeof(sysfs_pci_info_t));
    void *block = std::calloc(static_cast<size_t>(count) + 1, sizeof(sysfs_pci_info_t));
    SYSFS_DEBUG("# of elements is %d\n", count);
    if (!block) {
        SYSFS_ERR("Unable to allocate memory \n");
        return nullptr;
    }
    auto *set = static_cast<sysfs_pci_info_set_t *>(block);
    set->count = static_cast<size_t>(count);
    return set;
}

const sysfs_pci_info_set_t *sysfs_pci_scan_dir_path(const char *path)
{
    if (!is_sysfs_path_dir(path)) {
        SYSFS_ERR("PATH invalidi\n");
        return nullptr;
    }
    const dir_list entries(path);
    if (entries.count() <= 0) {
        SYSFS_ERR("scandir failed");
        return nullptr;
    }
    sysfs_pci_info_set_t *set = sysfs_pci_arraylist_create(entries.count());
    if (!set)
        return nullptr;
    for (int i = entries.count() - 1; i >= 0; --i)
        sysfs_scan_entry(entries.name(i), set->element[i]);
    return set;
}

void report(const char *message)
{
    const errno_guard keep;
    ::syslog(LOG_ERR, "%s", message);
}

} // namespace

int sysfs_pci_info_init(void)
{
    sysfs_pci_info_set = sysfs_pci_scan_dir_path(pci_root);
    if (!sysfs_pci_info_set)
        return 1;
    SYSFS_DEBUG("info_set has %u entries\n", static_cast<unsigned int>(sysfs_pci_info_set->count));
    return 0;
}

void sysfs_pci_info_fetch_init(sysfs_pci_get_next_element_t *handle)
{
    if (!handle) {
        report("Pci Info Init failed \n");
        return;
    }
    handle->key = 0;
    handle->seed = sysfs_pci_info_set;
    if (!handle->seed)
        SYSFS_DEBUG("Empty info set\n");
}

const sysfs_pci_info_t *sysfs_pci_info_fetch_next(sysfs_pci_get_next_element_t *handle)
{
    if (!handle) {
        report("Received Null Handle for next element fetch \n");
        return nullptr;
    }
    if (!handle->seed) {
        report("The Received handle is corrupted \n");
        return nullptr;
    }
    const auto *set = static_cast<const sysfs_pci_info_set_t *>(handle->seed);
    if (handle->key > set->count) {
        report("The Received handle key count is invalid\n");
        return nullptr;
    }
    while (handle->key < set->count) {
        const sysfs_pci_info_t *element = &set->element[handle->key++];
        if (element->id.sys_fs[0])
            return element;
    }
    return nullptr;
}

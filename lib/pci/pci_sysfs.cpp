// The scan of all PCI functions, and the iterator over what it found.
#include <device_access/pci_sysfs.h>

#include "lib/base/dir_list.h"
#include "lib/base/errno_guard.h"
#include "lib/base/errors.h"
#include "lib/base/pci_root.h"
#include "lib/base/print.h"
#include "lib/base/unique_fd.h"
#include "lib/pci/device_directory.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

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

// The character after a number separates it from the next one.
const char *after_separator(const char *end)
{
    return *end ? end + 1 : end;
}

void sysfs_parse_resource_line(sysfs_pci_bar_t &bar, const char *line)
{
    char *end;
    bar.base = std::strtoull(line, &end, 16);
    const uint64_t last = std::strtoull(after_separator(end), &end, 16);
    // As wide as an unsigned long of the 32-bit target.
    bar.flags = std::min(std::strtoul(after_separator(end), nullptr, 16), 0xffffffffUL);
    const auto limit = static_cast<int32_t>(static_cast<uint32_t>(last + 1));
    bar.size = static_cast<uint64_t>(int64_t{limit}) - bar.base;
}

// The lines of a file, as fgets(3) gives them.
class line_reader
{
public:
    explicit line_reader(unique_fd file) : file_(std::move(file)) {}

    // False at the end of the file, and when it cannot be read.
    template <size_t size>
    bool next(char (&line)[size])
    {
        size_t length = 0;
        while (length < size - 1 && fill()) {
            line[length++] = buffer_[used_++];
            if (line[length - 1] == '\n')
                break;
        }
        line[length] = '\0';
        return length > 0 && filled_ >= 0;
    }

private:
    bool fill()
    {
        if (used_ < filled_)
            return true;
        filled_ = ::read(file_.get(), buffer_, sizeof buffer_);
        used_ = 0;
        return filled_ > 0;
    }

    unique_fd file_;
    ssize_t used_ = 0;
    ssize_t filled_ = 0;
    char buffer_[1024]; // more than the lines of a function's resources
};

// Whether all lines could be read.
bool sysfs_fetch_resource_attr(device_directory &dir, const char *attr_name, sysfs_pci_bar_t *bars,
                               int count)
{
    unique_fd file = dir.open_attribute(attr_name);
    if (!file)
        return REFUSE(SYSFS_ERR, false, "Failed to open %s\n",
                      attribute_path(dir.path(), attr_name).str);
    line_reader lines(std::move(file));
    char line[128];
    for (int k = 0; k < count; ++k) {
        if (!lines.next(line))
            return REFUSE(SYSFS_ERR, false, "Unexpected EOF at line %d of %s\n", k,
                          attribute_path(dir.path(), attr_name).str);
        sysfs_parse_resource_line(bars[k], line);
    }
    return true;
}

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

bool sysfs_store_attribute(attr_t attr, device_directory &dir, const char *text,
                           sysfs_pci_info_t &info)
{
    const auto id = static_cast<uint16_t>(std::strtoul(text, nullptr, 16));
    switch (attr) {
    case ATTR_DEVICE:
        info.id.device = id;
        return true;
    case ATTR_VENDOR:
        info.id.vendor = id;
        return true;
    case ATTR_SUBSYSTEM_DEVICE:
        info.id.subsystem_device = id;
        return true;
    case ATTR_SUBSYSTEM_VENDOR:
        info.id.subsystem_vendor = id;
        return true;
    case ATTR_RESOURCE:
        return sysfs_fetch_resource_attr(dir, sysfs_attribute_name(attr), info.resource_bar,
                                         bar_count);
    default:
        return REFUSE(SYSFS_ERR, false, "Invalid value \n");
    }
}

bool sysfs_fill_attribute(attr_t attr, device_directory &dir, sysfs_pci_info_t &info)
{
    const char *name = sysfs_attribute_name(attr);
    unique_fd file = dir.open_attribute(name);
    if (!file)
        return REFUSE(SYSFS_ERR, false, "Error opening the file_entry, %s\n",
                      attribute_path(dir.path(), name).str);
    char text[128];
    const ssize_t length = ::read(file.get(), text, sizeof text - 1);
    if (length <= 0)
        return REFUSE(SYSFS_ERR, false, "Read failed on the attribute %s\n",
                      attribute_path(dir.path(), name).str);
    file.reset();
    text[length] = '\0';
    if (text[0] < '0' || text[0] > '9')
        return REFUSE(SYSFS_ERR, false, "Read returned invalid value %s\n", text);
    return sysfs_store_attribute(attr, dir, text, info);
}

//--- one device -----------------------------------------------------------------------------------

// What fails has been reported, and leaves its field 0.
void sysfs_fill_attributes(device_directory &dir, sysfs_pci_info_t &info)
{
    for (int attr = ATTR_DEVICE; attr < ATTR_MAX; ++attr)
        sysfs_fill_attribute(static_cast<attr_t>(attr), dir, info);
    // From here on the element is no hole.
    std::memcpy(info.id.sys_fs, dir.path(), ::strnlen(dir.path(), sizeof info.id.sys_fs - 1));
}

bool is_directory(const char *path)
{
    struct stat status;
    return ::stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

// Fills the element of a directory entry, or leaves it a hole.
void sysfs_scan_entry(const char *name, sysfs_pci_info_t &info)
{
    if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0)
        return;
    char path[256];
    const int length = std::snprintf(path, sizeof path, "%s/%s", pci_root, name);
    if (static_cast<size_t>(length) >= sizeof path)
        return;
    device_directory dir(path);
    // A process out of descriptors reports each file of each function.
    if (dir || is_directory(path))
        sysfs_fill_attributes(dir, info);
}

//--- all devices ----------------------------------------------------------------------------------

bool is_sysfs_path_dir(const char *path)
{
    struct stat status;
    if (::lstat(path, &status) != 0)
        return REFUSE(SYSFS_ERR, false, "Stats failed for path %s\n", path);
    return S_ISDIR(status.st_mode);
}

sysfs_pci_info_set_t *sysfs_pci_arraylist_create(int count)
{
    // Room for one element more serves as that of the count, and calloc checks the product.
    static_assert(sizeof(sysfs_pci_info_set_t) <= sizeof(sysfs_pci_info_t));
    void *block = std::calloc(static_cast<size_t>(count) + 1, sizeof(sysfs_pci_info_t));
    SYSFS_DEBUG("# of elements is %d\n", count);
    if (!block)
        return REFUSE(SYSFS_ERR, nullptr, "Unable to allocate memory \n");
    auto *set = static_cast<sysfs_pci_info_set_t *>(block);
    set->count = static_cast<size_t>(count);
    return set;
}

const sysfs_pci_info_set_t *sysfs_pci_scan_dir_path(const char *path)
{
    if (!is_sysfs_path_dir(path))
        return REFUSE(SYSFS_ERR, nullptr, "PATH invalidi\n");
    const dir_list entries(path);
    if (entries.count() <= 0)
        return REFUSE(SYSFS_ERR, nullptr, "scandir failed");
    sysfs_pci_info_set_t *set = sysfs_pci_arraylist_create(entries.count());
    if (!set)
        return nullptr;
    for (int i = entries.count() - 1; i >= 0; --i)
        sysfs_scan_entry(entries.name(i), set->element[i]);
    return set;
}

std::nullptr_t refuse_fetch(const char *message)
{
    const errno_guard keep;
    ::syslog(LOG_ERR, "%s", message);
    return nullptr;
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
        refuse_fetch("Pci Info Init failed \n");
        return;
    }
    handle->key = 0;
    handle->seed = sysfs_pci_info_set;
    if (!handle->seed)
        SYSFS_DEBUG("Empty info set\n");
}

const sysfs_pci_info_t *sysfs_pci_info_fetch_next(sysfs_pci_get_next_element_t *handle)
{
    if (!handle)
        return refuse_fetch("Received Null Handle for next element fetch \n");
    if (!handle->seed)
        return refuse_fetch("The Received handle is corrupted \n");
    const auto *set = static_cast<const sysfs_pci_info_set_t *>(handle->seed);
    if (handle->key > set->count)
        return refuse_fetch("The Received handle key count is invalid\n");
    while (handle->key < set->count) {
        const sysfs_pci_info_t *element = &set->element[handle->key++];
        if (element->id.sys_fs[0])
            return element;
    }
    return nullptr;
}

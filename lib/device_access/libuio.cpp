#include <device_access/libuio.h>

#include <device_access/libuio_emul.h>

#include "internal/errno_guard.h"
#include "internal/libuio_errors.h"
#include "internal/libuio_handle.h"
#include "internal/libuio_path.h"
#include "internal/libuio_pr.h"
#include "internal/libuio_wait.h"
#include "internal/pci_root.h"
#include "internal/unique_dir.h"
#include "internal/unique_fd.h"
#include "internal/unique_malloc.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <unistd.h>

using namespace device_access;

namespace
{

constexpr char class_root[] = "/sys/class/uio";
constexpr char removal_attr[] = "uio_maps";

//--- opening --------------------------------------------------------------------------------------

// Waits until the node is there.
bool libuio_check(const char *devnode_name, const timespec *max_wait)
{
    struct stat status;
    if (::stat(devnode_name, &status) == 0)
        return true;
    if (errno != ENOENT) {
        LIBUIO_ERR("stat(%s) failed: %s", devnode_name, error_text());
        return false;
    }
    libuio_wait wait(max_wait);
    if (wait.forbidden())
        return false;
    do {
        if (::stat(devnode_name, &status) == 0)
            return true;
    } while (errno == ENOENT && wait.pause());
    return false;
}

const char *libuio_scan_class_dir(libuio_path_t &buf, dev_t dev_id)
{
    const unique_dir dir(::opendir(class_root));
    if (!dir)
        return nullptr;
    errno = ENODEV; // unless a directory cannot be read
    while (const dirent *entry = ::readdir(dir.get()))
        if (libuio_extract_inst_id(entry->d_name) >= 0)
            if (const char *found = libuio_make_class_dir(buf, entry->d_name, dev_id))
                return found;
    return nullptr;
}

// The class directory of the node real_name, in buf.
const char *libuio_locate_class_dir(libuio_path_t &buf, const char *real_name)
{
    struct stat status;
    if (::lstat(real_name, &status) != 0) {
        LIBUIO_ERR("lstat(%s) failed: %s", real_name, error_text());
        return nullptr;
    }
    if (!S_ISCHR(status.st_mode)) {
        LIBUIO_ERR("%s: not cdev", real_name);
        return invalid_pointer();
    }
    if (libuio_extract_inst_id(real_name) >= 0)
        if (const char *found =
                libuio_make_class_dir(buf, libuio_basename(real_name), status.st_rdev))
            return found;
    return libuio_scan_class_dir(buf, status.st_rdev);
}

// The canonical directory of the device behind the class directory.
unique_malloc<char> libuio_locate_device_dir(const char *class_dir)
{
    libuio_path_t link;
    unique_malloc<char> device_dir =
        libuio_locate_real_name(libuio_concat_path(link, {class_dir, "/device"}));
    if (!device_dir)
        return nullptr;
    char *end = device_dir.get() + std::strlen(device_dir.get());
    std::strcpy(end, "/uevent");
    struct stat status;
    if (::lstat(device_dir.get(), &status) != 0) {
        LIBUIO_ERR("lstat(%s) failed: %s", device_dir.get(), error_text());
        return nullptr;
    }
    if (!S_ISREG(status.st_mode)) {
        LIBUIO_ERR("lstat(%s) found a non-regular file", device_dir.get());
        return invalid_pointer();
    }
    *end = '\0';
    LIBUIO_DEBUG("Found %s", device_dir.get());
    return device_dir;
}

bool libuio_fill_map(libuio_map_t &map, const char *maps_dir, const char *name)
{
    libuio_path_t buf;
    const char *path = libuio_concat_path(buf, {maps_dir, "/", name, "/size"});
    unique_fd file(::open(path, O_RDONLY | O_CLOEXEC));
    if (!file) {
        LIBUIO_ERR("open(%s) failed: %s", path, error_text());
        return false;
    }
    char text[41];
    const ssize_t length = ::pread(file.get(), text, sizeof text - 1, 0);
    if (length <= 0) {
        if (length == 0)
            errno = EIO;
        LIBUIO_ERR("pread(%s) failed: %s", path, error_text());
        return false;
    }
    file.reset();
    text[length] = '\0';
    map.index = static_cast<unsigned int>(libuio_extract_map_id(name));
    map.size = std::strtoul(text, nullptr, 0);
    LIBUIO_DEBUG("Found %d; %s = %#lx", static_cast<int>(map.index), path,
                 static_cast<unsigned long>(map.size));
    return true;
}

// Fills the map records of a handle that has room for all, in directory order.
bool libuio_find_maps(libuio_dev_t &uio)
{
    libuio_path_t buf;
    const char *maps_dir = libuio_concat_path(buf, {uio.sys_class_dir, "/maps"});
    const unique_dir dir(::opendir(maps_dir));
    if (!dir) {
        if (errno == ENOENT)
            return true;
        LIBUIO_ERR("opendir(%s) failed: %s", maps_dir, error_text());
        return false;
    }
    while (const dirent *entry = ::readdir(dir.get())) {
        if (libuio_extract_map_id(entry->d_name) < 0)
            continue;
        if (uio.map_count == LIBUIO_MAX_MAPS) {
            LIBUIO_ERR("max-map reached");
            errno = ENOMEM;
            return false;
        }
        libuio_map_t &map = uio.map[uio.map_count];
        if (!libuio_fill_map(map, maps_dir, entry->d_name))
            return false;
        if (map.index > uio.map_index_max)
            uio.map_index_max = map.index;
        ++uio.map_count;
    }
    return true;
}

bool libuio_open_files(libuio_dev_t &uio)
{
    unique_fd node(::open(uio.devnode_name, O_RDWR | O_CLOEXEC));
    if (!node) {
        LIBUIO_ERR("open(%s) failed: %s", uio.devnode_name, error_text());
        return false;
    }
    unique_fd gone(libuio_open_device_attr(&uio, removal_attr, O_CLOEXEC));
    if (!gone && errno != ENOENT)
        return false;
    // A sysfs attribute must be read once before poll reports its changes.
    char first;
    if (gone) {
        const ssize_t length = ::pread(gone.get(), &first, 1, 0);
        if (length != 1) {
            if (length == 0)
                errno = EIO;
            LIBUIO_ERR("1st read(%s/%s) failed: %s", uio.sys_device_dir, removal_attr,
                       error_text());
            return false;
        }
    }
    unique_fd timer(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC));
    if (!timer) {
        LIBUIO_ERR("timerfd_create() failed: %s", error_text());
        return false;
    }
    uio.tmr_fd = timer.release();
    uio.uio_fd = node.release();
    uio.gone_fd = gone.release();
    LIBUIO_DEBUG("(tmr, uio, chg) = (%d, %d, %d)\n", uio.tmr_fd, uio.uio_fd, uio.gone_fd);
    return true;
}

//--- closing --------------------------------------------------------------------------------------

bool is_pci_device(const libuio_dev_t &uio)
{
    constexpr size_t length = sizeof pci_root - 1;
    return std::strncmp(uio.sys_class_dir, pci_root, length) == 0 &&
           uio.sys_class_dir[length] == '/';
}

// Closes a descriptor of a handle; 0 is never one of ours.
void close_descriptor(int &fd)
{
    if (fd > 0) {
        ::close(fd);
        fd = -1;
    }
}

// Leaves the handle allocated, with nothing mapped and nothing open.
void libuio_shut(libuio_dev_t &uio)
{
    libuio_munmap(&uio, 0);
    close_descriptor(uio.gone_fd);
    close_descriptor(uio.uio_fd);
    close_descriptor(uio.tmr_fd);
}

} // namespace

libuio_dev_t *libuio_open(const char *devnode_name)
{
    return libuio_open_timed(devnode_name, nullptr);
}

libuio_dev_t *libuio_open_timed(const char *devnode_name, const struct timespec *max_wait)
{
    if (!devnode_name)
        return invalid_pointer();
    if (libuio_is_emul(devnode_name))
        return libuio_emul_open_timed(devnode_name, max_wait);

    libuio_path_t class_dir;
    {
        if (!libuio_check(devnode_name, max_wait))
            return nullptr;
        const unique_malloc<char> real_name = libuio_locate_real_name(devnode_name);
        if (!real_name || !libuio_locate_class_dir(class_dir, real_name.get()))
            return nullptr;
    }
    const unique_malloc<char> device_dir = libuio_locate_device_dir(class_dir.str);
    if (!device_dir)
        return nullptr;

    unique_malloc<libuio_dev_t> uio = libuio_new_handle(devnode_name);
    if (!uio)
        return nullptr;
    uio->sys_class_dir = class_dir.str;
    uio->sys_device_dir = device_dir.get();
    if (!libuio_find_maps(*uio) || !libuio_finish_handle(uio) || !libuio_open_files(*uio))
        return nullptr;
    return uio.release();
}

libuio_dev_t *libuio_adjust_size(libuio_dev_t *uio)
{
    if (!uio) {
        LIBUIO_ERR("uio is NULL");
        return nullptr;
    }
    const char *const strings[] = {uio->sys_device_dir, uio->sys_class_dir, uio->devnode_name};
    const size_t fixed = sizeof(libuio_dev_t) + uio->map_count * sizeof(libuio_map_t);
    size_t sizes[3];
    for (int i = 0; i < 3; ++i)
        sizes[i] = std::strlen(strings[i]) + 1;

    void *block = std::realloc(uio, fixed + sizes[0] + sizes[1] + sizes[2]);
    const long parts[] = {static_cast<long>(fixed), static_cast<long>(sizes[0]),
                          static_cast<long>(sizes[1]), static_cast<long>(sizes[2])};
    if (!block) {
        LIBUIO_ERR("realloc (%ld+%ld+%ld+%ld) failed", parts[0], parts[1], parts[2], parts[3]);
        errno = ENOMEM;
        return nullptr;
    }
    libuio_dev_t *const moved = static_cast<libuio_dev_t *>(block);
    const char **const fields[] = {&moved->sys_device_dir, &moved->sys_class_dir,
                                   &moved->devnode_name};
    char *tail = static_cast<char *>(block) + fixed;
    for (int i = 0; i < 3; ++i) {
        *fields[i] = static_cast<const char *>(std::memcpy(tail, strings[i], sizes[i]));
        tail += sizes[i];
    }
    LIBUIO_DEBUG("realloc (%ld+%ld+%ld+%ld) ok", parts[0], parts[1], parts[2], parts[3]);
    return moved;
}

void libuio_close(libuio_dev_t *uio)
{
    if (!uio) {
        errno = EINVAL;
        return;
    }
    if (is_pci_device(*uio) || libuio_is_emul(uio->devnode_name))
        libuio_emul_device_enable(uio, 0);
    libuio_shut(*uio);
    std::free(uio);
}

int libuio_open_device_attr(const libuio_dev_t *uio, const char *attr_name, int flags)
{
    if (!uio || !attr_name)
        return invalid_number();
    if (attr_name[0] == '/') {
        LIBUIO_ERR("%s: attr-name is not relative\n", attr_name);
        return invalid_number();
    }
    if (!uio->sys_device_dir) {
        LIBUIO_ERR("sys_device_dir is NULL\n");
        errno = ENOENT;
        return -1;
    }
    const unique_fd dir(::open(uio->sys_device_dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!dir) {
        LIBUIO_ERR("open(%s,O_DIRECTORY) failed: %s", uio->sys_device_dir, error_text());
        return -1;
    }
    // The mode counts only with O_CREAT, which must not be without one.
    const int fd = ::openat(dir.get(), attr_name, flags, 0600);
    if (fd < 0 && errno != ENOENT)
        LIBUIO_ERR("openat(%s,%s,%#x) failed: %s", uio->sys_device_dir, attr_name,
                   static_cast<unsigned int>(flags), error_text());
    return fd;
}

int libuio_get_uio_fd(const libuio_dev_t *uio)
{
    return uio ? uio->uio_fd : invalid_number();
}

int libuio_get_removed_fd(const libuio_dev_t *uio)
{
    return uio ? uio->gone_fd : invalid_number();
}

const char *libuio_get_real_devnode(const libuio_dev_t *uio)
{
    return uio ? uio->devnode_name : invalid_pointer();
}

const char *libuio_get_sys_class_dir(const libuio_dev_t *uio)
{
    return uio ? uio->sys_class_dir : invalid_pointer();
}

const char *libuio_get_sys_device_dir(const libuio_dev_t *uio)
{
    return uio ? uio->sys_device_dir : invalid_pointer();
}

int libuio_mmap(libuio_dev_t *uio, uint64_t nop_mask)
{
    const long page_size = ::sysconf(_SC_PAGESIZE);
    if (!uio)
        return invalid_number();
    if (libuio_is_emul(uio->devnode_name))
        return libuio_emul_mmap(uio, nop_mask);

    int mapped = 0;
    for (unsigned int i = 0; i < uio->map_count; ++i) {
        libuio_map_t &map = uio->map[i];
        if (map.addr || libuio_is_masked(map, nop_mask))
            continue;
        if (uio->uio_fd < 0) {
            LIBUIO_ERR("UIO-fd closed");
            return -static_cast<int>(map.index);
        }
        void *addr = ::mmap(nullptr, map.size, PROT_READ | PROT_WRITE, MAP_SHARED, uio->uio_fd,
                            off_t{map.index} * page_size);
        if (addr == MAP_FAILED) {
            LIBUIO_ERR("mmap(%ld, (%u*%ld)) failed: %s", static_cast<long>(map.size), map.index,
                       page_size, error_text());
            return -static_cast<int>(map.index);
        }
        map.addr = addr;
        ++mapped;
    }
    return mapped;
}

void libuio_munmap(libuio_dev_t *uio, uint64_t nop_mask)
{
    if (!uio) {
        errno = EINVAL;
        return;
    }
    for (unsigned int i = 0; i < uio->map_count; ++i) {
        libuio_map_t &map = uio->map[i];
        if (!map.addr || libuio_is_masked(map, nop_mask))
            continue;
        if (::munmap(map.addr, map.size) != 0)
            LIBUIO_DEBUG("munmap(%p, %#lx) failed: %s", map.addr,
                         static_cast<unsigned long>(map.size), error_text());
        map.addr = nullptr;
    }
}

void *libuio_get_mapinfo(const libuio_dev_t *uio, unsigned int index, size_t *size)
{
    if (!uio)
        return invalid_pointer();
    for (unsigned int i = 0; i < uio->map_count; ++i) {
        const libuio_map_t &map = uio->map[i];
        if (map.index == index) {
            if (size)
                *size = map.size;
            return map.addr;
        }
    }
    LIBUIO_DEBUG("map[%u] not found", index);
    return nullptr;
}

unsigned int libuio_get_map_limit(const libuio_dev_t *uio)
{
    if (!uio) {
        errno = EINVAL;
        return 0;
    }
    return uio->map_count ? uio->map_index_max + 1 : 0;
}

int libuio_irqcontrol(libuio_dev_t *uio, int32_t flag)
{
    if (!uio)
        return invalid_number();
    const ssize_t length = ::pwrite(uio->uio_fd, &flag, sizeof flag, 0);
    const unsigned long shown = static_cast<uint32_t>(flag);
    if (length < 0) {
        LIBUIO_ERR("pwrite(%d, %#lx, 0) failed: %s", uio->uio_fd, shown, error_text());
        return -1;
    }
    if (length != sizeof flag) {
        LIBUIO_ERR("pwrite(%d, %#lx, 0) partial %ld", uio->uio_fd, shown,
                   static_cast<long>(length));
        errno = EIO;
        return -1;
    }
    return 0;
}

int libuio_irqwait(libuio_dev_t *uio, const struct timespec *abs_timeout, uint32_t *event_count)
{
    if (!uio)
        return invalid_number();
    if (uio->uio_fd < 0) {
        errno = EBADF;
        return -1;
    }
    if (uio->tmr_fd < 0) {
        LIBUIO_ERR("Corrupted tmr_fd: %d\n", uio->tmr_fd);
        return invalid_number();
    }

    pollfd set[3];
    nfds_t count = 0;
    const pollfd *const node = &set[count];
    set[count++] = {uio->uio_fd, POLLIN, 0};
    const pollfd *gone = nullptr;
    if (uio->gone_fd > 0) {
        gone = &set[count];
        set[count++] = {uio->gone_fd, POLLIN, 0};
    }
    const pollfd *timer = nullptr;
    if (abs_timeout) {
        itimerspec deadline = {{0, 0}, *abs_timeout};
        // An expiry of zero would disarm the timer instead.
        if (deadline.it_value.tv_sec == 0 && deadline.it_value.tv_nsec == 0)
            deadline.it_value.tv_nsec = 1;
        if (::timerfd_settime(uio->tmr_fd, TFD_TIMER_ABSTIME, &deadline, nullptr) != 0) {
            LIBUIO_ERR("timerfd_settime %llu,%llu failed: %s",
                       static_cast<unsigned long long>(abs_timeout->tv_sec),
                       static_cast<unsigned long long>(abs_timeout->tv_nsec), error_text());
            return -1;
        }
        timer = &set[count];
        set[count++] = {uio->tmr_fd, POLLIN, 0};
    }

    if (::poll(set, count, -1) <= 0) {
        LIBUIO_ERR("poll(,%d,-1) failed: %s", static_cast<int>(count), error_text());
        return -1;
    }
    if (gone && gone->revents) {
        libuio_shut(*uio);
        LIBUIO_DEBUG("uio_maps removed");
        errno = ECANCELED;
        return -1;
    }
    if (node->revents) {
        if (!event_count)
            return 0;
        const ssize_t length = ::pread(uio->uio_fd, event_count, sizeof *event_count, 0);
        return length == sizeof *event_count ? 0 : -1;
    }
    if (timer && timer->revents) {
        LIBUIO_DEBUG("poll() fires timer-fd (%d)", uio->tmr_fd);
        errno = ETIMEDOUT;
        return -1;
    }
    LIBUIO_ERR("poll(,%d,-1) failed: %s", static_cast<int>(count), error_text());
    errno = EIO;
    return -1;
}

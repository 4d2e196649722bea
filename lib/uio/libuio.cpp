// UIO devices: opened by the name of their node, mapped, waited for.
#include <device_access/libuio.h>

#include <device_access/libuio_emul.h>

#include "lib/base/errno_guard.h"
#include "lib/base/errors.h"
#include "lib/base/pci_root.h"
#include "lib/base/unique_dir.h"
#include "lib/base/unique_fd.h"
#include "lib/base/unique_malloc.h"
#include "lib/uio/handle.h"
#include "lib/uio/libuio_pr.h"
#include "lib/uio/open_deadline.h"
#include "lib/uio/path.h"

#include <algorithm>
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
    if (errno != ENOENT)
        return REFUSE(LIBUIO_ERR, false, "stat(%s) failed: %s", devnode_name, error_text());
    if (max_wait && max_wait->tv_sec == 0 && max_wait->tv_nsec == 0)
        return false;
    libuio_wait wait(max_wait);
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
    if (::lstat(real_name, &status) != 0)
        return REFUSE(LIBUIO_ERR, nullptr, "lstat(%s) failed: %s", real_name, error_text());
    if (!S_ISCHR(status.st_mode))
        return REFUSE(LIBUIO_ERR, fail(nullptr, EINVAL), "%s: not cdev", real_name);
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
    if (::lstat(device_dir.get(), &status) != 0)
        return REFUSE(LIBUIO_ERR, nullptr, "lstat(%s) failed: %s", device_dir.get(), error_text());
    if (!S_ISREG(status.st_mode))
        return REFUSE(LIBUIO_ERR, fail(nullptr, EINVAL), "lstat(%s) found a non-regular file",
                      device_dir.get());
    *end = '\0';
    LIBUIO_DEBUG("Found %s", device_dir.get());
    return device_dir;
}

bool libuio_fill_map(libuio_map_t &map, const char *maps_dir, const char *name)
{
    libuio_path_t buf;
    const char *path = libuio_concat_path(buf, {maps_dir, "/", name, "/size"});
    unique_fd file(::open(path, O_RDONLY | O_CLOEXEC));
    if (!file)
        return REFUSE(LIBUIO_ERR, false, "open(%s) failed: %s", path, error_text());
    char text[41];
    const ssize_t length = ::pread(file.get(), text, sizeof text - 1, 0);
    if (!has_moved(length))
        return REFUSE(LIBUIO_ERR, false, "pread(%s) failed: %s", path, error_text());
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
        return REFUSE(LIBUIO_ERR, false, "opendir(%s) failed: %s", maps_dir, error_text());
    }
    while (const dirent *entry = ::readdir(dir.get())) {
        if (libuio_extract_map_id(entry->d_name) < 0)
            continue;
        if (uio.map_count == LIBUIO_MAX_MAPS)
            return REFUSE(LIBUIO_ERR, fail(false, ENOMEM), "max-map reached");
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
    if (!node)
        return REFUSE(LIBUIO_ERR, false, "open(%s) failed: %s", uio.devnode_name, error_text());
    unique_fd gone(libuio_open_device_attr(&uio, removal_attr, O_CLOEXEC));
    if (!gone && errno != ENOENT)
        return false;
    // A sysfs attribute must be read once before poll reports its changes.
    char first;
    if (gone && !has_moved(::pread(gone.get(), &first, 1, 0)))
        return REFUSE(LIBUIO_ERR, false, "1st read(%s/%s) failed: %s", uio.sys_device_dir,
                      removal_attr, error_text());
    unique_fd timer(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC));
    if (!timer)
        return REFUSE(LIBUIO_ERR, false, "timerfd_create() failed: %s", error_text());
    uio.tmr_fd = timer.release();
    uio.uio_fd = node.release();
    uio.gone_fd = gone.release();
    LIBUIO_DEBUG("(tmr, uio, chg) = (%d, %d, %d)\n", uio.tmr_fd, uio.uio_fd, uio.gone_fd);
    return true;
}

//--- closing --------------------------------------------------------------------------------------

bool is_in_pci_tree(const libuio_dev_t &uio)
{
    constexpr size_t length = sizeof pci_root - 1;
    return std::strncmp(uio.sys_class_dir, pci_root, length) == 0 &&
           uio.sys_class_dir[length] == '/';
}

//--- waiting --------------------------------------------------------------------------------------

bool arm_timer(int timer, const timespec &deadline)
{
    itimerspec expiry = {{0, 0}, deadline};
    // An expiry of zero would disarm the timer instead.
    if (expiry.it_value.tv_sec == 0 && expiry.it_value.tv_nsec == 0)
        expiry.it_value.tv_nsec = 1;
    return ::timerfd_settime(timer, TFD_TIMER_ABSTIME, &expiry, nullptr) == 0;
}

// What a wait can end with, the most important first.
enum class wait_event { removal, interrupt, deadline, none };

// The descriptors that a wait watches.
struct wait_set {
    wait_set(const libuio_dev_t &uio, bool timed)
    {
        add(uio.uio_fd, wait_event::interrupt);
        if (uio.gone_fd > 0)
            add(uio.gone_fd, wait_event::removal);
        if (timed)
            add(uio.tmr_fd, wait_event::deadline);
    }

    void add(int fd, wait_event event)
    {
        entries[count] = {fd, POLLIN, 0};
        events[count++] = event;
    }

    wait_event first_event() const
    {
        wait_event first = wait_event::none;
        for (nfds_t i = 0; i < count; ++i)
            if (entries[i].revents)
                first = std::min(first, events[i]);
        return first;
    }

    pollfd entries[3];
    wait_event events[3];
    nfds_t count = 0;
};

// Reads the count of interrupts, if it is asked for; unread, the interrupt stays pending.
int take_interrupt(int node, uint32_t *event_count)
{
    if (!event_count)
        return 0;
    return ::pread(node, event_count, sizeof *event_count, 0) == sizeof *event_count ? 0 : -1;
}

} // namespace

libuio_dev_t *libuio_open(const char *devnode_name)
{
    return libuio_open_timed(devnode_name, nullptr);
}

libuio_dev_t *libuio_open_timed(const char *devnode_name, const struct timespec *max_wait)
{
    if (!devnode_name)
        return fail(nullptr, EINVAL);
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

void libuio_close(libuio_dev_t *uio)
{
    if (!uio) {
        errno = EINVAL;
        return;
    }
    if (is_in_pci_tree(*uio) || kind_of(*uio) != uio_kind::node)
        libuio_emul_device_enable(uio, 0);
    libuio_shut(*uio);
    std::free(uio);
}

int libuio_open_device_attr(const libuio_dev_t *uio, const char *attr_name, int flags)
{
    if (!uio || !attr_name)
        return fail(-1, EINVAL);
    if (attr_name[0] == '/')
        return REFUSE(LIBUIO_ERR, fail(-1, EINVAL), "%s: attr-name is not relative\n", attr_name);
    if (!uio->sys_device_dir)
        return REFUSE(LIBUIO_ERR, fail(-1, ENOENT), "sys_device_dir is NULL\n");
    const unique_fd dir(::open(uio->sys_device_dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!dir)
        return REFUSE(LIBUIO_ERR, -1, "open(%s,O_DIRECTORY) failed: %s", uio->sys_device_dir,
                      error_text());
    // The mode counts only with O_CREAT, which must not be without one.
    const int fd = ::openat(dir.get(), attr_name, flags, 0600);
    if (fd < 0 && errno != ENOENT)
        LIBUIO_ERR("openat(%s,%s,%#x) failed: %s", uio->sys_device_dir, attr_name,
                   static_cast<unsigned int>(flags), error_text());
    return fd;
}

int libuio_get_uio_fd(const libuio_dev_t *uio)
{
    return uio ? uio->uio_fd : fail(-1, EINVAL);
}

int libuio_get_removed_fd(const libuio_dev_t *uio)
{
    return uio ? uio->gone_fd : fail(-1, EINVAL);
}

const char *libuio_get_real_devnode(const libuio_dev_t *uio)
{
    return uio ? uio->devnode_name : fail(nullptr, EINVAL);
}

const char *libuio_get_sys_class_dir(const libuio_dev_t *uio)
{
    return uio ? uio->sys_class_dir : fail(nullptr, EINVAL);
}

const char *libuio_get_sys_device_dir(const libuio_dev_t *uio)
{
    return uio ? uio->sys_device_dir : fail(nullptr, EINVAL);
}

int libuio_mmap(libuio_dev_t *uio, uint64_t nop_mask)
{
    const long page_size = ::sysconf(_SC_PAGESIZE);
    if (!uio)
        return fail(-1, EINVAL);
    if (kind_of(*uio) != uio_kind::node)
        return libuio_emul_mmap(uio, nop_mask);

    int mapped = 0;
    for (unsigned int i = 0; i < uio->map_count; ++i) {
        libuio_map_t &map = uio->map[i];
        if (map.addr || libuio_is_masked(map, nop_mask))
            continue;
        if (uio->uio_fd < 0)
            return REFUSE(LIBUIO_ERR, -static_cast<int>(map.index), "UIO-fd closed");
        void *addr = ::mmap(nullptr, map.size, PROT_READ | PROT_WRITE, MAP_SHARED, uio->uio_fd,
                            off_t{map.index} * page_size);
        if (addr == MAP_FAILED)
            return REFUSE(LIBUIO_ERR, -static_cast<int>(map.index),
                          "mmap(%ld, (%u*%ld)) failed: %s", static_cast<long>(map.size), map.index,
                          page_size, error_text());
        map.addr = addr;
        ++mapped;
    }
    return mapped;
}

void *libuio_get_mapinfo(const libuio_dev_t *uio, unsigned int index, size_t *size)
{
    if (!uio)
        return fail(nullptr, EINVAL);
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
    if (!uio)
        return fail(0U, EINVAL);
    return uio->map_count ? uio->map_index_max + 1 : 0;
}

int libuio_irqcontrol(libuio_dev_t *uio, int32_t flag)
{
    if (!uio)
        return fail(-1, EINVAL);
    const ssize_t length = ::pwrite(uio->uio_fd, &flag, sizeof flag, 0);
    const unsigned long shown = static_cast<uint32_t>(flag);
    if (length < 0)
        return REFUSE(LIBUIO_ERR, -1, "pwrite(%d, %#lx, 0) failed: %s", uio->uio_fd, shown,
                      error_text());
    if (length != sizeof flag)
        return REFUSE(LIBUIO_ERR, fail(-1, EIO), "pwrite(%d, %#lx, 0) partial %ld", uio->uio_fd,
                      shown, static_cast<long>(length));
    return 0;
}

int libuio_irqwait(libuio_dev_t *uio, const struct timespec *abs_timeout, uint32_t *event_count)
{
    if (!uio)
        return fail(-1, EINVAL);
    if (uio->uio_fd < 0)
        return fail(-1, EBADF);
    if (uio->tmr_fd < 0)
        return REFUSE(LIBUIO_ERR, fail(-1, EINVAL), "Corrupted tmr_fd: %d\n", uio->tmr_fd);
    if (abs_timeout && !arm_timer(uio->tmr_fd, *abs_timeout))
        return REFUSE(LIBUIO_ERR, -1, "timerfd_settime %llu,%llu failed: %s",
                      static_cast<unsigned long long>(abs_timeout->tv_sec),
                      static_cast<unsigned long long>(abs_timeout->tv_nsec), error_text());
    wait_set set(*uio, abs_timeout != nullptr);
    const int count = static_cast<int>(set.count);
    if (::poll(set.entries, set.count, -1) <= 0)
        return REFUSE(LIBUIO_ERR, -1, "poll(,%d,-1) failed: %s", count, error_text());

    switch (set.first_event()) {
    case wait_event::removal:
        libuio_shut(*uio);
        LIBUIO_DEBUG("uio_maps removed");
        return fail(-1, ECANCELED);
    case wait_event::interrupt:
        return take_interrupt(uio->uio_fd, event_count);
    case wait_event::deadline:
        LIBUIO_DEBUG("poll() fires timer-fd (%d)", uio->tmr_fd);
        return fail(-1, ETIMEDOUT);
    case wait_event::none:
        break;
    }
    return REFUSE(LIBUIO_ERR, fail(-1, EIO), "poll(,%d,-1) failed: %s", count, error_text());
}

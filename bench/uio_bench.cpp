// Opening, mapping and closing a UIO device, whose node is the machine's /dev/zero here, compared
// with the system calls that this is made of, and with those of a program that knows the device
// already.
#include "bench/bench.h"
#include "sim/base/files.h"
#include "sim/program/private_root.h"

#include <device_access/libuio.h>

#include <cstdlib>

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <unistd.h>

namespace bench
{
namespace
{

constexpr char node[] = "/dev/uio0";
constexpr char class_dir[] = "/sys/class/uio/uio0";
constexpr char device_dir[] = "/sys/devices/regblock";
constexpr size_t page = 4096;

void build_device()
{
    chassis_sim::write_file(node, "");
    chassis_sim::bind_mount("/dev/zero", node);
    const std::string dir = class_dir;
    chassis_sim::write_file(dir + "/dev", "1:5\n");
    chassis_sim::write_file(dir + "/maps/map0/size", "0x1000\n");
    chassis_sim::make_symlink(dir + "/device", device_dir);
    chassis_sim::write_file(std::string(device_dir) + "/uevent", "DRIVER=regblock\n");
    chassis_sim::write_file(std::string(device_dir) + "/uio_maps", "maps\n");
}

void library()
{
    libuio_dev_t *const uio = libuio_open(node);
    require(uio && libuio_mmap(uio, 0) == 1, "libuio_open");
    libuio_close(uio);
}

void read_text(const char *path)
{
    char text[41];
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    require(::read(fd, text, sizeof text - 1) > 0, path);
    ::close(fd);
}

void resolve(const char *path)
{
    struct stat status;
    require(::stat(path, &status) == 0, path);
    char *const resolved = ::realpath(path, nullptr);
    require(resolved != nullptr, path);
    require(::lstat(resolved, &status) == 0, path);
    std::free(resolved);
}

void find_maps()
{
    DIR *const dir = ::opendir("/sys/class/uio/uio0/maps");
    require(dir != nullptr, "opendir");
    while (const dirent *entry = ::readdir(dir))
        if (entry->d_name[0] == 'm')
            read_text("/sys/class/uio/uio0/maps/map0/size");
    ::closedir(dir);
}

void map_and_close(int fd)
{
    void *const window = ::mmap(nullptr, page, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    require(window != MAP_FAILED, "mmap");
    ::munmap(window, page);
    ::close(fd);
}

void same_calls()
{
    struct stat status;
    require(::stat(node, &status) == 0, node);
    resolve(node);
    read_text("/sys/class/uio/uio0/dev");
    resolve("/sys/class/uio/uio0/device");
    find_maps();
    const int fd = ::open(node, O_RDWR | O_CLOEXEC);
    const int dir = ::open(device_dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const int gone = ::openat(dir, "uio_maps", O_CLOEXEC);
    ::close(dir);
    char first;
    require(::pread(gone, &first, 1, 0) == 1, "uio_maps");
    const int timer = ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
    map_and_close(fd);
    ::close(gone);
    ::close(timer);
}

void known_device()
{
    const int fd = ::open(node, O_RDWR | O_CLOEXEC);
    read_text("/sys/class/uio/uio0/maps/map0/size");
    map_and_close(fd);
}

} // namespace

void add_uio_rows()
{
    build_device();
    add({.name = "libuio_open, _mmap, _close",
         .library = {"library", [] { return library; }},
         .peers = {{"the same calls, bare", [] { return same_calls; }},
                   {"open, read size, mmap, close", [] { return known_device; }}}});
}

} // namespace bench

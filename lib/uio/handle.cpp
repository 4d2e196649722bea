// A UIO handle's life: made, finished, unmapped, shut.
#include "lib/uio/handle.h"

#include <device_access/libuio_emul.h>

#include "lib/base/errors.h"
#include "lib/uio/libuio_pr.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <sys/mman.h>
#include <unistd.h>

namespace device_access
{
namespace
{

// Closes a descriptor of a handle; 0 is never one of ours.
void close_descriptor(int &fd)
{
    if (fd > 0) {
        ::close(fd);
        fd = -1;
    }
}

// Copies a string of a handle to its tail, and moves the tail past it.
void move_string(const char *&string, char *&tail, size_t size)
{
    string = static_cast<const char *>(std::memcpy(tail, string, size));
    tail += size;
}

} // namespace

uio_kind kind_of(const libuio_dev_t &uio)
{
    if (!libuio_is_emul(uio.devnode_name))
        return uio_kind::node;
    const char *const dir = uio.sys_device_dir;
    return dir && std::strcmp(dir, memory_dir) == 0 ? uio_kind::physical_memory
                                                    : uio_kind::pci_resource;
}

unique_malloc<libuio_dev_t> libuio_new_handle(const char *devnode_name)
{
    constexpr size_t size = sizeof(libuio_dev_t) + LIBUIO_MAX_MAPS * sizeof(libuio_map_t);
    unique_malloc<libuio_dev_t> uio(static_cast<libuio_dev_t *>(std::calloc(1, size)));
    if (!uio)
        return REFUSE(LIBUIO_ERR, fail(nullptr, ENOMEM), "calloc(%ld) failed",
                      static_cast<long>(size));
    uio->uio_fd = uio->gone_fd = -1;
    uio->devnode_name = devnode_name;
    return uio;
}

bool libuio_finish_handle(unique_malloc<libuio_dev_t> &uio)
{
    libuio_dev_t *const final_uio = libuio_adjust_size(uio.get());
    if (!final_uio)
        return false;
    static_cast<void>(uio.release());
    uio.reset(final_uio);
    return true;
}

bool libuio_is_masked(const libuio_map_t &map, uint64_t nop_mask)
{
    return map.index < LIBUIO_MAX_MAPS && (nop_mask >> map.index & 1) != 0;
}

void libuio_shut(libuio_dev_t &uio)
{
    libuio_munmap(&uio, 0);
    close_descriptor(uio.gone_fd);
    close_descriptor(uio.uio_fd);
    close_descriptor(uio.tmr_fd);
}

} // namespace device_access

using namespace device_access;

libuio_dev_t *libuio_adjust_size(libuio_dev_t *uio)
{
    if (!uio)
        return REFUSE(LIBUIO_ERR, nullptr, "uio is NULL");
    const size_t fixed = sizeof(libuio_dev_t) + uio->map_count * sizeof(libuio_map_t);
    const size_t device_dir = std::strlen(uio->sys_device_dir) + 1;
    const size_t class_dir = std::strlen(uio->sys_class_dir) + 1;
    const size_t devnode = std::strlen(uio->devnode_name) + 1;

    void *block = std::realloc(uio, fixed + device_dir + class_dir + devnode);
    if (!block)
        return REFUSE(LIBUIO_ERR, fail(nullptr, ENOMEM), "realloc (%ld+%ld+%ld+%ld) failed",
                      static_cast<long>(fixed), static_cast<long>(device_dir),
                      static_cast<long>(class_dir), static_cast<long>(devnode));
    auto *const moved = static_cast<libuio_dev_t *>(block);
    char *tail = static_cast<char *>(block) + fixed;
    move_string(moved->sys_device_dir, tail, device_dir);
    move_string(moved->sys_class_dir, tail, class_dir);
    move_string(moved->devnode_name, tail, devnode);
    LIBUIO_DEBUG("realloc (%ld+%ld+%ld+%ld) ok", static_cast<long>(fixed),
                 static_cast<long>(device_dir), static_cast<long>(class_dir),
                 static_cast<long>(devnode));
    return moved;
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

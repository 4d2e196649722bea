#include "libuio_handle.h"

#include "libuio_pr.h"

#include <cerrno>

namespace device_access
{

unique_malloc<libuio_dev_t> libuio_new_handle(const char *devnode_name)
{
    constexpr size_t size = sizeof(libuio_dev_t) + LIBUIO_MAX_MAPS * sizeof(libuio_map_t);
    unique_malloc<libuio_dev_t> uio(static_cast<libuio_dev_t *>(std::calloc(1, size)));
    if (!uio) {
        LIBUIO_ERR("calloc(%ld) failed", static_cast<long>(size));
        errno = ENOMEM;
        return nullptr;
    }
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

} // namespace device_access

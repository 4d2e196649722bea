// Maps physical memory.
#include <device_access/mmap_device.h>

#include "lib/base/errors.h"
#include "lib/base/print.h"
#include "lib/base/unique_fd.h"

#include <fcntl.h>
#include <sys/mman.h>

using namespace device_access;

static_assert(sizeof(off_t) == 8, "physical addresses above 4 GiB need 64-bit file offsets");

void *mmap_device_open(uint64_t uio_addr, uint32_t uio_size)
{
    const unique_fd mem(::open("/dev/mem", O_RDWR | O_SYNC));
    if (!mem)
        return REFUSE(print_error, nullptr, "Cannot open Mmap device file /dev/mem ...\n");
    return ::mmap(nullptr, uio_size, PROT_READ | PROT_WRITE, MAP_SHARED, mem.get(),
                  static_cast<off_t>(uio_addr));
}

void mmap_device_close(void *mmap_base_addr, uint32_t uio_size)
{
    if (mmap_base_addr)
        ::munmap(mmap_base_addr, uio_size);
}

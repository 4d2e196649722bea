// A small client in C++, built against the installed package.
#include <device_access/libuio.h>
#include <device_access/regiomap_x86.h>

#include <cstdio>
#include <memory>

int main()
{
    struct closer {
        void operator()(libuio_dev_t *uio) const { libuio_close(uio); }
    };
    const std::unique_ptr<libuio_dev_t, closer> uio(libuio_open("/dev/uio0"));
    if (!uio)
        return 1;
    const int windows = libuio_mmap(uio.get(), ~std::uint64_t{1});
    void *window = libuio_get_mapinfo(uio.get(), 0, nullptr);
    iowrite32(0x1234, window);
    std::printf("%d window, register 0x%x\n", windows, ioread32(window));
}

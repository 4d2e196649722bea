#include "sim/chassis.h"
#include "support/captured_output.h"

#include <device_access/libuio.h>
#include <device_access/regiomap_x86.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <ctime>

namespace
{

timespec in_ms(long ms)
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    now.tv_nsec += ms * 1000000;
    now.tv_sec += now.tv_nsec / 1000000000;
    now.tv_nsec %= 1000000000;
    return now;
}

TEST(libuio, life)
{
    chassis_sim::enter_private_root();
    chassis_sim::device_server devices;
    chassis_sim::uio_description d;
    d.irq_delay_ms = 20;
    chassis_sim::add_uio(devices, d);
    devices.start();
    libuio_dev_t *uio = libuio_open("/dev/uio0");
    ASSERT_NE(uio, nullptr) << strerror(errno);
    EXPECT_EQ(libuio_mmap(uio, 0), 1);
    void *p = libuio_get_mapinfo(uio, 0, nullptr);
    iowrite32(0x1234, p);
    EXPECT_EQ(ioread32(p), 0x1234u);
    EXPECT_EQ(libuio_irqcontrol(uio, 1), 0);
    timespec t = in_ms(1000);
    uint32_t n = 0;
    EXPECT_EQ(libuio_irqwait(uio, &t, &n), 0) << strerror(errno);
    EXPECT_EQ(n, 1u);
    t = in_ms(30);
    EXPECT_EQ(libuio_irqwait(uio, &t, &n), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    chassis_sim::control("remove uio0");
    EXPECT_EQ(libuio_irqwait(uio, nullptr, &n), -1);
    EXPECT_EQ(errno, ECANCELED);
    libuio_close(uio);
}

} // namespace

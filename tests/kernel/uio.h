// What the UIO sections share.
#pragma once

#include "check.h"
#include "guest.h"

#include <device_access/libuio.h>

#include <cstdint>
#include <memory>

namespace guest
{

struct closing_uio {
    void operator()(libuio_dev_t *uio) const { libuio_close(uio); }
};
using uio_handle = std::unique_ptr<libuio_dev_t, closing_uio>;

constexpr timespec no_wait = {0, 0};
constexpr timespec long_wait = {10, 0};
constexpr long long_ms = 10000;
constexpr long past_ms = -1000;

// A wait with a deadline that many milliseconds from now.
inline outcome wait_ms(const uio_handle &uio, long ms, uint32_t *count)
{
    const timespec deadline = in_ms(ms);
    return outcome_of([&] { return libuio_irqwait(uio.get(), &deadline, count); });
}

inline outcome irq_control(const uio_handle &uio, int32_t flag)
{
    return outcome_of([&] { return libuio_irqcontrol(uio.get(), flag); });
}

inline char *window_of(const uio_handle &uio, unsigned int map)
{
    return static_cast<char *>(libuio_get_mapinfo(uio.get(), map, nullptr));
}

} // namespace guest

// For the test programs of libuio.
#pragma once

#include "support/sweep.h"
#include "support/test.h"

#include <device_access/libuio.h>

namespace test
{

constexpr timespec no_wait = {0, 0};

inline libuio_dev_t *open_now(const char *name)
{
    return libuio_open_timed(name, &no_wait);
}

// An open device. Its debug lines are not shown.
inline libuio_dev_t *opened(const std::string &name, const timespec *max_wait = &no_wait)
{
    libuio_dev_t *uio = nullptr;
    const auto open = [&] { return uio = libuio_open_timed(name.c_str(), max_wait); };
    const outcome seen = outcome_of(open);
    EXPECT_NE(uio, nullptr) << name << ": " << seen;
    return uio;
}

} // namespace test

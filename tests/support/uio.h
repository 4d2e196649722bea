// For the test programs of libuio.
#pragma once

#include "support/sweep.h"
#include "support/test.h"

#include <device_access/libuio_emul.h>
#include <device_access/regiomap_x86.h>

#include <filesystem>
#include <memory>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

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

struct closes {
    void operator()(libuio_dev_t *uio) const { libuio_close(uio); }
};
inline std::unique_ptr<libuio_dev_t, closes> held(const std::string &name,
                                                  const timespec *max_wait = &no_wait)
{
    return std::unique_ptr<libuio_dev_t, closes>(opened(name, max_wait));
}

// A handle's maps in the order of their numbers, "NUMBER=BAR:OFFSET+SIZE" in hexadecimal each, with
// a '*' when it is mapped.
inline std::string maps_text(const libuio_dev_t *uio)
{
    std::string text;
    for (unsigned int i = 0; i < libuio_get_map_limit(uio); ++i)
        for (unsigned int record = 0; record < uio->map_count; ++record)
            if (const libuio_map_t &map = uio->map[record]; map.index == i)
                text += printed("%x=%x:%x+%zx%s ", i, map.bar, map.offset, map.size,
                                map.addr ? "*" : "");
    return text;
}

// Lines of libuio, as outcomes have them.
inline std::string err(const std::string &text)
{
    return "LOG_ERR libuio_" + text + "\n";
}
inline std::string debug(const std::string &text)
{
    return "LOG_DEBUG libuio_" + text + "\n";
}

} // namespace test

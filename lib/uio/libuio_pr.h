// One diagnostic line of the libuio units, with the place it comes from.
#pragma once

#include <device_access/libuio.h>

#define LIBUIO_ERR(...) libuio_pr(3, "LOG_ERR", __LINE__, __func__, __VA_ARGS__)
#define LIBUIO_INFO(...) libuio_pr(6, "LOG_INFO", __LINE__, __func__, __VA_ARGS__)
#define LIBUIO_DEBUG(...) libuio_pr(7, "LOG_DEBUG", __LINE__, __func__, __VA_ARGS__)

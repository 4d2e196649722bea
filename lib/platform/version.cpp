// The version of the library that is running.
#include <device_access/device_access_version.h>

const char *device_access_version(void)
{
    return DEVICE_ACCESS_VERSION;
}

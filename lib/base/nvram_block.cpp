// NVRAM blocks of the kernel class "zmt_nvram": found, described and opened.
#include "lib/base/nvram_block.h"

#include "lib/base/errors.h"
#include "lib/base/print.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace device_access
{
namespace
{

constexpr int block_limit = 20;
constexpr size_t text_size = 30;

} // namespace

nvram_attr_path::nvram_attr_path(int n, const char *attr)
{
    std::snprintf(str, sizeof str, "/sys/class/zmt_nvram/nvram%d/%s", n, attr);
}

bool read_nvram_attr(const nvram_attr_path &path, char *text, size_t size)
{
    text[0] = '\0';
    const unique_fd file(::open(path.str, O_RDONLY | O_CLOEXEC));
    if (!file)
        return false;
    const ssize_t length = ::read(file.get(), text, size);
    text[length > 0 ? length - 1 : 0] = '\0';
    return true;
}

nvram_search find_nvram_block(const char *name)
{
    for (int n = 0; n < block_limit; ++n) {
        char text[text_size];
        if (!read_nvram_attr({n, "name"}, text, sizeof text))
            return {-1, n};
        if (std::strcmp(text, name) == 0)
            return {n, -1};
    }
    return {-1, -1};
}

bool read_nvram_device_number(int n, dev_t &number)
{
    char text[text_size];
    int major;
    int minor;
    if (!read_nvram_attr({n, "dev"}, text, sizeof text) ||
        std::sscanf(text, "%d:%d", &major, &minor) != 2)
        return false;
    number = makedev(static_cast<unsigned int>(major), static_cast<unsigned int>(minor));
    return true;
}

bool make_nvram_node(const char *node, dev_t number)
{
    if (::mknod(node, S_IFCHR | 0600, number) == 0 || errno == EEXIST)
        return true;
    return REFUSE(print_error, false, "mknod(%s) failed: %s\n", node, error_text());
}

unique_fd open_nvram_exclusively(const char *node, int access_mode, int attempts)
{
    unique_fd opened;
    for (int i = 0; i < attempts && !opened; ++i) {
        opened.reset(::open(node, access_mode | O_EXCL | O_CLOEXEC));
        if (!opened)
            ::usleep(static_cast<useconds_t>(500 + std::rand() % 1000));
    }
    return opened;
}

} // namespace device_access

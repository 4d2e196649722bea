// Device nodes for root, and what stands for them where they cannot be made.
#include "sim/parts/nodes.h"

#include "sim/base/files.h"

#include <iterator>

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace chassis_sim
{
namespace
{

constexpr unsigned int own_major = 243; // of the kernel's range for local use
const char *const stand_ins[] = {"/dev/null", "/dev/zero", "/dev/full", "/dev/urandom"};

// The memory device with this number.
std::string stand_in(const device_number &number)
{
    for (const char *path : stand_ins) {
        struct stat status;
        if (::stat(path, &status) == 0 && status.st_rdev == ::makedev(number.major, number.minor))
            return path;
    }
    return "/dev/null";
}

} // namespace

bool may_make_nodes()
{
    static const bool may = [] {
        const char probe[] = "/dev/.probe";
        const bool made = ::mknod(probe, S_IFCHR | 0600, ::makedev(own_major, 0)) == 0;
        ::unlink(probe);
        return made;
    }();
    return may;
}

device_number simulated_device_number(unsigned int index)
{
    if (may_make_nodes())
        return {own_major, index};
    struct stat status;
    const char *host = stand_ins[index % std::size(stand_ins)];
    must(::stat(host, &status), host);
    return {::major(status.st_rdev), ::minor(status.st_rdev)};
}

void make_node(const std::string &path, const device_number &number)
{
    if (may_make_nodes()) {
        must(::mknod(path.c_str(), S_IFCHR | 0600, ::makedev(number.major, number.minor)),
             "mknod " + path);
    } else {
        write_file(path, "");
        bind_mount(stand_in(number), path);
    }
}

} // namespace chassis_sim

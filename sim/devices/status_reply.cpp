// The kernel's layouts of a file's status.
#include "sim/devices/status_reply.h"

#include <cerrno>

#include <fcntl.h>
#include <linux/audit.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace chassis_sim
{
namespace
{

struct status_64 {
    uint64_t dev, ino, nlink;
    uint32_t mode, uid, gid, pad;
    uint64_t rdev;
    int64_t size, blksize, blocks;
    uint64_t atime, atime_ns, mtime, mtime_ns, ctime, ctime_ns;
    int64_t unused[3];
};
static_assert(sizeof(status_64) == 144);

struct [[gnu::packed]] status_32 {
    uint64_t dev;
    uint32_t pad0, short_ino, mode, nlink, uid, gid;
    uint64_t rdev;
    uint32_t pad1;
    int64_t size;
    uint32_t blksize;
    uint64_t blocks;
    uint32_t atime, atime_ns, mtime, mtime_ns, ctime, ctime_ns;
    uint64_t ino;
};
static_assert(sizeof(status_32) == 96);

// A node that has gone has left its kind, at least.
struct statx status_of(const std::string &node)
{
    struct statx status = {};
    if (::statx(AT_FDCWD, node.c_str(), 0, STATX_BASIC_STATS, &status) != 0) {
        status.stx_mode = 0600;
        status.stx_mask = STATX_TYPE | STATX_MODE;
    }
    status.stx_mode = static_cast<uint16_t>((status.stx_mode & ~S_IFMT) | S_IFCHR);
    return status;
}

template <typename Layout>
Layout laid_out(const struct statx &from)
{
    Layout to = {};
    to.dev = ::makedev(from.stx_dev_major, from.stx_dev_minor);
    to.ino = from.stx_ino;
    to.nlink = static_cast<decltype(to.nlink)>(from.stx_nlink);
    to.mode = from.stx_mode;
    to.uid = from.stx_uid;
    to.gid = from.stx_gid;
    to.rdev = ::makedev(from.stx_rdev_major, from.stx_rdev_minor);
    to.blksize = static_cast<decltype(to.blksize)>(from.stx_blksize);
    to.atime = static_cast<decltype(to.atime)>(from.stx_atime.tv_sec);
    to.mtime = static_cast<decltype(to.mtime)>(from.stx_mtime.tv_sec);
    to.ctime = static_cast<decltype(to.ctime)>(from.stx_ctime.tv_sec);
    return to;
}

template <typename Data>
void reply(const asked_call &call, uint64_t address, const Data &data)
{
    call.result(call.process().write(address, &data, sizeof data) ? 0 : -EFAULT);
}

} // namespace

void reply_status(const asked_call &call, uint64_t address, const std::string &node)
{
    const struct statx status = status_of(node);
    if (call.data().arch == AUDIT_ARCH_I386) {
        auto made = laid_out<status_32>(status);
        made.short_ino = static_cast<uint32_t>(status.stx_ino);
        reply(call, address, made);
    } else {
        reply(call, address, laid_out<status_64>(status));
    }
}

void reply_extended_status(const asked_call &call, uint64_t address, const std::string &node)
{
    reply(call, address, status_of(node));
}

} // namespace chassis_sim

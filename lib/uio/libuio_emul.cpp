// UIO devices made of PCI resources, for FPGAs that have no UIO driver.
#include <device_access/libuio_emul.h>

#include <device_access/regiomap_x86.h>

#include "lib/base/errors.h"
#include "lib/base/pci_root.h"
#include "lib/base/unique_dir.h"
#include "lib/base/unique_fd.h"
#include "lib/base/unique_malloc.h"
#include "lib/uio/fpga_tables.h"
#include "lib/uio/handle.h"
#include "lib/uio/libuio_pr.h"
#include "lib/uio/open_deadline.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <strings.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

using namespace device_access;

namespace
{

constexpr char name_prefix[] = "sysfs_pci:";
constexpr size_t prefix_length = sizeof name_prefix - 1;

bool begins_with(const char *text, const char *prefix)
{
    return std::strncmp(text, prefix, std::strlen(prefix)) == 0;
}

struct device_path {
    char str[256];
};

// A path that does not fit is left cut; the result is then false with ENAMETOOLONG.
[[gnu::format(printf, 2, 3)]] bool make_path(device_path &path, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    const int length = std::vsnprintf(path.str, sizeof path.str, fmt, args);
    va_end(args);
    if (length < static_cast<int>(sizeof path.str))
        return true;
    return fail(false, ENAMETOOLONG);
}

//--- names ----------------------------------------------------------------------------------------

using name_token = char[21];

struct uio_info_t {
    name_token slot_name;
    name_token fpga_name; // empty when unknown
    name_token region_name;
};

// Moves text past its next token and copies what of it has room in the zero-filled token. White
// space ends the tokens.
void libuio_str_token(const char *&text, name_token &token)
{
    text += std::strspn(text, ".");
    const size_t length = std::strcspn(text, ". \t\n\v\f\r");
    std::memcpy(token, text, std::min(length, sizeof token - 1));
    text += length;
}

// What a name lacks stays empty, and is then not found.
uio_info_t devnode_name_parse(const char *name)
{
    uio_info_t info = {};
    if (!libuio_is_emul(name))
        return info;
    const char *word = name + prefix_length;
    word += std::strspn(word, " \t\n\v\f\r");
    libuio_str_token(word, info.region_name);
    libuio_str_token(word, info.slot_name);
    libuio_str_token(word, info.fpga_name);
    return info;
}

//--- slots and their FPGAs ------------------------------------------------------------------------

struct pci_address {
    char str[13];
};

// The hot-swap port that serves a slot.
bool pci_sysfs_rsrc_get_byname(const char *slot_name, pci_address &port)
{
    device_path path;
    ssize_t length = -1;
    if (make_path(path, "/dev/dynattr/rpsw/hotswap/byname/%s", slot_name))
        length =
            ::getxattr(path.str, "user.com.velmora.zmt.attr_value", port.str, sizeof port.str - 1);
    if (length < 0)
        return fail(false, ENODEV);
    port.str[length] = '\0';
    return true;
}

bool is_peer_rpsw(const uio_info_t &info)
{
    pci_address named;
    pci_address peer;
    return std::strstr(info.slot_name, "rpsw") &&
           pci_sysfs_rsrc_get_byname(info.slot_name, named) &&
           pci_sysfs_rsrc_get_byname("peer", peer) && std::strcmp(named.str, peer.str) == 0;
}

bool is_in_slot(const uio_info_t &info, const char *slot_prefix)
{
    return ::strncasecmp(info.slot_name, slot_prefix, std::strlen(slot_prefix)) == 0;
}

swfpga_type get_fpga_type(const uio_info_t &info)
{
    swfpga_type type = SWFPGA_UNKNOWN;
    for (const fpga_type_row &row : fpga_type_table) {
        if (is_in_slot(info, row.slot_prefix) && ::strcasecmp(info.fpga_name, row.fpga_name) == 0) {
            type = row.type;
            break;
        }
    }
    if (type == SWFPGA_LOCAL_ZARNIK && is_peer_rpsw(info))
        return SWFPGA_REMOTE_ZARNIK;
    if (type == SWFPGA_LOCAL_ZARNIK2 && is_peer_rpsw(info))
        return SWFPGA_REMOTE_ZARNIK2;
    return type;
}

//--- devices --------------------------------------------------------------------------------------

// The device behind a port: the alphabetically first that its directory shows. The port's own
// services, whose names begin with its address, are no devices.
bool find_device_behind(const pci_address &port, device_path &device_dir)
{
    device_path port_dir;
    if (!make_path(port_dir, "%s/%s", pci_root, port.str))
        return false;
    const unique_dir dir(::opendir(port_dir.str));
    if (!dir)
        return false;
    char first[sizeof(dirent::d_name)] = "";
    while (const dirent *entry = ::readdir(dir.get())) {
        if (entry->d_type != DT_DIR || begins_with(entry->d_name, port.str) ||
            !begins_with(entry->d_name, "0000:"))
            continue;
        if (!first[0] || std::strcoll(entry->d_name, first) < 0)
            std::strcpy(first, entry->d_name);
    }
    return first[0] && make_path(device_dir, "%s/%s", port_dir.str, first);
}

// The directory whose files are the device's resources.
bool pci_sysfs_rsrc_get_device_dir(const uio_info_t &info, device_path &dir)
{
    switch (get_fpga_type(info)) {
    case SWFPGA_RP_PELLUM:
        return make_path(dir, "%s", memory_dir);
    case SWFPGA_RP_PELLUM2:
        return make_path(dir, "%s/0000:0d:00.0", pci_root);
    default:
        pci_address port;
        return pci_sysfs_rsrc_get_byname(info.slot_name, port) && find_device_behind(port, dir);
    }
}

// Waits until the device is there.
bool libuio_emul_check(const uio_info_t &info, const timespec *max_wait)
{
    libuio_wait wait(max_wait);
    device_path dir;
    do {
        if (pci_sysfs_rsrc_get_device_dir(info, dir))
            return true;
    } while (wait.pause());
    return false;
}

//--- resources ------------------------------------------------------------------------------------

// How many bytes of a file lie after offset. Only regular files have a known end.
uint64_t bytes_from(const struct stat &status, uint64_t offset)
{
    if (!S_ISREG(status.st_mode))
        return UINT64_MAX;
    const uint64_t size = static_cast<uint64_t>(status.st_size);
    return offset < size ? size - offset : 0;
}

void *map_file(const unique_fd &file, uint64_t length, uint64_t offset)
{
    const size_t mapped = static_cast<size_t>(length);
    if (mapped != length)
        return fail(nullptr, ENOMEM);
    void *addr = ::mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(),
                        static_cast<off_t>(offset));
    return addr == MAP_FAILED ? nullptr : addr;
}

// Maps a range of a device's resource; the length that it turned out to have goes to rlength.
void *pci_sysfs_rsrc_mmap_uio(const libuio_dev_t &uio, const libuio_map_t &map, size_t &rlength)
{
    device_path path;
    if (kind_of(uio) == uio_kind::physical_memory)
        make_path(path, "%smem", memory_dir);
    else if (!make_path(path, "%s/resource%d", uio.sys_device_dir, static_cast<int>(map.bar)))
        return nullptr;
    const unique_fd file(::open(path.str, O_RDWR | O_CLOEXEC));
    struct stat status;
    if (!file || ::fstat(file.get(), &status) != 0)
        return nullptr;

    uint64_t length = map.size;
    if (S_ISREG(status.st_mode) && length == swfpga::whole)
        length = static_cast<uint64_t>(status.st_size);
    const uint64_t page_size = static_cast<uint64_t>(::sysconf(_SC_PAGESIZE));
    if (bytes_from(status, map.offset) < length || map.offset % page_size != 0 ||
        length % page_size != 0)
        return fail(nullptr, EINVAL);

    void *addr = map_file(file, length, map.offset);
    // A resource that has shrunk since is mapped as far as it goes.
    if (!addr && ::fstat(file.get(), &status) == 0 && bytes_from(status, map.offset) < length) {
        length = bytes_from(status, map.offset);
        addr = map_file(file, length, map.offset);
    }
    if (addr)
        rlength = static_cast<size_t>(length);
    return addr;
}

// Asks the FPGA in the slot what it is.
void get_fpga_name(const libuio_dev_t &uio, uio_info_t &info)
{
    constexpr size_t identification_register = 0x28;
    const libuio_map_t page = {nullptr, 4096, 0, 0, 0};
    size_t length;
    void *registers = pci_sysfs_rsrc_mmap_uio(uio, page, length);
    if (!registers) {
        LIBUIO_ERR("mmap(%p, %#lx) failed", registers, static_cast<unsigned long>(page.size));
        return;
    }
    const uint32_t identification =
        ioread32(static_cast<const char *>(registers) + identification_register);
    if (::munmap(registers, length) != 0)
        LIBUIO_ERR("munmap(%p, %#lx) failed: %s", registers, static_cast<unsigned long>(length),
                   error_text());
    const uint32_t code = identification >> 16 & 0xff;
    for (const fpga_name_row &row : fpga_name_table) {
        if (row.code == code && is_in_slot(info, row.slot_prefix)) {
            std::strcpy(info.fpga_name, row.fpga_name);
            return;
        }
    }
}

//--- register blocks ------------------------------------------------------------------------------

// Fills the maps of a register block; false when an FPGA of this type has none of this name.
bool libuio_emul_find_maps(libuio_dev_t &uio, swfpga_type type, const char *region_name)
{
    constexpr char prefix[] = "uio_"; // of every block's name
    if (::strncasecmp(region_name, prefix, sizeof prefix - 1) != 0)
        return false;
    const char *block = region_name + sizeof prefix - 1;
    for (const swfpga::map_row &row : swfpga::map_table) {
        if (!row.belongs_to(type) || ::strcasecmp(row.block, block) != 0)
            continue;
        libuio_map_t &map = uio.map[uio.map_count];
        map.index = uio.map_count++;
        map.bar = row.bar;
        map.offset = static_cast<unsigned int>(row.offset());
        map.size = row.size();
        uio.map_index_max = map.index;
    }
    return uio.map_count > 0;
}

} // namespace

uint32_t libuio_is_emul(const char *name)
{
    return name && begins_with(name, name_prefix);
}

libuio_dev_t *libuio_emul_open_timed(const char *devnode_name, const struct timespec *max_wait)
{
    if (!devnode_name)
        return fail(nullptr, EINVAL);
    uio_info_t info = devnode_name_parse(devnode_name);
    device_path dir;
    if (!libuio_emul_check(info, max_wait) || !pci_sysfs_rsrc_get_device_dir(info, dir))
        return fail(nullptr, EINVAL);

    unique_malloc<libuio_dev_t> uio = libuio_new_handle(devnode_name);
    if (!uio)
        return nullptr;
    uio->sys_class_dir = uio->sys_device_dir = dir.str;
    if (!info.fpga_name[0])
        get_fpga_name(*uio, info);
    const swfpga_type type = get_fpga_type(info);
    if (!libuio_emul_find_maps(*uio, type, info.region_name))
        return fail(nullptr, EINVAL);
    if (type != SWFPGA_RP_PELLUM && libuio_emul_device_enable(uio.get(), 1) != 0)
        return nullptr;
    if (libuio_finish_handle(uio))
        return uio.release();
    if (type != SWFPGA_RP_PELLUM) {
        const errno_guard keep;
        libuio_emul_device_enable(uio.get(), 0);
    }
    return nullptr;
}

int libuio_emul_mmap(libuio_dev_t *uio, uint64_t nop_mask)
{
    if (!uio)
        return fail(-1, EINVAL);
    int mapped = 0;
    for (unsigned int i = 0; i < uio->map_count; ++i) {
        libuio_map_t &map = uio->map[i];
        if (map.addr || libuio_is_masked(map, nop_mask)) {
            LIBUIO_INFO("skip: m=%d, index=%d, map->addr=%p ", mapped, static_cast<int>(map.index),
                        map.addr);
            continue;
        }
        map.addr = pci_sysfs_rsrc_mmap_uio(*uio, map, map.size);
        if (!map.addr)
            return REFUSE(LIBUIO_ERR, -static_cast<int>(map.index),
                          "mmap(%ld, (%u*%ld)),%x,%d failed : %s", static_cast<long>(map.size),
                          map.index, ::sysconf(_SC_PAGESIZE), map.offset, static_cast<int>(map.bar),
                          error_text());
        ++mapped;
    }
    return mapped;
}

int libuio_emul_device_enable(libuio_dev_t *uio_p, int32_t enable)
{
    if (!uio_p)
        return fail(-1, EINVAL);
    device_path path;
    unique_fd file;
    if (make_path(path, "%s/%s", uio_p->sys_device_dir, "enable"))
        file.reset(::open(path.str, O_WRONLY | O_CLOEXEC));
    if (!file)
        return REFUSE(LIBUIO_ERR, -1, "Failed to open %s (errno=%d)", path.str, errno);
    if (!has_moved(::write(file.get(), enable ? "1" : "0", 1)))
        return REFUSE(LIBUIO_ERR, -1, "Failed to write to %s (errno=%d)", path.str, errno);
    return 0;
}

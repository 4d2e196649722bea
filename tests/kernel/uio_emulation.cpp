// UIO emulation on the resource files of real PCI functions: the virtual machine's display, whose
// BAR 0 is memory and so can be any FPGA, and edu. Their ports are in the hot-swap name service as
// the slots "alsw1" and "rpsw".
#include "pci.h"
#include "uio.h"

#include <device_access/regiomap_x86.h>

#include <cerrno>
#include <cstring>

#include <sys/stat.h>
#include <sys/xattr.h>

namespace guest
{
namespace
{

constexpr size_t page = 4096;

const std::string fpga_dir = std::string("/sys/bus/pci/devices/") + fpga_port + "/" + fpga;
const std::string edu_dir = std::string("/sys/bus/pci/devices/") + port_of_device + "/" + edu;

void name_slot(const std::string &slot, const std::string &address)
{
    const std::string file = "/dev/dynattr/rpsw/hotswap/byname/" + slot;
    write_text(file, "");
    if (::setxattr(file.c_str(), "user.com.velmora.zmt.attr_value", address.data(), address.size(),
                   0) != 0)
        check("emulation: the name of slot " + slot, false, std::strerror(errno));
}

void make_hotswap_names()
{
    std::string dir = "/dev/dynattr";
    for (const char *part : {"/rpsw", "/hotswap", "/byname"})
        ::mkdir((dir += part).c_str(), 0755);
    name_slot("alsw1", fpga_port);
    name_slot("rpsw", port_of_device);
    name_slot("peer", empty_port);
}

uint32_t mark_of(size_t page_number)
{
    return 0x46500000 + static_cast<uint32_t>(page_number);
}

// Makes the display's memory an FPGA that identifies itself by the code; each page begins with its
// own mark.
void make_fpga(uint32_t code)
{
    const mapped_bars bars(fpga);
    for (size_t number = 0; number < 64; ++number)
        iowrite32(mark_of(number), bars[0] + number * page);
    iowrite32(0xab0000cd | code << 16, bars[0] + 0x28);
}

uio_handle open_block(const std::string &name)
{
    return uio_handle(libuio_open_timed(("sysfs_pci:" + name).c_str(), &no_wait));
}

// The marks of all pages of all maps.
std::string marks(const uio_handle &uio)
{
    std::string text;
    for (unsigned int map = 0; map < libuio_get_map_limit(uio.get()); ++map) {
        size_t size = 0;
        char *window = static_cast<char *>(libuio_get_mapinfo(uio.get(), map, &size));
        text += "|";
        for (size_t offset = 0; window && offset < size; offset += page)
            text.append(" ").append(text_of(ioread32(window + offset) - mark_of(0)));
    }
    return text;
}

std::string marks_of_pages(std::initializer_list<std::initializer_list<long long>> maps)
{
    std::string text;
    for (const auto &map : maps) {
        text += "|";
        for (const long long number : map)
            text.append(" ").append(text_of(number));
    }
    return text;
}

void check_identified()
{
    make_fpga(0x12);
    const uio_handle uio = open_block("uio_cma.alsw1");
    check("emulation: a block of an FPGA that was asked what it is", uio != nullptr,
          std::strerror(errno));
    check_equal("emulation: its directory", libuio_get_sys_device_dir(uio.get()), fpga_dir);
    check_equal("emulation: the device is enabled", read_text(fpga_dir + "/enable"), "1\n");
    check_equal("emulation: maps", libuio_mmap(uio.get(), 0), 4);
    check_equal("emulation: each shows its pages of the resource", marks(uio),
                marks_of_pages({{4, 5}, {2}, {0xb}, {0xc, 0xd}}));
    check_equal("emulation: no interrupts", wait_ms(uio, past_ms, nullptr), {-1, EBADF});
}

void check_named()
{
    const uio_handle uio = open_block("uio_pci.alsw1.vostrat");
    check_equal("emulation: maps of a block of a named FPGA", libuio_mmap(uio.get(), 1), 3);
    check_equal("emulation: they show their pages", marks(uio),
                marks_of_pages({{}, {0x10, 0x11, 0x12, 0x13, 0x14}, {9}, {7}}));
    size_t size = 0;
    check_equal("emulation: a whole resource", libuio_mmap(uio.get(), 0), 1);
    libuio_get_mapinfo(uio.get(), 0, &size);
    check_equal("emulation: its size", static_cast<long long>(size), page);

    const uio_handle incomplete = open_block("uio_fe.alsw1.vostra");
    check("emulation: a resource that the device has not",
          incomplete && libuio_mmap(incomplete.get(), 0) == 0 && errno == ENOENT,
          std::strerror(errno));
}

void check_disabled()
{
    check_equal("emulation: closing disables the device", read_text(fpga_dir + "/enable"), "0\n");
    // The kernel counts: what is enabled twice takes two closings.
    uio_handle first = open_block("uio_tcm.alsw1");
    uio_handle second = open_block("uio_tcm.alsw1");
    check_equal("emulation: enabled twice", read_text(fpga_dir + "/enable"), "2\n");
    first.reset();
    check_equal("emulation: enabled once", read_text(fpga_dir + "/enable"), "1\n");
    check_equal("emulation: usable", libuio_mmap(second.get(), 0), 1);
    second.reset();
    check_equal("emulation: not enabled", read_text(fpga_dir + "/enable"), "0\n");
}

void check_slots()
{
    check("emulation: no driver may have the device", !open_block("uio_glb.rpsw") && errno == EBUSY,
          std::strerror(errno));
    write_text("/sys/bus/pci/drivers/uio_pci_generic/unbind", edu);
    {
        const uio_handle uio = open_block("uio_glb.rpsw");
        check_equal("emulation: a block of another slot", uio ? libuio_mmap(uio.get(), 0) : -1, 1);
        check_equal("emulation: its register", uio ? ioread32(window_of(uio, 0)) : 0, edu_identity);
        check("emulation: a block of the local card", open_block("uio_cmbhub.rpsw") != nullptr,
              std::strerror(errno));
    }
    name_slot("peer", port_of_device);
    check("emulation: which the other card does not offer",
          !open_block("uio_cmbhub.rpsw") && errno == EINVAL, std::strerror(errno));
    check("emulation: but this one", open_block("uio_glb.rpsw") != nullptr, std::strerror(errno));
    write_text("/sys/bus/pci/drivers/uio_pci_generic/bind", edu);

    name_slot("alsw2", empty_port);
    check("emulation: a slot without card", !open_block("uio_cma.alsw2") && errno == EINVAL,
          std::strerror(errno));
    check("emulation: no such slot", !open_block("uio_cma.alsw3") && errno == EINVAL,
          std::strerror(errno));
}

void check_physical()
{
    const uio_handle uio = open_block("uio_config.self.pellum");
    check_equal("emulation: a block at a physical address", uio ? libuio_mmap(uio.get(), 0) : -1,
                1);
}

} // namespace

void check_uio_emulation()
{
    make_hotswap_names();
    check_identified();
    check_named();
    check_disabled();
    check_slots();
    check_physical();
    check("emulation: nothing stays mapped",
          read_text("/proc/self/maps").find("/resource") == std::string::npos, "");
}

} // namespace guest

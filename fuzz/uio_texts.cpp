// The sysfs texts of a UIO device, whose node is the machine's /dev/zero here.
//
// Input: the texts, separated by the byte 0x1e: the "dev" files of the device's and of another
// class directory, then the sizes of two maps and the name of a third one.
#include "fuzz/support.h"
#include "sim/base/files.h"
#include "sim/program/private_root.h"

#include <device_access/libuio.h>

#include <filesystem>

namespace
{

const std::string class_root = "/sys/class/uio/";
const std::string maps = class_root + "uio0/maps/";
const char *const nodes[] = {"/dev/uio0", "/dev/regblock"};

// The third map's directory exists for one run.
class named_map
{
public:
    explicit named_map(const std::string &name)
    {
        const std::string file_name = name.substr(0, name.find_first_of(std::string("/\0", 2)));
        if (file_name.empty() || file_name.size() > 255 || file_name[0] == '.' ||
            file_name == "map0" || file_name == "map1")
            return;
        directory_ = maps + file_name;
        chassis_sim::write_file(directory_ + "/size", "0x1000\n");
    }
    ~named_map() { std::filesystem::remove_all(directory_); }

private:
    std::string directory_ = maps + "none";
};

void use_device(const char *node)
{
    const timespec no_wait = {0, 0};
    libuio_dev_t *const uio = libuio_open_timed(node, &no_wait);
    if (!uio)
        return;
    for (unsigned int i = 0; i < LIBUIO_MAX_MAPS; ++i) {
        size_t size;
        libuio_get_mapinfo(uio, i, &size);
    }
    fuzz::require(libuio_get_map_limit(uio) <= LIBUIO_MAX_MAPS);
    libuio_mmap(uio, 2);
    libuio_mmap(uio, 0);
    libuio_munmap(uio, 1);
    libuio_close(uio);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    chassis_sim::enter_private_root();
    for (const char *node : nodes) {
        chassis_sim::write_file(node, "");
        chassis_sim::bind_mount("/dev/zero", node);
    }
    chassis_sim::write_file("/sys/devices/regblock/uevent", "DRIVER=regblock\n");
    chassis_sim::write_file("/sys/devices/regblock/uio_maps", "maps\n");
    chassis_sim::make_symlink(class_root + "uio0/device", "/sys/devices/regblock");
    chassis_sim::make_symlink(class_root + "uio17/device", "/sys/devices/regblock");
    chassis_sim::make_directory(maps + "map0");
    chassis_sim::make_directory(maps + "map1");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const auto texts = fuzz::parts({reinterpret_cast<const char *>(data), size}, 5);
    const fuzz::descriptor_check descriptors;
    fuzz::set_contents((class_root + "uio0/dev").c_str(), texts[0]);
    fuzz::set_contents((class_root + "uio17/dev").c_str(), texts[1]);
    fuzz::set_contents((maps + "map0/size").c_str(), texts[2]);
    fuzz::set_contents((maps + "map1/size").c_str(), texts[3]);
    const named_map third(texts[4]);
    for (const char *node : nodes)
        use_device(node);
    return 0;
}

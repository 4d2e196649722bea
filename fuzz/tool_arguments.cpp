// The arguments of devaccess, on a chassis with a few devices. The input is the arguments,
// separated by the byte 0x1e.
#include "fuzz/support.h"
#include "sim/program/chassis.h"
#include "tools/base/settings.h"
#include "tools/cli/dispatch.h"
#include "tools/families.h"

#include <algorithm>

#include <fcntl.h>
#include <unistd.h>

// No module is loaded.
extern "C" int system(const char *)
{
    return 0;
}

namespace
{

// Files that the tool is told to use are those of the chassis, not the machine's.
bool is_harmless(const std::string &argument)
{
    const size_t slash = argument.find('/');
    if (argument.find("..") != argument.npos)
        return false;
    const auto is_below = [&](const char *directory) {
        return argument.compare(slash, std::string(directory).size(), directory) == 0;
    };
    return slash == argument.npos || is_below("/dev/") || is_below("/flash/") || is_below("/var/");
}

// Following a log has no end, and what a traced command does is not known.
bool ends(const std::string &argument)
{
    return argument.rfind("--follow", 0) != 0 && argument != "trace";
}

// Relative names are the chassis's too; the fuzzer goes on where it was.
class working_directory
{
public:
    working_directory() { fuzz::require(::chdir("/flash") == 0); }
    ~working_directory()
    {
        fuzz::require(::fchdir(before_) == 0);
        ::close(before_);
    }
    working_directory(const working_directory &) = delete;
    working_directory &operator=(const working_directory &) = delete;

private:
    int before_ = ::open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
};

void run(std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), "devaccess");
    std::vector<char *> argv;
    for (std::string &argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    devaccess::settings = {};
    const working_directory flash;
    const int status = devaccess::run_program(devaccess::command_families,
                                              static_cast<int>(arguments.size()), argv.data());
    fuzz::require(status >= 0 && status <= 4);
}

void add_uio_device()
{
    chassis_sim::write_file("/dev/uio0", "");
    chassis_sim::bind_mount("/dev/zero", "/dev/uio0");
    const std::string class_dir = chassis_sim::uio_class_dir(0);
    chassis_sim::write_file(class_dir + "/dev", "1:5\n");
    chassis_sim::write_file(class_dir + "/maps/map0/size", "0x1000\n");
    chassis_sim::make_symlink(class_dir + "/device", "/sys/devices/regblock");
    chassis_sim::write_file("/sys/devices/regblock/uevent", "DRIVER=regblock\n");
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    chassis_sim::enter_private_root();
    chassis_sim::add_chassis_pci();
    chassis_sim::add_chassis_hotswap();
    add_uio_device();
    chassis_sim::write_file("/dev/nvlog-pod", std::string(16384, '\0'));
    for (const auto &log : chassis_sim::sample_post_logs())
        chassis_sim::write_file("/dev/" + log.name, log.image(chassis_sim::byte_order::little));
    ::setenv("DEVACCESS_CHASSIS", "n20", 1);
    run({"podlog", "prepare"}); // opens what stays open, too
    run({"podlog", "add", "SW1", "power-on"});
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string_view input(reinterpret_cast<const char *>(data), size);
    const auto count = static_cast<size_t>(std::count(input.begin(), input.end(), '\x1e')) + 1;
    const auto arguments = fuzz::parts(input, std::min<size_t>(count, 12));
    if (!std::all_of(arguments.begin(), arguments.end(), is_harmless) ||
        !std::all_of(arguments.begin(), arguments.end(), ends))
        return -1;
    const fuzz::descriptor_check descriptors;
    run(arguments);
    return 0;
}

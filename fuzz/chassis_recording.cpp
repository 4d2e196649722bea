// Recordings of machines: whatever an archive holds, its files are made in the chassis and nowhere
// else. The input is the archive.
#include "fuzz/support.h"
#include "sim/base/files.h"
#include "sim/program/private_root.h"
#include "sim/program/recorded_chassis.h"

#include <filesystem>
#include <string>
#include <string_view>

#include <unistd.h>

namespace
{

namespace fs = std::filesystem;

// Beside it there is nothing, and in it nothing may change. Archives name it by this path.
const std::string canary = "/tmp/chassis_recording_canary";

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fs::remove_all(canary);
    chassis_sim::write_file(canary + "/file", "sings");
    chassis_sim::enter_private_root();
    chassis_sim::stay_in_root_file_system();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    try {
        chassis_sim::write_recorded_tree({reinterpret_cast<const char *>(data), size});
    } catch (const std::runtime_error &) {
        // told in a line
    }
    std::error_code gone;
    for (const char *own : {"/sys", "/var", "/dev/dynattr", "/.chassis"})
        fs::remove_all(own, gone);
    fuzz::require(chassis_sim::file_text(canary + "/file") == "sings");
    fuzz::require(std::distance(fs::directory_iterator(canary), {}) == 1);
    return 0;
}

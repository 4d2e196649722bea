// Descriptions of a chassis: whatever one says, its files are made in the chassis and nowhere else,
// and what cannot be is told by the member it stands in. The input is the JSON text.
#include "fuzz/support.h"
#include "sim/base/files.h"
#include "sim/program/description.h"
#include "sim/program/private_root.h"

#include <filesystem>
#include <string>
#include <string_view>

#include <unistd.h>

namespace
{

namespace fs = std::filesystem;

// A directory of the machine that the chassis shows as it is: nothing in it may change.
const std::string canary = fs::temp_directory_path() / ("canary" + std::to_string(::getpid()));

void require_untouched()
{
    fuzz::require(chassis_sim::file_text(canary + "/file") == "sings");
    fuzz::require(std::distance(fs::directory_iterator(canary), {}) == 1);
}

void clear_chassis()
{
    std::error_code gone;
    for (const char *own : {"/sys", "/var", "/flash", "/dev/dynattr", "/.chassis"}) {
        fs::remove_all(own, gone);
        if (own != std::string_view("/.chassis"))
            chassis_sim::make_directory(own);
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    chassis_sim::write_file(canary + "/file", "sings");
    chassis_sim::enter_private_root();
    chassis_sim::stay_in_root_file_system();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // CANARY stands for the directory, whose name the input cannot know.
    std::string text(reinterpret_cast<const char *>(data), size);
    for (size_t at; (at = text.find("CANARY")) != std::string::npos;)
        text.replace(at, 6, canary);
    try {
        auto chassis = chassis_sim::parse_description(text, canary + "/description");
        chassis.pci_devices = 0; // they are alike
        chassis_sim::write_tree(chassis);
        chassis_sim::description_text(chassis);
    } catch (const std::runtime_error &error) {
        fuzz::require(std::string_view(error.what()).find('\n') == std::string_view::npos);
    }
    clear_chassis();
    require_untouched();
    return 0;
}

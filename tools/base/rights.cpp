// Finds out which right a process lacks.
#include "tools/base/rights.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fstream>

#include <fmt/format.h>
#include <linux/capability.h>
#include <unistd.h>

namespace devaccess
{
namespace
{

uint64_t effective_capabilities()
{
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;)
        if (word == "CapEff:") {
            uint64_t bits = 0;
            status >> std::hex >> bits;
            return bits;
        }
    return ~uint64_t{0};
}

bool locked_down()
{
    std::string modes; // as in "none [integrity] confidentiality"
    std::getline(std::ifstream("/sys/kernel/security/lockdown"), modes);
    return modes.find('[') != std::string::npos && modes.find("[none]") == std::string::npos;
}

std::string missing_capabilities()
{
    constexpr struct {
        int number;
        const char *name;
    } needed[] = {{CAP_SYS_ADMIN, "CAP_SYS_ADMIN"},
                  {CAP_SYS_RAWIO, "CAP_SYS_RAWIO"},
                  {CAP_DAC_OVERRIDE, "CAP_DAC_OVERRIDE"},
                  {CAP_MKNOD, "CAP_MKNOD"}};
    const uint64_t held = effective_capabilities();
    std::string names;
    for (const auto &capability : needed)
        if ((held >> capability.number & 1) == 0)
            names += fmt::format("{}{}", names.empty() ? "" : ", ", capability.name);
    return names;
}

bool says(const std::string &reason, int error)
{
    return reason.find(std::strerror(error)) != std::string::npos;
}

} // namespace

std::optional<std::string> missing_right(const std::string &reason, int error)
{
    if (error != EACCES && error != EPERM && !says(reason, EACCES) && !says(reason, EPERM))
        return std::nullopt;
    if (::geteuid() != 0)
        return "run it as root";
    if (const std::string names = missing_capabilities(); !names.empty())
        return "root lacks capabilities here: " + names;
    if (locked_down())
        return "the kernel is locked down (/sys/kernel/security/lockdown), which forbids it to root";
    return "root may not either: a driver owns the device, or it is mounted or made read-only";
}

} // namespace devaccess

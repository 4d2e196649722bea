// The verbs of control lines.
#include "sim/devices/control_verbs.h"

#include "sim/parts/pci_tree.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <map>
#include <optional>
#include <sstream>

namespace chassis_sim
{
namespace
{

struct verb {
    const char *name;
    bool takes_number;
    void (*act)(uio_device &device, int number);
};
constexpr verb verbs[] = {
    {"interrupt", false, [](uio_device &device, int) { device.interrupt(); }},
    {"plug", false, [](uio_device &device, int) { device.plug(); }},
    {"remove", false, [](uio_device &device, int) { device.remove(); }},
    {"answer-read", true, [](uio_device &device, int n) { device.read_answer = n; }},
    {"answer-write", true, [](uio_device &device, int n) { device.write_answer = n; }},
};

int number_of(const std::string &text)
{
    int number = 0;
    const char *end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    if (rest != end || error != std::errc())
        throw failure("'" + text + "' is not a number");
    return number;
}

// Whether it is a line about a PCI function.
bool obey_on_pci(const std::string &verb, const std::string &id, const std::string &state)
{
    static const std::map<std::string, uint16_t> states = {
        {"up", pcie_capability::link_up},
        {"training", pcie_capability::link_training},
        {"down", pcie_capability::link_down}};
    const bool names_it_alone =
        id.find(':') != std::string::npos && id.find('/') == std::string::npos && state.empty();
    if (verb == "link" && states.contains(state)) {
        set_link(id, states.at(state));
    } else if (verb == "remove" && names_it_alone) {
        if (!unplug_pci(id))
            throw failure("there is no function '" + id + "'");
    } else if (verb == "plug" && names_it_alone) {
        if (!plug_pci(id))
            throw failure("no function '" + id + "' has been removed");
    } else {
        return false;
    }
    return true;
}

uint64_t register_value_of(const std::string &text)
{
    char *end = nullptr;
    errno = 0;
    const uint64_t value = std::strtoull(text.c_str(), &end, 0);
    if (text.empty() || text[0] == '-' || *end != '\0' || errno != 0)
        throw failure("'" + text + "' is not a number");
    return value;
}

std::string hex(uint64_t value)
{
    char text[32];
    std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
    return text;
}

// What a line about registers has to tell; nothing, if it is none.
std::optional<std::string> obey_on_registers(const controlled &what, const std::string &verb,
                                             const std::string &name, const std::string &number)
{
    if (verb == "get" && !name.empty() && number.empty())
        return hex(what.windows.find_register(name).get());
    if (verb == "set" && !name.empty() && !number.empty()) {
        const register_place at = what.windows.find_register(name);
        const uint64_t value = register_value_of(number);
        if (value > at.most())
            throw failure(number + " is too large for " + name);
        at.set(value);
        return "";
    }
    if (verb == "log" && name.empty()) {
        write_file(access_log, what.bus.log());
        return "";
    }
    return std::nullopt;
}

} // namespace

std::string obey(const controlled &what, const std::string &line)
{
    std::istringstream words(line);
    std::string name, device, number, more;
    words >> name >> device >> number >> more;
    if (more.empty() && obey_on_pci(name, device, number))
        return "";
    if (const auto told = obey_on_registers(what, name, device, number); told && more.empty())
        return *told;
    const auto *const found = std::find_if(std::begin(verbs), std::end(verbs),
                                           [&](const verb &v) { return v.name == name; });
    if (name == "get" || name == "set")
        throw failure(name +
                      (name == "get" ? " takes a register" : " takes a register and a number"));
    if (found == std::end(verbs))
        throw failure("unknown control line '" + line.substr(0, 60) + "'");
    if (device.empty() || number.empty() == found->takes_number || !more.empty())
        throw failure(name + " takes " +
                      (found->takes_number ? "a device and a number" : "a device"));
    found->act(what.all.named(device), found->takes_number ? number_of(number) : 0);
    return "";
}

} // namespace chassis_sim

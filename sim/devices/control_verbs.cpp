// The verbs of control lines.
#include "sim/devices/control_verbs.h"

#include "sim/parts/pci_tree.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <map>
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
        throw failure("'" + text + "' is no number");
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

} // namespace

void obey(devices &all, const std::string &line)
{
    std::istringstream words(line);
    std::string name, device, number, more;
    words >> name >> device >> number >> more;
    if (more.empty() && obey_on_pci(name, device, number))
        return;
    const auto *const found = std::find_if(std::begin(verbs), std::end(verbs),
                                           [&](const verb &v) { return v.name == name; });
    if (found == std::end(verbs))
        throw failure("unknown control line '" + line.substr(0, 60) + "'");
    if (device.empty() || number.empty() == found->takes_number || !more.empty())
        throw failure(name + " takes " +
                      (found->takes_number ? "a device and a number" : "a device"));
    found->act(all.named(device), found->takes_number ? number_of(number) : 0);
}

} // namespace chassis_sim

// Devices by their names, and which of their calls are to fail.
#include "sim/devices/devices.h"

#include <algorithm>

namespace chassis_sim
{

devices::devices(const chassis_nodes &described, event_loop &loop, window_table &windows)
    : faults_(described.faults())
{
    for (const uio_node &device : described.uio())
        uio.emplace_back(device, loop, windows);
    for (const storage_node &device : described.storage())
        storage.emplace_back(device);
}

uio_device &devices::named(const std::string &name)
{
    const auto found = std::find_if(uio.begin(), uio.end(),
                                    [&name](const uio_device &d) { return d.name == name; });
    if (found == uio.end())
        throw failure("there is no device '" + name + "'");
    return *found;
}

std::string devices::node_of(const device_number &number) const
{
    const auto has_it = [&](const auto &device) {
        return device.number.major == number.major && device.number.minor == number.minor;
    };
    if (const auto found = std::find_if(uio.begin(), uio.end(), has_it); found != uio.end())
        return found->node;
    const auto found = std::find_if(storage.begin(), storage.end(), has_it);
    return found == storage.end() ? "" : found->node;
}

int devices::fault(const std::string &name, const std::string &call)
{
    for (call_fault &fault : faults_)
        if (fault.device == name && fault.call == call &&
            (++fault.seen == fault.nth || fault.nth == 0))
            return fault.error;
    return 0;
}

} // namespace chassis_sim

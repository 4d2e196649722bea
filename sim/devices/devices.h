// All devices that the server answers for, by their names.
#pragma once

#include "sim/devices/storage_device.h"
#include "sim/devices/uio_device.h"

#include <deque>
#include <string>
#include <vector>

namespace chassis_sim
{

class devices
{
public:
    devices(const chassis_nodes &described, event_loop &loop, window_table &windows);

    // The device of that name; throws a failure when there is none.
    uio_device &named(const std::string &name);

    // The node's path of the device with this number; empty: there is none.
    std::string node_of(const device_number &number) const;

    // The errno with which this call on a device fails; 0: it does not.
    int fault(const std::string &name, const std::string &call);
    bool have_faults() const { return !faults_.empty(); }

    std::deque<uio_device> uio; // openings point to them
    std::deque<storage_device> storage;

private:
    std::vector<call_fault> faults_;
};

} // namespace chassis_sim

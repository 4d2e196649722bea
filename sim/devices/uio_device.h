// A UIO device as its driver knows it.
#pragma once

#include "sim/base/files.h"
#include "sim/devices/event_loop.h"
#include "sim/devices/register_window.h"
#include "sim/parts/nodes.h"

#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

namespace chassis_sim
{

class uio_listener;

class uio_device : public uio_node
{
public:
    uio_device(const uio_node &described, event_loop &loop, window_table &windows);

    void plug();
    void remove(); // what the kernel does when a device leaves its driver
    void interrupt();
    int64_t control_interrupt(int32_t flag); // the result of the driver

    bool present() const { return present_; }
    uint32_t count() const { return count_; }

    // The window that a client maps so many bytes of at an offset; NULL: there is none.
    register_window *window_at(uint64_t offset, uint64_t length) const;

    // Who is told of interrupts and of the removal.
    void add(uio_listener &open) { listeners_.push_back(&open); }
    void forget(const uio_listener &open) { std::erase(listeners_, &open); }

    // What reads and writes of its node return, in place of what the driver says.
    std::optional<int> read_answer;
    std::optional<int> write_answer;

private:
    struct place {
        int memory; // the descriptor
        off_t offset;
    };
    place place_of(uint32_t address) const;
    void leave_sysfs();
    void reset_memory();
    void answer_registers(uint32_t session);
    std::string aside() const; // where its directory is while it is not there

    event_loop &loop_;
    bool present_ = true;    // in sysfs
    uint32_t session_ = 0;   // of its being plugged
    uint32_t enablings_ = 0; // and disablings
    bool enabled_ = false;
    bool latched_ = false; // an interrupt that occurred while disabled
    uint32_t count_ = 0;
    std::vector<register_window *> windows_;
    std::vector<bool> answered_;
    std::vector<uio_listener *> listeners_;
};

// An opening of such a device.
class uio_listener
{
public:
    virtual ~uio_listener() = default;
    virtual void tell(uint32_t count) = 0; // of an interrupt
    virtual void shut() = 0;               // the device has gone
};

} // namespace chassis_sim

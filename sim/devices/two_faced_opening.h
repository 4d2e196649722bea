// An opening that is a socket for whoever waits, and memory for whoever maps or reads.
#pragma once

#include "sim/devices/event_loop.h"
#include "sim/devices/opening.h"
#include "sim/devices/uio_device.h"

#include <set>
#include <string>
#include <utility>

namespace chassis_sim
{

// What a client gets for opening a UIO device's node or its removal notice. It has two faces, which
// take turns under the descriptor's number in the client: memory, to be mapped or read, and a
// socket, for all else, so that whatever the kernel has for waiting works on it. The socket's far
// end is here. While there is an interrupt that was not read, the count lies in the socket; when
// the far end goes, the socket tells that the device has gone.
class two_faced_opening : public opening, protected uio_listener
{
public:
    two_faced_opening(uio_device &of, opening_table &table, event_loop &loop, int flags);
    ~two_faced_opening() override;

    // The client gets the socket, as the result of its call, if it may open one more.
    bool hand_out(const asked_call &call, bool close_on_exec);

    bool is_behind(const std::string &link, const asking_process &client, int fd) const override;
    bool is_open() const override { return device_ || near_end(); }

    void duplicate(const asked_call &call, int fd, bool close_on_exec) override;
    void close(const asked_call &call, int fd) override;
    void use(const asked_call &call, int fd) override;
    void before_wait(const asked_call &call) override; // wherever it sees the memory

protected:
    uio_device *device() const { return device_; } // NULL: it has gone
    void show(const asked_call &call, int fd, int memory);
    void show_socket(const asked_call &call, int fd);
    bool is_nonblocking(const asked_call &call, int fd) const;

    // A count that the client has not read; it reads at most one.
    void put(uint32_t count) const;
    std::optional<uint32_t> take() const;

    void shut() override;

    // The client has written to a copy of its descriptor that writes are not asked about.
    virtual void written(int32_t) {}

private:
    using descriptor_of = std::pair<pid_t, int>;
    owned_fd near_end() const;
    void far_end_is_ready();
    void forget_memory(const asked_call &call, int fd);

    uio_device *device_;
    opening_table &table_;
    event_loop &loop_;
    owned_fd near_end_; // the client's socket, while no client has it
    owned_fd far_end_;
    std::string socket_link_;
    std::string memory_link_; // of what was shown last
    std::set<descriptor_of> clients_;
    std::set<descriptor_of> with_memory_;
    pid_t mapper_ = 0;
    steady::time_point shown_; // when it got the memory
};

} // namespace chassis_sim

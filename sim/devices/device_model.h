// The devices as their drivers know them, and what their openings see of them.
#pragma once

#include "sim/base/support.h"
#include "sim/devices/asking_process.h"
#include "sim/devices/device_server.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace chassis_sim
{

using steady = std::chrono::steady_clock;

// How many numbers there are for descriptors of UIO devices.
inline constexpr unsigned int uio_descriptors = 256;

bool may_make_nodes();

struct uio_device;

// What a client gets for opening a device's node or its removal notice. It has two faces, which
// take turns under the descriptor's number in the client: memory, to be mapped or read, and a
// socket, for all else, so that whatever the kernel has for waiting works on it. The socket's far
// end is here. While there is an interrupt that was not read, the count lies in the socket; when
// the far end goes, the socket tells that the device has gone.
class opening
{
public:
    opening(uio_device &of, bool is_notice, int flags);

    uio_device *device() const { return device_; } // NULL: it has gone
    bool is_notice() const { return is_notice_; }
    int far_end() const { return far_end_.get(); }

    // The client gets the socket, as the result of its call.
    void hand_out(const asked_call &call, unsigned int number, bool close_on_exec);

    // Whether a descriptor of the client, which is a link to that in /proc, is one of the faces.
    bool is_behind(const std::string &link, const asking_process &client, int fd) const;

    // Turns a face to the caller.
    void show_memory(const asked_call &call, int fd);
    void show_socket(const asked_call &call, int fd);
    void show_sockets(const asked_call &call); // wherever it sees the memory
    void close(const asked_call &call, int fd);

    // Whether any client has it open, as far as is known.
    bool is_open() const;

    void tell(uint32_t count) const; // of an interrupt
    void take_back() const;          // what has been told and not been read
    void shut();                     // the device has gone

private:
    owned_fd near_end() const;

    uio_device *device_;
    bool is_notice_;
    owned_fd memory_;
    std::string memory_link_;
    owned_fd near_end_; // the client's socket, while no client has it
    owned_fd far_end_;
    std::string socket_link_;
    std::set<std::pair<pid_t, int>> clients_; // and their descriptors
    std::set<std::pair<pid_t, int>> with_memory_;
    pid_t mapper_ = 0;
    steady::time_point shown_; // when it got the memory
};

struct uio_device : uio_node {
    explicit uio_device(const uio_node &node_);

    void plug();
    void remove(); // what the kernel does when a device leaves its driver
    void interrupt();
    int64_t control_interrupt(int32_t flag); // the result of the driver
    void answer_registers();

    bool present = true; // in sysfs
    bool enabled = false;
    bool latched = false; // an interrupt that occurred while disabled
    uint32_t count = 0;
    std::optional<int> read_answer;
    std::optional<int> write_answer;
    std::optional<steady::time_point> due; // of the interrupt that answers an enabling
    owned_fd memory;
    std::vector<std::shared_ptr<opening>> openings;

private:
    void leave_sysfs();
    void reset_memory();

    std::shared_ptr<volatile uint32_t> view_; // of the memory, when there are answers
    std::vector<bool> answered_;
};

struct storage_device : storage_node {
    explicit storage_device(const storage_node &node_);

    // A new opening; when it is kept out, errno says why.
    owned_fd open(int flags) const;

    // Whether a descriptor, which is a link to that in /proc, is such an opening.
    bool is_behind(const std::string &link) const { return link == link_; }

private:
    owned_fd memory_;
    std::string link_;
};

} // namespace chassis_sim
